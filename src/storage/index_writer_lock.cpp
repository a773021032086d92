#include "orvane_kestrix/storage/index_writer_lock.hpp"

#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <string>
#include <system_error>
#include <thread>
#include <utility>

#include <fmt/format.h>

namespace orvane_kestrix::storage {

namespace fs = std::filesystem;

namespace {

// The status is rewritten in place at a fixed length, so that a reader never meets the tail
// of a longer earlier text.
constexpr std::size_t kStatusLength = 32;
// How often a waiting writer tries the lock again.
constexpr std::chrono::milliseconds kWaitPoll{50};

struct flock whole_file(short type) {
    struct flock range {};
    range.l_type = type;
    range.l_whence = SEEK_SET;
    range.l_start = 0;
    range.l_len = 0;  // to the end of the file, however long it grows
    return range;
}

// Takes the exclusive lock without waiting; false when another holder has it.
bool try_lock(int fd) {
    struct flock range = whole_file(F_WRLCK);
    if (fcntl(fd, F_OFD_SETLK, &range) == 0) return true;
    if (errno == EAGAIN || errno == EACCES) return false;
    throw std::system_error(errno, std::generic_category(), "cannot lock the index");
}

bool held_by_another(int fd) {
    struct flock range = whole_file(F_RDLCK);
    if (fcntl(fd, F_OFD_GETLK, &range) != 0) return false;
    return range.l_type != F_UNLCK;
}

// "PID PROGRESS" or "PID -"; an empty or garbled text gives pid 0.
WriterActivity parse_status(int fd) {
    std::array<char, kStatusLength * 2> buffer{};
    const ssize_t n = pread(fd, buffer.data(), buffer.size(), 0);
    WriterActivity activity;
    if (n <= 0) return activity;
    const char* at = buffer.data();
    const char* end = buffer.data() + n;
    pid_t pid = 0;
    auto parsed = std::from_chars(at, end, pid);
    if (parsed.ec != std::errc() || pid <= 0) return activity;
    activity.pid = pid;
    at = parsed.ptr;
    while (at < end && *at == ' ') ++at;
    std::int64_t progress = 0;
    parsed = std::from_chars(at, end, progress);
    if (parsed.ec == std::errc()) activity.progress = progress;
    return activity;
}

// The holder's pid; it writes it right after taking the lock, so an empty file is read again
// for a moment.
pid_t holder_of(int fd) {
    for (int attempt = 0; attempt < 40; ++attempt) {
        const WriterActivity activity = parse_status(fd);
        if (activity.pid > 0) return activity.pid;
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return 0;
}

int open_lock_file(const fs::path& index_path) {
    const fs::path path = writer_lock_path(index_path);
    std::error_code error;
    fs::create_directories(path.parent_path(), error);
    const int fd = open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644);
    if (fd < 0) throw std::system_error(errno, std::generic_category(), "cannot open " + path.string());
    return fd;
}

}  // namespace

fs::path writer_lock_path(const fs::path& index_path) {
    // Through the link, when the index path is one: every path to one index shares its lock.
    std::error_code error;
    fs::path real = fs::weakly_canonical(index_path, error);
    if (error) real = index_path;
    real += ".lock";
    return real;
}

IndexBusyError::IndexBusyError(pid_t holder)
    : std::runtime_error(fmt::format("another index run (pid {}) is updating this index", holder)), holder_(holder) {}

std::optional<WriterActivity> current_writer(const fs::path& index_path) {
    const int fd = open(writer_lock_path(index_path).c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) return std::nullopt;
    std::optional<WriterActivity> activity;
    if (held_by_another(fd)) activity = parse_status(fd);
    close(fd);
    return activity;
}

IndexWriterLock::IndexWriterLock(int fd) : fd_(fd) { write_status(std::nullopt); }

IndexWriterLock IndexWriterLock::try_acquire(const fs::path& index_path) {
    const int fd = open_lock_file(index_path);
    try {
        if (try_lock(fd)) return IndexWriterLock(fd);
        throw IndexBusyError(holder_of(fd));
    } catch (...) {
        close(fd);
        throw;
    }
}

std::optional<IndexWriterLock> IndexWriterLock::acquire(const fs::path& index_path, const std::function<void(pid_t)>& on_wait,
                                                        const std::atomic<bool>* cancel) {
    const int fd = open_lock_file(index_path);
    try {
        bool told = false;
        while (!try_lock(fd)) {
            if (!told && on_wait) on_wait(holder_of(fd));
            told = true;
            if (cancel != nullptr && cancel->load()) {
                close(fd);
                return std::nullopt;
            }
            std::this_thread::sleep_for(kWaitPoll);
        }
        return IndexWriterLock(fd);
    } catch (...) {
        close(fd);
        throw;
    }
}

IndexWriterLock::IndexWriterLock(IndexWriterLock&& other) noexcept
    : fd_(std::exchange(other.fd_, -1)), published_(other.published_), published_at_(other.published_at_) {}

IndexWriterLock& IndexWriterLock::operator=(IndexWriterLock&& other) noexcept {
    if (this != &other) {
        release();
        fd_ = std::exchange(other.fd_, -1);
        published_ = other.published_;
        published_at_ = other.published_at_;
    }
    return *this;
}

IndexWriterLock::~IndexWriterLock() { release(); }

void IndexWriterLock::release() {
    if (fd_ < 0) return;
    // Emptied first: a reader that still finds the lock held for a moment reads no progress.
    [[maybe_unused]] const int truncated = ftruncate(fd_, 0);
    close(fd_);
    fd_ = -1;
}

void IndexWriterLock::publish_progress(std::int64_t percent) {
    const auto now = std::chrono::steady_clock::now();
    if (published_) {
        if (*published_ == percent) return;
        if (percent < 100 && now - published_at_ < kProgressInterval) return;
    }
    write_status(percent);
    published_ = percent;
    published_at_ = now;
}

void IndexWriterLock::write_status(std::optional<std::int64_t> percent) {
    if (fd_ < 0) return;
    std::string text = percent ? fmt::format("{} {}", getpid(), *percent) : fmt::format("{} -", getpid());
    text.resize(kStatusLength - 1, ' ');
    text += '\n';
    // Best effort: readers then only miss the progress figure.
    [[maybe_unused]] const ssize_t written = pwrite(fd_, text.data(), text.size(), 0);
}

}  // namespace orvane_kestrix::storage
