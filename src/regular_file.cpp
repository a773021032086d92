#include "orvane_kestrix/regular_file.hpp"

#include "orvane_kestrix/beneath_root.hpp"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

namespace orvane_kestrix {

namespace {

// Closes a descriptor when the read is done, whichever way it ends.
class FileDescriptor {
public:
    explicit FileDescriptor(int fd) : fd_(fd) {}
    FileDescriptor(const FileDescriptor&) = delete;
    FileDescriptor& operator=(const FileDescriptor&) = delete;
    ~FileDescriptor() {
        if (fd_ >= 0) ::close(fd_);
    }
    int get() const { return fd_; }

private:
    int fd_;
};

}  // namespace

namespace {

// Reads the file open at `descriptor` (-1 with errno set when the open failed), closing it.
FileReadResult read_opened(int descriptor, std::string& bytes, std::uint64_t max_size) {
    FileReadResult result;
    const FileDescriptor fd(descriptor);
    if (fd.get() < 0) {
        result.status = errno == ENOENT || errno == ENOTDIR ? FileReadStatus::missing
                        : errno == EXDEV                    ? FileReadStatus::outside_root
                                                            : FileReadStatus::unreadable;
        return result;
    }
    struct stat info {};
    if (::fstat(fd.get(), &info) != 0) return result;
    if (!S_ISREG(info.st_mode)) {
        result.status = FileReadStatus::special;
        return result;
    }
    result.size = static_cast<std::uint64_t>(info.st_size);
    result.mtime_ns = static_cast<std::int64_t>(info.st_mtim.tv_sec) * 1'000'000'000 + info.st_mtim.tv_nsec;
    if (result.size > max_size) {
        result.status = FileReadStatus::too_large;
        return result;
    }
    // Read straight into the string, sized by the file; a file that grows is read on up to
    // one byte past the limit, which tells that it grew too large.
    const std::uint64_t limit = max_size == std::numeric_limits<std::uint64_t>::max() ? max_size : max_size + 1;
    bytes.resize(static_cast<std::size_t>(result.size));
    std::size_t filled = 0;
    for (;;) {
        if (filled == bytes.size()) {
            if (bytes.size() >= limit) break;
            bytes.resize(static_cast<std::size_t>(std::min<std::uint64_t>(limit, bytes.size() + 65536)));
        }
        const ssize_t n = ::read(fd.get(), bytes.data() + filled, bytes.size() - filled);
        if (n < 0) {
            if (errno == EINTR) continue;
            return result;
        }
        if (n == 0) break;
        filled += static_cast<std::size_t>(n);
    }
    bytes.resize(filled);
    result.status = filled > max_size ? FileReadStatus::too_large : FileReadStatus::ok;
    return result;
}

}  // namespace

FileReadResult read_regular_file(const std::filesystem::path& path, std::string& bytes, std::uint64_t max_size) {
    return read_opened(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY), bytes, max_size);
}

FileReadResult read_regular_file(const RootDirectory& root, std::string_view relative, std::string& bytes,
                                 std::uint64_t max_size) {
    return read_opened(root.open_file(relative), bytes, max_size);
}

}  // namespace orvane_kestrix
