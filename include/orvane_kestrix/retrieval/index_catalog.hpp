#pragma once
// The index's files as the retriever looks them up: by id, and by the paths a task writes
// (absolute, relative to another root, or a bare file name), matched on their longest common
// tail of path components.

#include <cstdint>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "orvane_kestrix/storage/sqlite_schema.hpp"

namespace orvane_kestrix::retrieval {

struct CatalogFile {
    std::int64_t id = 0;
    std::string path;
    bool is_test = false;
    bool is_source = false;
};

class IndexCatalog {
public:
    IndexCatalog() = default;
    explicit IndexCatalog(storage::Database& db);
    explicit IndexCatalog(std::vector<CatalogFile> files);

    const CatalogFile* file(std::int64_t id) const;
    // The files whose path ends with the most trailing components of `written` (at least the
    // file name). "/home/u/app/src/x.py" finds "src/x.py"; "x.py" finds every x.py. A path
    // without an extension ("sympy/core/expr", from a dotted module name) also matches the
    // source files of that stem.
    std::vector<std::int64_t> match_path(std::string_view written) const;
    // The source files whose name, without its extension and leading underscores, is `word`
    // in any case: "compat" finds _compat.py, "rule" finds rule.py and Rule.java.
    std::vector<std::int64_t> files_named(std::string_view word) const;
    std::size_t size() const { return files_.size(); }

private:
    void build();

    std::vector<CatalogFile> files_;
    std::unordered_map<std::int64_t, std::size_t> by_id_;
    std::unordered_map<std::string, std::vector<std::size_t>> by_name_;  // file name -> files
    std::unordered_map<std::string, std::vector<std::size_t>> by_stem_;  // file name without extension -> source files
    std::unordered_map<std::string, std::vector<std::size_t>> by_bare_stem_;  // the same, lowercased, leading "_" removed
};

}  // namespace orvane_kestrix::retrieval
