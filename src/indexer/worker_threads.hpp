#pragma once
// Threads that run one task each, joined before the owner goes on: the indexer's parsers and
// the resolver's parallel loops.

#include <cstddef>
#include <exception>
#include <functional>
#include <mutex>
#include <thread>
#include <vector>

namespace orvane_kestrix::indexer {

class WorkerThreads {
public:
    // Starts `count` threads, the k-th running task(k). `stop`, when given, is called before
    // the threads are joined, to wake any that wait on their owner (a closed queue).
    WorkerThreads(std::size_t count, std::function<void(std::size_t)> task, std::function<void()> stop = {});
    // Joins without rethrowing: an owner that is already unwinding loses no thread.
    ~WorkerThreads();
    WorkerThreads(const WorkerThreads&) = delete;
    WorkerThreads& operator=(const WorkerThreads&) = delete;

    // Waits for every thread, then rethrows the first exception a task threw.
    void join();

private:
    void join_all();

    std::function<void(std::size_t)> task_;
    std::function<void()> stop_;
    std::vector<std::thread> threads_;
    std::mutex error_mutex_;
    std::exception_ptr error_;
};

// Runs task(k) for k in [0, count): k = 0 on the calling thread, the others on threads of
// their own; returns when all are done, rethrowing the first exception one threw.
void run_in_parallel(std::size_t count, const std::function<void(std::size_t)>& task);

}  // namespace orvane_kestrix::indexer
