#pragma once
// Reading a whole regular file. Anything else at the path (a FIFO, a device, a socket) is
// refused before any read, so that a read can neither block nor run forever.

#include <cstdint>
#include <filesystem>
#include <limits>
#include <string>
#include <string_view>

namespace orvane_kestrix {

class RootDirectory;

// outside_root: the path leads out of the root it was to be read beneath.
enum class FileReadStatus { ok, missing, unreadable, too_large, special, outside_root };

struct FileReadResult {
    FileReadStatus status = FileReadStatus::unreadable;
    std::uint64_t size = 0;      // as the file system reported it when the file was opened
    std::int64_t mtime_ns = 0;   // modification time, nanoseconds since the epoch
};

// Reads the file at `path` into `bytes`. A file larger than `max_size`, also one that grows
// past it while it is read, is `too_large`; `bytes` is then unspecified.
FileReadResult read_regular_file(const std::filesystem::path& path, std::string& bytes,
                                 std::uint64_t max_size = std::numeric_limits<std::uint64_t>::max());

// The same for `relative` opened beneath `root` (beneath_root.hpp).
FileReadResult read_regular_file(const RootDirectory& root, std::string_view relative, std::string& bytes,
                                 std::uint64_t max_size = std::numeric_limits<std::uint64_t>::max());

}  // namespace orvane_kestrix
