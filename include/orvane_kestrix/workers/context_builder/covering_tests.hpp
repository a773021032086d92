#pragma once
// The covering-test lookup of one pack: one batch query for many files, a cache of every
// answer, and a failed state in which it asks nothing more.

#include <cstdint>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

#include "orvane_kestrix/storage/repository.hpp"

namespace orvane_kestrix {

class CoveringTests {
public:
    CoveringTests(Repository& repository, std::int64_t per_file)
        : repository(repository), per_file(per_file) {}

    // Asks the index about the paths not yet known, in one batch; absent or empty entries and
    // known paths are passed over. A failed batch is logged once and sets `failed`.
    void look_up(const std::vector<std::optional<std::string>>& paths);
    // The best tests of `path`, at most `per_file`; nothing after a failure.
    std::vector<std::string> of(const std::optional<std::string>& path);

    Repository& repository;
    std::int64_t per_file;
    std::unordered_map<std::string, std::vector<std::string>> found;
    bool failed = false;
};

}  // namespace orvane_kestrix
