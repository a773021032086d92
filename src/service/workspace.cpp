#include "orvane_kestrix/service/workspace.hpp"

#include <sys/stat.h>

#include <algorithm>
#include <stdexcept>
#include <utility>

#include "orvane_kestrix/retrieval/retrieval_tables.hpp"
#include "orvane_kestrix/service/errors.hpp"
#include "orvane_kestrix/service/retriever_factory.hpp"
#include "orvane_kestrix/storage/sqlite_repository.hpp"
#include "orvane_kestrix/storage/sqlite_schema.hpp"

namespace orvane_kestrix::service {

namespace fs = std::filesystem;

namespace {

// The identity of a file on disk; a rebuild publishes its index by renaming a new file over
// the old one, which changes it.
struct FileIdentity {
    dev_t device = 0;
    ino_t inode = 0;
    bool operator==(const FileIdentity&) const = default;
};

std::optional<FileIdentity> identity_of(const fs::path& path) {
    struct stat st {};
    if (stat(path.c_str(), &st) != 0) return std::nullopt;
    return FileIdentity{st.st_dev, st.st_ino};
}

// Runs `body`, turning the index's own errors into the service's types. Damage found by a
// query (SQLite's bare "database disk image is malformed") is reported like damage found when
// the file was opened: naming the file and the way out.
template <typename Body>
auto translating_index_errors(const fs::path& index_path, Body&& body) -> decltype(body()) {
    try {
        return body();
    } catch (const ServiceError&) {
        throw;
    } catch (const storage::IndexFileError& e) {
        throw DamagedIndexError(e.what());
    } catch (const storage::SqliteError& e) {
        if (e.is_corruption()) {
            throw DamagedIndexError(storage::IndexFileError(index_path, std::string("damaged (") + e.what() + ")").what());
        }
        throw IndexAccessError(e.what());
    } catch (const std::invalid_argument& e) {
        // The builder's one error of its own: a component the index does not have.
        throw UnknownComponentError(e.what());
    } catch (const std::exception& e) {
        throw IndexAccessError(e.what());
    }
}

// Holds a read transaction for the life of one pack, so every query of the pack reads the
// same committed state of the index while a refresh commits batches beside it.
class ReadSnapshot {
public:
    explicit ReadSnapshot(storage::Database& db) : db_(db) { db_.exec("BEGIN"); }
    ~ReadSnapshot() {
        if (!open_) return;
        try {
            db_.exec("ROLLBACK");
        } catch (const std::exception&) {
            // Nothing was written; a failed rollback leaves nothing to undo.
        }
    }
    ReadSnapshot(const ReadSnapshot&) = delete;
    ReadSnapshot& operator=(const ReadSnapshot&) = delete;
    void end() {
        open_ = false;
        db_.exec("COMMIT");
    }

private:
    storage::Database& db_;
    bool open_ = true;
};

}  // namespace

struct Workspace::OpenIndex {
    FileIdentity identity;
    std::unique_ptr<SqliteRepository> repository;
    std::unique_ptr<HybridRetriever> retriever;
    std::unique_ptr<ContextBuilder> builder;
};

std::int64_t progress_percent(const indexer::IndexProgress& progress) {
    if (progress.phase == "parsing" && progress.total > 0) {
        return static_cast<std::int64_t>(90 * std::min(progress.done, progress.total) / progress.total);
    }
    if (progress.phase == "resolving") return progress.total > 0 && progress.done >= progress.total ? 99 : 90;
    return 0;
}

Workspace::Workspace(WorkspaceOptions options) : options_(std::move(options)) {
    std::error_code error;
    if (!fs::is_directory(options_.repo, error)) throw MissingRepositoryError(options_.repo.string());
    index_path_ = options_.db.value_or(indexer::default_index_path(options_.repo));
}

Workspace::~Workspace() = default;

bool Workspace::has_complete_index() const {
    return translating_index_errors(index_path_, [&] {
        std::error_code error;
        if (!fs::exists(index_path_, error)) return false;
        // An empty file holds nothing to lose: a refresh makes the index in it.
        if (fs::is_regular_file(index_path_, error) && fs::file_size(index_path_, error) == 0 && !error) return false;
        storage::Database database = storage::open_index(index_path_, {.read_only = true});
        return storage::read_meta(database, storage::meta_key::indexed_at).has_value();
    });
}

indexer::IndexStats Workspace::refresh(const std::function<void(const indexer::IndexProgress&)>& on_progress,
                                       const std::atomic<bool>* cancel) {
    std::lock_guard lock(refresh_mutex_);
    // Packs report indexing in progress while the index is behind the files: from the start
    // when it is not complete, else from the moment the refresh finds files to parse (a
    // refresh that finds nothing changed leaves packs as they were).
    bool behind = true;
    try {
        behind = !has_complete_index();
    } catch (const ServiceError&) {
        // Damaged: the run below reports it.
    }
    progress_.store(0);
    refreshing_.store(behind);
    struct EndOfRefresh {
        Workspace& workspace;
        ~EndOfRefresh() {
            workspace.refreshing_.store(false);
            workspace.progress_.store(100);
        }
    } end_of_refresh{*this};

    indexer::IndexOptions options;
    options.repo = options_.repo;
    options.db = index_path_;
    options.jobs = options_.index_jobs;
    options.include_generated = options_.include_generated;
    options.cancel = cancel;
    options.on_progress = [&](const indexer::IndexProgress& progress) {
        progress_.store(progress_percent(progress));
        if ((progress.phase == "parsing" && progress.total > 0) || progress.phase == "resolving") refreshing_.store(true);
        if (on_progress) on_progress(progress);
    };
    // Every refresh keeps the retriever's tables too, whether this workspace ranks with them or not.
    options = retrieval::index_options_with_retrieval(std::move(options));
    return translating_index_errors(index_path_, [&] { return indexer::IndexBuilder(options).run(); });
}

void Workspace::expect_refresh() {
    std::error_code error;
    if (fs::exists(index_path_, error)) return;
    progress_.store(0);
    refreshing_.store(true);
}

IndexingStatus Workspace::indexing_status() const {
    IndexingStatus status;
    status.in_progress = refreshing_.load();
    status.progress = status.in_progress ? progress_.load() : 100;
    return status;
}

Workspace::OpenIndex* Workspace::current_index() {
    const std::optional<FileIdentity> identity = identity_of(index_path_);
    if (!identity) {
        open_.reset();
        return nullptr;
    }
    if (open_ && open_->identity == *identity) return open_.get();
    open_.reset();
    auto index = std::make_unique<OpenIndex>();
    index->identity = *identity;
    index->repository = std::make_unique<SqliteRepository>(index_path_);
    if (options_.use_retriever) index->retriever = make_retriever(*index->repository, options_.repo);
    index->builder = std::make_unique<ContextBuilder>(*index->repository, index->retriever.get(),
                                                      ContextBuilderOptions{.list_tests = options_.list_tests});
    open_ = std::move(index);
    return open_.get();
}

ContextPack Workspace::pack(PackRequest request) {
    if (request.include_snippets && !request.repo_root) request.repo_root = options_.repo;
    std::lock_guard lock(pack_mutex_);
    try {
        return translating_index_errors(index_path_, [&] {
            const IndexingStatus status = indexing_status();
            OpenIndex* index = current_index();
            if (index == nullptr) {
                if (!status.in_progress) throw storage::IndexFileError(index_path_, "no index here yet");
                ContextPack pack;
                pack.notes.push_back("The index of this repository is still being built; ask again shortly");
                pack.indexing_in_progress = true;
                pack.progress = status.progress;
                return pack;
            }
            index->builder->set_indexing_status(status.in_progress, status.progress);
            ReadSnapshot snapshot(index->repository->database());
            ContextPack pack = index->builder->build_context_pack(request);
            snapshot.end();
            return pack;
        });
    } catch (const DamagedIndexError&) {
        // Opened again on the next call: the file may have been rebuilt meanwhile.
        open_.reset();
        throw;
    }
}

}  // namespace orvane_kestrix::service
