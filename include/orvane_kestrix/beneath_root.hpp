#pragma once
// Files read beneath a root directory: a path that leaves the root, whether by "..", by being
// absolute or through a symbolic link that points outside, is refused when the file is opened,
// so a link swapped in after the tree was listed cannot lead a read out of the root.

#include <sys/stat.h>

#include <cstdint>
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

enum class FileRead { ok, missing, refused, unreadable, special, too_large };

// Reads the regular file open at `fd` (closing it) into `out`, up to `max_size` bytes; `st`
// receives its status. A FIFO, a device or a socket is `special` and is not read.
FileRead read_regular_file(int fd, std::uint64_t max_size, std::string& out, struct stat& st);

// Opens `relative` beneath `root` and reads it as read_regular_file does; `missing` for a
// path that does not exist, `refused` for one that leads out of the root.
FileRead read_file_beneath(const RootDirectory& root, std::string_view relative, std::uint64_t max_size,
                           std::string& out, struct stat& st);

}  // namespace orvane_kestrix
