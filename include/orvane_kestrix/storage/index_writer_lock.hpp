#pragma once
// One writer at a time per index, and what readers learn about it.
//
// A writer holds an exclusive lock on a small file beside the index, "<index>.lock" (an
// open-file-description lock: it excludes other opens of the file in the same process as well
// as other processes, and the kernel drops it when its holder dies, so a killed writer never
// leaves the index locked). The file holds the writer's pid and, once the writer has work to
// do, its progress in percent, rewritten a few times a second at most. Readers test the lock
// without taking it and trust the file only while the lock is held.
//
// The file stays when its writer ends (emptied): removing a lock file races with a process
// that has just opened it.

#include <sys/types.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <optional>
#include <stdexcept>

namespace orvane_kestrix::storage {

// "<index>.lock", beside the index file.
std::filesystem::path writer_lock_path(const std::filesystem::path& index_path);

// Another writer holds the lock. what(): "another index run (pid N) is updating this index".
class IndexBusyError : public std::runtime_error {
public:
    explicit IndexBusyError(pid_t holder);
    pid_t holder() const { return holder_; }

private:
    pid_t holder_;
};

// The writer of an index as a reader sees it.
struct WriterActivity {
    pid_t pid = 0;
    // Present once the writer has found work to do (files to parse, a first build); a writer
    // that is only checking for changes has none.
    std::optional<std::int64_t> progress;
};

// The writer holding the lock of `index_path`, if any. Takes no lock and writes nothing
// (works on a read-only index too).
std::optional<WriterActivity> current_writer(const std::filesystem::path& index_path);

class IndexWriterLock {
public:
    // Takes the lock, or throws IndexBusyError when another writer holds it.
    static IndexWriterLock try_acquire(const std::filesystem::path& index_path);
    // Takes the lock, waiting while another writer holds it; `on_wait` (optional) is called
    // once, with the holder's pid, when it has to wait. Returns nothing when `cancel` is set
    // while waiting.
    static std::optional<IndexWriterLock> acquire(const std::filesystem::path& index_path,
                                                   const std::function<void(pid_t)>& on_wait = {},
                                                   const std::atomic<bool>* cancel = nullptr);

    IndexWriterLock(IndexWriterLock&& other) noexcept;
    IndexWriterLock& operator=(IndexWriterLock&& other) noexcept;
    IndexWriterLock(const IndexWriterLock&) = delete;
    IndexWriterLock& operator=(const IndexWriterLock&) = delete;
    // Empties the file and releases the lock.
    ~IndexWriterLock();

    // Tells readers the writer's progress. Written at once the first time and whenever it
    // reaches 100; otherwise at most every kProgressInterval, and only when it changed.
    void publish_progress(std::int64_t percent);

    static constexpr std::chrono::milliseconds kProgressInterval{200};

private:
    explicit IndexWriterLock(int fd);
    void write_status(std::optional<std::int64_t> percent);
    void release();

    int fd_ = -1;
    std::optional<std::int64_t> published_;
    std::chrono::steady_clock::time_point published_at_{};
};

}  // namespace orvane_kestrix::storage
