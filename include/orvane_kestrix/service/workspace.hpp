#pragma once
// A repository as the front ends see it: its index (opened on demand, reopened when a rebuild
// replaced the file), the context builder and retriever over it, and whether a refresh of the
// index is running. Front ends translate their arguments into a PackRequest and the typed
// errors of service/errors.hpp into exit codes or protocol errors; everything else is here.
//
// Threads: pack() may be called from any thread (calls are served one at a time over one
// connection); refresh() runs the indexer on the calling thread with a connection of its own,
// so a pack never waits for a refresh. A pack reads the index inside one read transaction, so
// it sees the index as one committed state even while a refresh writes (a refresh commits
// once), and the retriever's view of the index is renewed whenever that state changed.
// The indexing status counts refreshes run by other processes too (their writer lock).
//
// With the index on a PostgreSQL server, each pack reads one committed state of the repository
// (a read-only snapshot transaction), so a publish beside it is seen whole or not at all.

#include <sys/types.h>

#include <atomic>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>

#include "orvane_kestrix/indexer/index_builder.hpp"
#include "orvane_kestrix/workers/context_builder/context_builder.hpp"

namespace orvane_kestrix::postgres {
class PostgresRepository;
}

namespace orvane_kestrix::service {

struct WorkspaceOptions {
    std::filesystem::path repo = ".";
    // The index file; default: <repo>/.kestrix/index.db.
    std::optional<std::filesystem::path> db{};
    // Packs list the test files that cover their first source files.
    bool list_tests = false;
    // Seed packs with the index's retriever when it has one.
    bool use_retriever = true;
    // Parser threads of a refresh; 0: one per hardware thread.
    unsigned index_jobs = 0;
    // Refreshes index minified and generated files too (IndexOptions::include_generated).
    bool include_generated = false;
    // The index on a PostgreSQL server instead of a file: the server's URL and the
    // repository's name there (ORG/REPO). Packs read the server; a refresh indexes into the
    // local staging index (`db`, default postgres::default_staging_index) and publishes it.
    std::optional<std::string> server_url{};
    std::string repository_name{};
};

struct RefreshOptions {
    // Called on the refreshing thread as work advances.
    std::function<void(const indexer::IndexProgress&)> on_progress{};
    // Stops the refresh at its next file; a stopped refresh leaves the index as it was.
    const std::atomic<bool>* cancel = nullptr;
    // When another process is updating the index: wait for it to end (`on_wait` is told its
    // pid once), or with `wait_for_writer` false throw IndexBusyError at once.
    bool wait_for_writer = true;
    std::function<void(pid_t)> on_wait{};
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
    // The index file; on a server, the local staging index a refresh writes.
    const std::filesystem::path& index_path() const { return index_path_; }
    // Whether the index is on a PostgreSQL server.
    bool on_server() const { return options_.server_url.has_value(); }

    // Whether the index file holds a completed index. A file left by an interrupted first run
    // has no completion time and counts as incomplete (a refresh resumes it). Throws
    // DamagedIndexError for a file that cannot be used. On a server: whether it holds the
    // repository (IndexAccessError when it cannot be reached).
    bool has_complete_index() const;

    // Builds or refreshes the index on the calling thread. While it runs with work to do (a
    // first build, or files that changed), packs report indexing in progress. Throws
    // DamagedIndexError, IndexBusyError or IndexAccessError.
    indexer::IndexStats refresh(const RefreshOptions& options = {});

    // Says that a refresh is about to start on another thread: until it does, packs over a
    // repository without an index report indexing in progress instead of failing for want of
    // an index.
    void expect_refresh();

    // This process's refresh, or else another process's (its lock file), while it has work.
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
    // Makes the retriever and the builder again when the index is in another state than the
    // one they were made from. Called inside the pack's read transaction.
    void follow_state(OpenIndex& index, std::int64_t data_version);
    // pack() over the index on a server. Called with pack_mutex_ held.
    ContextPack pack_from_server(const PackRequest& request);

    WorkspaceOptions options_;
    std::filesystem::path index_path_;
    std::mutex pack_mutex_;
    std::unique_ptr<OpenIndex> open_;
    // The connection to the index server, made on the first pack, made again after it broke.
    std::unique_ptr<postgres::PostgresRepository> server_;
    std::mutex refresh_mutex_;
    std::atomic<bool> refreshing_{false};  // a refresh of this process runs
    std::atomic<bool> updating_{false};    // ... and has work to do
    std::atomic<std::int64_t> progress_{100};
};

}  // namespace orvane_kestrix::service
