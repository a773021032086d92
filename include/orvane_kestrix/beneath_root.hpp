#pragma once
// A root directory that files are opened beneath: a path that leaves the root, whether by "..",
// by being absolute or through a symbolic link that points outside, is refused when the file is
// opened, so a link swapped in after the tree was listed cannot lead a read out of the root.
// regular_file.hpp reads whole files this way.

#include <filesystem>
#include <string>
#include <string_view>

namespace orvane_kestrix {

// An open descriptor of a root directory, the starting point of every lookup beneath it.
class RootDirectory {
public:
    // Opens `root`; is_open() tells whether that worked.
    explicit RootDirectory(const std::filesystem::path& root);
    ~RootDirectory();
    RootDirectory(const RootDirectory&) = delete;
    RootDirectory& operator=(const RootDirectory&) = delete;

    bool is_open() const { return fd_ >= 0; }

    // A read-only descriptor of `relative` (which the caller closes), or -1 with errno set;
    // EXDEV when the path leads out of the root. Never blocks on a FIFO or takes a terminal.
    int open_file(std::string_view relative) const;

private:
    int fd_ = -1;
    std::string canonical_;  // the root with every link resolved, for the fallback check
};

}  // namespace orvane_kestrix
