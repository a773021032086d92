#include "orvane_kestrix/beneath_root.hpp"

#include <fcntl.h>
#include <linux/openat2.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <climits>

namespace orvane_kestrix {

namespace {

constexpr int kReadFlags = O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY;

// Whether the kernel has openat2; learnt from the first call (ENOSYS on kernels before 5.6,
// EPERM under some seccomp filters).
std::atomic<bool> openat2_missing{false};

std::string path_of_descriptor(int fd) {
    char target[PATH_MAX];
    const std::string link = "/proc/self/fd/" + std::to_string(fd);
    const ssize_t n = ::readlink(link.c_str(), target, sizeof target);
    if (n <= 0 || static_cast<std::size_t>(n) >= sizeof target) return {};
    return std::string(target, static_cast<std::size_t>(n));
}

bool is_under(const std::string& root, const std::string& path) {
    if (root.empty() || path.empty()) return false;
    if (root == "/") return true;
    return path.size() > root.size() && path.compare(0, root.size(), root) == 0 && path[root.size()] == '/';
}

}  // namespace

RootDirectory::RootDirectory(const std::filesystem::path& root)
    : fd_(::open(root.empty() ? "." : root.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC)) {
    if (fd_ >= 0) canonical_ = path_of_descriptor(fd_);
}

RootDirectory::~RootDirectory() {
    if (fd_ >= 0) ::close(fd_);
}

int RootDirectory::open_file(std::string_view relative) const {
    if (fd_ < 0) {
        errno = EBADF;
        return -1;
    }
    const std::string path(relative);
    if (path.empty() || path.find('\0') != std::string::npos) {
        errno = ENOENT;
        return -1;
    }
    if (!openat2_missing.load(std::memory_order_relaxed)) {
        open_how how{};
        how.flags = static_cast<std::uint64_t>(kReadFlags);
        how.resolve = RESOLVE_BENEATH | RESOLVE_NO_MAGICLINKS;
        for (;;) {
            const long fd = ::syscall(SYS_openat2, fd_, path.c_str(), &how, sizeof how);
            if (fd >= 0) return static_cast<int>(fd);
            if (errno == EINTR || errno == EAGAIN) continue;  // EAGAIN: a rename raced the lookup
            if (errno != ENOSYS && errno != EPERM) return -1;
            break;
        }
        openat2_missing.store(true, std::memory_order_relaxed);
    }
    // Without openat2: open, then ask where the descriptor really is.
    if (path.front() == '/') {
        errno = EXDEV;
        return -1;
    }
    const int fd = ::openat(fd_, path.c_str(), kReadFlags);
    if (fd < 0) return -1;
    if (!is_under(canonical_, path_of_descriptor(fd))) {
        ::close(fd);
        errno = EXDEV;
        return -1;
    }
    return fd;
}

FileRead read_regular_file(int fd, std::uint64_t max_size, std::string& out, struct stat& st) {
    struct Closer {
        int fd;
        ~Closer() { ::close(fd); }
    } closer{fd};
    out.clear();
    if (::fstat(fd, &st) != 0) return FileRead::unreadable;
    if (!S_ISREG(st.st_mode)) return FileRead::special;
    if (static_cast<std::uint64_t>(st.st_size) > max_size) return FileRead::too_large;
    // The size may change while the file is read: read until the end, one byte past the cap.
    const std::uint64_t limit = max_size == UINT64_MAX ? max_size : max_size + 1;
    out.resize(static_cast<std::size_t>(st.st_size));
    std::size_t filled = 0;
    for (;;) {
        if (filled == out.size()) {
            if (out.size() >= limit) break;
            out.resize(static_cast<std::size_t>(std::min<std::uint64_t>(limit, out.size() + 65536)));
        }
        const ssize_t n = ::read(fd, out.data() + filled, out.size() - filled);
        if (n < 0) {
            if (errno == EINTR) continue;
            out.clear();
            return FileRead::unreadable;
        }
        if (n == 0) break;
        filled += static_cast<std::size_t>(n);
    }
    out.resize(filled);
    if (filled > max_size) {
        out.clear();
        return FileRead::too_large;
    }
    return FileRead::ok;
}

FileRead read_file_beneath(const RootDirectory& root, std::string_view relative, std::uint64_t max_size,
                           std::string& out, struct stat& st) {
    const int fd = root.open_file(relative);
    if (fd < 0) {
        out.clear();
        if (errno == ENOENT || errno == ENOTDIR) return FileRead::missing;
        return errno == EXDEV ? FileRead::refused : FileRead::unreadable;
    }
    return read_regular_file(fd, max_size, out, st);
}

}  // namespace orvane_kestrix
