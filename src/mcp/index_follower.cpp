#include "orvane_kestrix/mcp/index_follower.hpp"

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <filesystem>
#include <unordered_map>

#include "orvane_kestrix/indexer/file_walker.hpp"
#include "orvane_kestrix/indexer/ignore_rules.hpp"

namespace orvane_kestrix::mcp {

namespace fs = std::filesystem;

namespace {

constexpr std::uint32_t kWatchedEvents =
    IN_CREATE | IN_DELETE | IN_MODIFY | IN_CLOSE_WRITE | IN_MOVED_FROM | IN_MOVED_TO | IN_DELETE_SELF | IN_ONLYDIR;

int milliseconds(std::chrono::milliseconds duration) { return static_cast<int>(duration.count()); }

}  // namespace

// inotify watches on every directory of the tree that the indexer may list (the directories a
// walk skips, such as .git and build output, and those that .gitignore files exclude are left
// out), following directories as they are made or moved in.
class IndexFollower::Watch {
public:
    Watch(const fs::path& root, const fs::path& index_path) : root_(root) {
        std::error_code error;
        index_dir_ = fs::weakly_canonical(index_path.parent_path(), error);
        index_name_ = index_path.filename().string();
        fd_ = inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
        if (fd_ < 0) {
            complete_ = false;
            return;
        }
        ignore_.load("", (root_ / ".git" / "info" / "exclude").string());
        add_tree(root_);
    }
    ~Watch() {
        if (fd_ >= 0) close(fd_);
    }
    Watch(const Watch&) = delete;
    Watch& operator=(const Watch&) = delete;

    int fd() const { return fd_; }
    // False when some directory could not be watched: changes there are only seen by the
    // periodic refresh.
    bool complete() const { return complete_; }

    // Reads the pending events; true when any of them may change the index.
    bool drain() {
        bool relevant = false;
        alignas(inotify_event) std::array<char, 64 * 1024> buffer{};
        for (;;) {
            const ssize_t n = read(fd_, buffer.data(), buffer.size());
            if (n <= 0) break;
            for (ssize_t offset = 0; offset < n;) {
                const auto* event = reinterpret_cast<const inotify_event*>(buffer.data() + offset);
                offset += static_cast<ssize_t>(sizeof(inotify_event) + event->len);
                relevant = note(*event) || relevant;
            }
        }
        return relevant;
    }

private:
    bool note(const inotify_event& event) {
        if ((event.mask & IN_Q_OVERFLOW) != 0) return true;
        const auto dir = dirs_.find(event.wd);
        if (dir == dirs_.end()) return false;
        if ((event.mask & IN_IGNORED) != 0) {
            dirs_.erase(dir);
            return false;
        }
        const std::string name = event.len > 0 ? std::string(event.name) : std::string();
        // The index's own files change with every refresh.
        if (!name.empty() && name.starts_with(index_name_) && canonical(dir->second) == index_dir_) return false;
        if ((event.mask & IN_ISDIR) != 0 && (event.mask & (IN_CREATE | IN_MOVED_TO)) != 0) {
            if (indexer::is_skipped_directory_name(name) || ignore_.ignored(relative(dir->second / name), true)) return false;
            add_tree(dir->second / name);
        }
        return true;
    }

    static fs::path canonical(const fs::path& path) {
        std::error_code error;
        return fs::weakly_canonical(path, error);
    }

    std::string relative(const fs::path& path) const { return path.lexically_relative(root_).generic_string(); }

    // Watches `dir` and reads its .gitignore for what lies below.
    void add(const fs::path& dir) {
        const std::string rel = relative(dir);
        ignore_.load(rel == "." ? std::string() : rel, (dir / ".gitignore").string());
        const int wd = inotify_add_watch(fd_, dir.c_str(), kWatchedEvents);
        if (wd < 0) {
            complete_ = false;
            return;
        }
        dirs_[wd] = dir;
    }

    void add_tree(const fs::path& top) {
        add(top);
        std::error_code error;
        fs::recursive_directory_iterator it(top, fs::directory_options::skip_permission_denied, error);
        for (; !error && it != fs::recursive_directory_iterator(); it.increment(error)) {
            if (it->is_symlink(error) || !it->is_directory(error)) continue;
            if (indexer::is_skipped_directory_name(it->path().filename().string()) ||
                ignore_.ignored(relative(it->path()), true)) {
                it.disable_recursion_pending();
                continue;
            }
            add(it->path());
        }
        if (error) complete_ = false;
    }

    fs::path root_;
    fs::path index_dir_;
    std::string index_name_;
    int fd_ = -1;
    bool complete_ = true;
    indexer::IgnoreRules ignore_;
    std::unordered_map<int, fs::path> dirs_;
};

IndexFollower::IndexFollower(service::Workspace& workspace, FollowOptions options)
    : workspace_(workspace), options_(std::move(options)) {
    wake_fd_ = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
}

IndexFollower::~IndexFollower() {
    stop();
    if (wake_fd_ >= 0) close(wake_fd_);
}

void IndexFollower::start() {
    if (thread_.joinable()) return;
    stopping_.store(false);
    // Calls answered before the thread reaches its first refresh (it sets up its watches
    // first) wait for that refresh like those answered during it.
    workspace_.expect_refresh();
    thread_ = std::thread([this] { run(); });
}

void IndexFollower::stop() {
    stopping_.store(true);
    if (wake_fd_ >= 0) {
        const std::uint64_t one = 1;
        [[maybe_unused]] const ssize_t written = write(wake_fd_, &one, sizeof one);
    }
    if (thread_.joinable()) thread_.join();
}

void IndexFollower::log(const std::string& line) const {
    if (options_.log) options_.log(line);
}

void IndexFollower::refresh_once() {
    try {
        const indexer::IndexStats stats = workspace_.refresh({}, &stopping_);
        if (stats.parsed > 0 || stats.removed > 0) log(stats.summary());
    } catch (const std::exception& e) {
        log(std::string("index refresh failed: ") + e.what());
    }
}

void IndexFollower::run() {
    // Watch before the first refresh: a file edited while that refresh runs (after it was read)
    // then still wakes the loop below, instead of waiting for the periodic check.
    Watch watch(workspace_.repo(), workspace_.index_path());
    if (!watch.complete()) log("not every directory can be watched; checking for changes every few seconds instead");
    refresh_once();
    if (stopping_.load()) return;
    const int interval = milliseconds(watch.complete() ? options_.check_interval : options_.fallback_interval);
    std::array<pollfd, 2> fds{};
    fds[0] = {wake_fd_, POLLIN, 0};
    fds[1] = {watch.fd(), POLLIN, 0};
    const nfds_t count = watch.fd() >= 0 ? 2 : 1;
    while (!stopping_.load()) {
        const int ready = poll(fds.data(), count, interval);
        if (stopping_.load()) break;
        if (ready < 0) {
            if (errno == EINTR) continue;
            break;
        }
        if (ready > 0) {
            if (!watch.drain()) continue;
            // Wait for the burst to end: quiet for `debounce`, or `max_delay` after its start.
            const auto started = std::chrono::steady_clock::now();
            while (!stopping_.load() && std::chrono::steady_clock::now() - started < options_.max_delay) {
                if (poll(fds.data(), count, milliseconds(options_.debounce)) <= 0) break;
                watch.drain();
            }
            if (stopping_.load()) break;
        }
        refresh_once();
    }
}

}  // namespace orvane_kestrix::mcp
