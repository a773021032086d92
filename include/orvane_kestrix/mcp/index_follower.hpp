#pragma once
// Keeps a workspace's index in step with the working tree while a server runs: one background
// thread refreshes the index at start (building it when there is none), then again whenever
// files change. Changes are seen through inotify on the repository's directories (debounced,
// so a burst of writes costs one refresh), with a periodic refresh as the fallback for what
// notifications miss (an overflowed queue, a file system without them, too many directories).
// The refresh is incremental: files whose size and time are unchanged are not read. While
// another process updates the index (a `kestrix index` run), a round is skipped and tried
// again after `fallback_interval`.

#include <atomic>
#include <chrono>
#include <functional>
#include <string>
#include <thread>

#include "orvane_kestrix/service/workspace.hpp"

namespace orvane_kestrix::mcp {

struct FollowOptions {
    // Quiet time after the last change before a refresh starts, and the longest a steady
    // stream of changes may put it off.
    std::chrono::milliseconds debounce{150};
    std::chrono::milliseconds max_delay{1000};
    // How often to refresh without a notification: rarely while notifications work, often
    // when they do not.
    std::chrono::milliseconds check_interval{30000};
    std::chrono::milliseconds fallback_interval{1500};
    // One line per refresh or failure (to the log); may be empty.
    std::function<void(const std::string&)> log;
};

class IndexFollower {
public:
    IndexFollower(service::Workspace& workspace, FollowOptions options);
    ~IndexFollower();
    IndexFollower(const IndexFollower&) = delete;
    IndexFollower& operator=(const IndexFollower&) = delete;

    void start();
    // Stops a running refresh at its next file and joins the thread.
    void stop();

private:
    class Watch;

    void run();
    // False when another process held the index, so nothing was refreshed.
    bool refresh_once();
    void log(const std::string& line) const;

    service::Workspace& workspace_;
    FollowOptions options_;
    std::atomic<bool> stopping_{false};
    bool busy_logged_ = false;  // the other writer has been logged once
    int wake_fd_ = -1;
    std::thread thread_;
};

}  // namespace orvane_kestrix::mcp
