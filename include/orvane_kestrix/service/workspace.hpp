#pragma once
// A repository as the front ends see it: its index (opened on demand, reopened when a rebuild
// replaced the file), the context builder and retriever over it, and whether a refresh of the
// index is running. Front ends translate their arguments into a PackRequest and the typed
// errors of service/errors.hpp into exit codes or protocol errors; everything else is here.
//
// Threads: pack() may be called from any thread (calls are served one at a time over one
// connection); refresh() runs the indexer on the calling thread with a connection of its own,
// so a pack never waits for a refresh. A pack reads the index inside one read transaction, so
// it sees the index as one committed state even while a refresh writes.

#include <atomic>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>

#include "orvane_kestrix/indexer/index_builder.hpp"
#include "orvane_kestrix/workers/context_builder/context_builder.hpp"

namespace orvane_kestrix::service {

struct WorkspaceOptions {
    std::filesystem::path repo = ".";
    // The index file; default: <repo>/.kestrix/index.db.
    std::optional<std::filesystem::path> db;
    // Packs list the test files that cover their first source files.
    bool list_tests = false;
    // Seed packs with the index's retriever when it has one.
    bool use_retriever = true;
    // Parser threads of a refresh; 0: one per hardware thread.
    unsigned index_jobs = 0;
    // Refreshes index minified and generated files too (IndexOptions::include_generated).
    bool include_generated = false;
};

// Where a refresh stands: `in_progress` while one runs, with its percentage.
struct IndexingStatus {
    bool in_progress = false;
    std::int64_t progress = 100;
};

class Workspace {
public:
    // Throws MissingRepositoryError when `options.repo` is not a directory.
    explicit Workspace(WorkspaceOptions options);
    ~Workspace();
    Workspace(const Workspace&) = delete;
    Workspace& operator=(const Workspace&) = delete;

    const std::filesystem::path& repo() const { return options_.repo; }
    const std::filesystem::path& index_path() const { return index_path_; }

    // Whether the index file holds a completed index. A file left by an interrupted first run
    // has no completion time and counts as incomplete (a refresh resumes it). Throws
    // DamagedIndexError for a file that cannot be used.
    bool has_complete_index() const;

    // Builds or refreshes the index on the calling thread; `on_progress` (optional) is called
    // on this thread as work advances. While it runs with work to do (a first build, or files
    // that changed), packs report indexing in progress.
    // `cancel`, when given, stops it at the next file. Throws DamagedIndexError or
    // IndexAccessError.
    indexer::IndexStats refresh(const std::function<void(const indexer::IndexProgress&)>& on_progress = {},
                                const std::atomic<bool>* cancel = nullptr);

    // Says that a refresh is about to start on another thread: until it does, packs over a
    // repository without an index report indexing in progress instead of failing for want of
    // an index.
    void expect_refresh();

    IndexingStatus indexing_status() const;

    // The context pack of `request`, from the index as it is now. Snippets are read under the
    // repository root when the request names no other. Without any index yet (a first build
    // running), the pack is empty and says so in a note. Throws UnknownComponentError,
    // DamagedIndexError or IndexAccessError.
    ContextPack pack(PackRequest request);

private:
    struct OpenIndex;

    // The open index, (re)opened when the file appeared or was replaced; null while there is
    // no index file. Called with pack_mutex_ held.
    OpenIndex* current_index();

    WorkspaceOptions options_;
    std::filesystem::path index_path_;
    std::mutex pack_mutex_;
    std::unique_ptr<OpenIndex> open_;
    std::mutex refresh_mutex_;
    std::atomic<bool> refreshing_{false};
    std::atomic<std::int64_t> progress_{100};
};

// A refresh's progress as one percentage: scanning counts as 0, parsing runs to 90, resolving
// the references of the whole index takes the rest.
std::int64_t progress_percent(const indexer::IndexProgress& progress);

}  // namespace orvane_kestrix::service
