#include "orvane_kestrix/service/workspace.hpp"

#include <sys/stat.h>

#include <algorithm>
#include <stdexcept>
#include <utility>

#include "orvane_kestrix/postgres/index_publisher.hpp"
#include "orvane_kestrix/postgres/postgres_repository.hpp"
#include "orvane_kestrix/postgres/postgres_schema.hpp"
#include "orvane_kestrix/retrieval/retrieval_tables.hpp"
#include "orvane_kestrix/service/errors.hpp"
#include "orvane_kestrix/service/retriever_factory.hpp"
#include "orvane_kestrix/storage/index_writer_lock.hpp"
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
    } catch (const storage::IndexBusyError& e) {
        throw IndexBusyError(e.what());
    } catch (const postgres::UnknownRepositoryError& e) {
        throw UnknownRepositoryError(e.what());
    } catch (const postgres::SchemaVersionError& e) {
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
// same committed state of the index while a refresh commits beside it.
class ReadSnapshot {
public:
    explicit ReadSnapshot(storage::Database& db) : db_(db) {
        db_.exec("BEGIN");
        // The first read fixes the state the transaction sees; only then does the connection's
        // data version tell whether that state is another than the last one it read.
        db_.scalar_int("SELECT count(*) FROM meta");
        data_version_ = db_.scalar_int("PRAGMA data_version");
    }
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
    // Changes whenever another connection has committed since this connection last read.
    std::int64_t data_version() const { return data_version_; }
    void end() {
        open_ = false;
        db_.exec("COMMIT");
    }

private:
    storage::Database& db_;
    std::int64_t data_version_ = 0;
    bool open_ = true;
};

}  // namespace

struct Workspace::OpenIndex {
    FileIdentity identity;
    std::unique_ptr<SqliteRepository> repository;
    // Made from the state of the index that `data_version` names: the retriever reads the
    // index's file list once, so it is made again when a refresh changed the index.
    std::optional<std::int64_t> data_version;
    std::unique_ptr<HybridRetriever> retriever;
    std::unique_ptr<ContextBuilder> builder;
};

Workspace::Workspace(WorkspaceOptions options) : options_(std::move(options)) {
    std::error_code error;
    if (!fs::is_directory(options_.repo, error)) throw MissingRepositoryError(options_.repo.string());
    if (options_.server_url) {
        if (options_.repository_name.empty()) {
            throw UnknownRepositoryError("an index on a server needs the repository's name there (--name ORG/REPO)");
        }
        index_path_ = options_.db.value_or(postgres::default_staging_index(*options_.server_url, options_.repository_name));
    } else {
        if (!options_.repository_name.empty()) {
            throw ServiceError("a repository name (--name) is for an index on a server (--db postgresql://...)");
        }
        index_path_ = options_.db.value_or(indexer::default_index_path(options_.repo));
    }
}

Workspace::~Workspace() = default;

bool Workspace::has_complete_index() const {
    return translating_index_errors(index_path_, [&] {
        if (options_.server_url) {
            postgres::Connection connection(*options_.server_url);
            try {
                postgres::open_repository_row(connection, options_.repository_name);
                return true;
            } catch (const postgres::UnknownRepositoryError&) {
                return false;
            }
        }
        std::error_code error;
        if (!fs::exists(index_path_, error)) return false;
        // An empty file holds nothing to lose: a refresh makes the index in it.
        if (fs::is_regular_file(index_path_, error) && fs::file_size(index_path_, error) == 0 && !error) return false;
        storage::Database database = storage::open_index(index_path_, {.read_only = true});
        return storage::read_meta(database, storage::meta_key::indexed_at).has_value();
    });
}

indexer::IndexStats Workspace::refresh(const RefreshOptions& refresh) {
    std::lock_guard lock(refresh_mutex_);
    progress_.store(0);
    refreshing_.store(true);
    struct EndOfRefresh {
        Workspace& workspace;
        ~EndOfRefresh() {
            workspace.updating_.store(false);
            workspace.refreshing_.store(false);
            workspace.progress_.store(100);
        }
    } end_of_refresh{*this};

    indexer::IndexOptions options;
    options.repo = options_.repo;
    options.db = index_path_;
    options.jobs = options_.index_jobs;
    options.include_generated = options_.include_generated;
    options.cancel = refresh.cancel;
    options.wait_for_writer = refresh.wait_for_writer;
    options.on_lock_wait = refresh.on_wait;
    options.on_progress = [&](const indexer::IndexProgress& progress) {
        progress_.store(progress.percent());
        updating_.store(progress.updating);
        if (refresh.on_progress) refresh.on_progress(progress);
    };
    if (options_.server_url) {
        // The server keeps no retriever tables yet, so the staging index does not either.
        return translating_index_errors(index_path_, [&] {
            return postgres::index_to_server(options, *options_.server_url, options_.repository_name).index;
        });
    }
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
    if (updating_.load()) return {true, progress_.load()};
    if (const auto writer = storage::current_writer(index_path_); writer && writer->progress) return {true, *writer->progress};
    return {};
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
    open_ = std::move(index);
    return open_.get();
}

void Workspace::follow_state(OpenIndex& index, std::int64_t data_version) {
    if (index.builder && index.data_version == data_version) return;
    index.builder.reset();
    index.retriever.reset();
    if (options_.use_retriever) index.retriever = make_retriever(*index.repository, options_.repo);
    index.builder = std::make_unique<ContextBuilder>(*index.repository, index.retriever.get(),
                                                     ContextBuilderOptions{.list_tests = options_.list_tests});
    index.data_version = data_version;
}

ContextPack Workspace::pack_from_server(const PackRequest& request) {
    return translating_index_errors(index_path_, [&] {
        if (server_ && server_->connection().is_broken()) server_.reset();
        if (!server_) server_ = std::make_unique<postgres::PostgresRepository>(*options_.server_url, options_.repository_name);
        postgres::PostgresRepository& repository = *server_;
        repository.begin_snapshot();
        try {
            std::unique_ptr<HybridRetriever> retriever;
            if (options_.use_retriever) retriever = make_retriever(repository);
            ContextBuilder builder(repository, retriever.get(), ContextBuilderOptions{.list_tests = options_.list_tests});
            const IndexingStatus status = indexing_status();
            builder.set_indexing_status(status.in_progress, status.progress);
            ContextPack pack = builder.build_context_pack(request);
            repository.end_snapshot();
            return pack;
        } catch (...) {
            repository.abandon_snapshot();
            throw;
        }
    });
}

ContextPack Workspace::pack(PackRequest request) {
    if (request.include_snippets && !request.repo_root) request.repo_root = options_.repo;
    std::lock_guard lock(pack_mutex_);
    if (options_.server_url) return pack_from_server(request);
    try {
        return translating_index_errors(index_path_, [&] {
            // Read before the snapshot is taken: a pack that says the index is up to date
            // then never holds a state older than the last refresh that ended.
            const IndexingStatus status = indexing_status();
            OpenIndex* index = current_index();
            if (index == nullptr) {
                // No index file yet: a first build that is running here or elsewhere.
                if (!status.in_progress && !refreshing_.load() && !storage::current_writer(index_path_)) {
                    throw storage::IndexFileError(index_path_, "no index here yet");
                }
                ContextPack pack;
                pack.notes.push_back("The index of this repository is still being built; ask again shortly");
                pack.indexing_in_progress = true;
                pack.progress = status.in_progress ? status.progress : 0;
                return pack;
            }
            ReadSnapshot snapshot(index->repository->database());
            follow_state(*index, snapshot.data_version());
            index->builder->set_indexing_status(status.in_progress, status.progress);
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
