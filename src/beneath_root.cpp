#include "orvane_kestrix/beneath_root.hpp"

#include <fcntl.h>
#include <linux/openat2.h>
#include <sys/syscall.h>
#include <unistd.h>

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
            if (errno == ENOSYS || errno == EPERM) {
                openat2_missing.store(true, std::memory_order_relaxed);
                break;
            }
            // openat2 refuses every absolute link, also one that leads back inside: such a
            // path gets the descriptor check below.
            if (errno != EXDEV) return -1;
            break;
        }
    }
    // Open, then ask where the descriptor really is.
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

}  // namespace orvane_kestrix
