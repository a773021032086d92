#include "worker_threads.hpp"

namespace orvane_kestrix::indexer {

WorkerThreads::WorkerThreads(std::size_t count, std::function<void(std::size_t)> task, std::function<void()> stop)
    : task_(std::move(task)), stop_(std::move(stop)) {
    threads_.reserve(count);
    try {
        for (std::size_t k = 0; k < count; ++k) {
            threads_.emplace_back([this, k] {
                try {
                    task_(k);
                } catch (...) {
                    std::lock_guard lock(error_mutex_);
                    if (!error_) error_ = std::current_exception();
                }
            });
        }
    } catch (...) {
        join_all();  // a thread that could not start: the started ones still finish
        throw;
    }
}

WorkerThreads::~WorkerThreads() { join_all(); }

void WorkerThreads::join() {
    join_all();
    if (error_) std::rethrow_exception(error_);
}

void WorkerThreads::join_all() {
    if (stop_) stop_();
    for (auto& thread : threads_) {
        if (thread.joinable()) thread.join();
    }
}

void run_in_parallel(std::size_t count, const std::function<void(std::size_t)>& task) {
    if (count == 0) return;
    WorkerThreads others(count - 1, [&](std::size_t k) { task(k + 1); });
    task(0);
    others.join();
}

}  // namespace orvane_kestrix::indexer
