#pragma once
// A temporary directory for one fuzzing process, removed when the process exits normally. Targets
// that must touch the file system write there and nowhere else.

#include <cstdlib>
#include <filesystem>
#include <string>
#include <system_error>

namespace orvane_kestrix::fuzz {

class ScratchDirectory {
public:
    ScratchDirectory() {
        std::string pattern = (std::filesystem::temp_directory_path() / "kestrix-fuzz-XXXXXX").string();
        if (!::mkdtemp(pattern.data())) std::abort();
        path_ = pattern;
    }
    ~ScratchDirectory() {
        std::error_code ignored;
        std::filesystem::remove_all(path_, ignored);
    }
    ScratchDirectory(const ScratchDirectory&) = delete;
    ScratchDirectory& operator=(const ScratchDirectory&) = delete;

    const std::filesystem::path& path() const { return path_; }

private:
    std::filesystem::path path_;
};

}  // namespace orvane_kestrix::fuzz
