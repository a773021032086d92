#include "orvane_kestrix/indexer/index_builder.hpp"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <map>
#include <mutex>
#include <thread>
#include <unordered_set>

#define XXH_INLINE_ALL
#include <xxhash.h>

#include <fmt/format.h>

#include "orvane_kestrix/indexer/file_classification.hpp"
#include "orvane_kestrix/indexer/file_walker.hpp"
#include "orvane_kestrix/indexer/generated_file.hpp"
#include "orvane_kestrix/indexer/index_store.hpp"
#include "orvane_kestrix/indexer/resolution.hpp"
#include "orvane_kestrix/beneath_root.hpp"
#include "orvane_kestrix/regular_file.hpp"
#include "orvane_kestrix/storage/index_writer_lock.hpp"
#include "orvane_kestrix/storage/sqlite_schema.hpp"
#include "orvane_kestrix/text/unicode.hpp"
#include "orvane_kestrix/workers/context_builder/pack.hpp"
#include "incremental_refresh.hpp"
#include "worker_threads.hpp"

namespace orvane_kestrix::indexer {

namespace fs = std::filesystem;
using storage::Database;
using storage::Transaction;

namespace {

// Bumped when the parser's output changes in a way that needs every file parsed again.
constexpr const char* kParserRevision = "1";
// Files per write transaction.
constexpr std::size_t kBatchFiles = 256;
// Modification times this close to the start of a run are not trusted to reveal a later
// change (coarse file-system clocks); such files are hashed again next time.
constexpr std::int64_t kRecentMtimeNs = 2'000'000'000;
// How long a refresh waits, once committed, for readers of older states before it truncates
// the write-ahead log that holds its pages.
constexpr std::chrono::milliseconds kLogShrinkWait{200};
// Bytes looked at for a NUL to call a file binary.
constexpr std::size_t kBinaryProbe = 8192;

std::int64_t now_ns() {
    return std::chrono::duration_cast<std::chrono::nanoseconds>(std::chrono::system_clock::now().time_since_epoch()).count();
}

std::int64_t mtime_of(const struct stat& st) {
    return static_cast<std::int64_t>(st.st_mtim.tv_sec) * 1'000'000'000 + st.st_mtim.tv_nsec;
}

void make_valid(std::string& text) {
    if (!text::is_valid_utf8(text)) text = text::decode_utf8_lenient(text);
}

void make_valid(std::optional<std::string>& text) {
    if (text) make_valid(*text);
}

std::string content_hash(std::string_view bytes) {
    const XXH128_hash_t hash = XXH3_128bits(bytes.data(), bytes.size());
    return fmt::format("{:016x}{:016x}", hash.high64, hash.low64);
}

const char* reason_of(FileReadStatus status) {
    switch (status) {
        case FileReadStatus::missing:
            return "missing";
        case FileReadStatus::unreadable:
            return "unreadable";
        case FileReadStatus::too_large:
            return "too_large";
        case FileReadStatus::special:
            return "special_file";
        case FileReadStatus::outside_root:
            return "outside_root";
        case FileReadStatus::ok:
            break;
    }
    return "ok";
}

struct Candidate {
    FileFacts facts;
    const StoredFile* stored = nullptr;
};

struct WorkResult {
    enum class Kind { parsed, same_content, skipped };
    std::size_t candidate = 0;
    Kind kind = Kind::skipped;
    std::string reason;
    std::int64_t size = 0;
    std::int64_t mtime_ns = -1;
    ParsedFile parsed;
    std::shared_ptr<void> description;  // ParsedFileRows::describe's
};

// Results travel from the parser threads to the writer in the order their files were handed
// out, whatever order the parsers finish them in, so that the index gets the same ids from any
// number of threads. At most `window` results wait ahead of the next one to write: memory stays
// flat however fast the parsers are, and the parser of the next one is never held up.
constexpr std::size_t kResultWindow = 1024;
// A refresh resolves only what its changes can alter while they are at most this many files or
// this share of the index (one in 20); beyond that, resolving everything is as quick.
constexpr std::size_t kIncrementalMinFiles = 32;
constexpr std::size_t kIncrementalShare = 20;

class OrderedResults {
public:
    OrderedResults(std::size_t window, std::size_t producers) : window_(window), producers_(producers) {}

    bool push(std::size_t slot, WorkResult&& result) {
        std::unique_lock lock(mutex_);
        room_.wait(lock, [&] { return closed_ || slot < next_ + window_; });
        if (closed_) return false;
        waiting_.emplace(slot, std::move(result));
        if (slot == next_) next_ready_.notify_one();
        return true;
    }

    // The result of the next slot; nothing once the producers are gone without it (they
    // stopped early) or the queue was closed.
    std::optional<WorkResult> pop() {
        std::unique_lock lock(mutex_);
        next_ready_.wait(lock, [&] { return closed_ || waiting_.count(next_) > 0 || producers_ == 0; });
        const auto it = waiting_.find(next_);
        if (closed_ || it == waiting_.end()) return std::nullopt;
        WorkResult result = std::move(it->second);
        waiting_.erase(it);
        ++next_;
        room_.notify_all();
        return result;
    }

    void producer_done() {
        std::lock_guard lock(mutex_);
        --producers_;
        next_ready_.notify_all();
    }

    // Wakes and stops everyone: the writer stopped taking results, or a parser failed.
    void close() {
        std::lock_guard lock(mutex_);
        closed_ = true;
        waiting_.clear();
        room_.notify_all();
        next_ready_.notify_all();
    }

private:
    std::mutex mutex_;
    std::condition_variable next_ready_;
    std::condition_variable room_;
    std::map<std::size_t, WorkResult> waiting_;
    std::size_t next_ = 0;
    std::size_t window_;
    std::size_t producers_;
    bool closed_ = false;
};

// The extractor stops inside a file when `cancel` is set.
ExtractFunction tree_sitter_extractor(const std::atomic<bool>* cancel) {
    auto extractor = std::make_shared<Extractor>(ExtractorOptions{.cancel = cancel});
    return [extractor](Language language, std::string_view path, std::string_view content) {
        return extractor->extract(language, path, content);
    };
}

// Reads, checks and parses one file on a worker thread.
WorkResult process(const RootDirectory& root, const Candidate& candidate, std::size_t index, std::uint64_t max_size,
                   std::int64_t run_start_ns, bool force_parse, bool include_generated, ExtractFunction& extract,
                   const ParsedFileRows* file_rows) {
    WorkResult result;
    result.candidate = index;
    std::string bytes;
    // Opened beneath the root: a link swapped in since the listing cannot lead outside.
    const FileReadResult read = read_regular_file(root, candidate.facts.path, bytes, max_size);
    if (read.status != FileReadStatus::ok) {
        result.reason = reason_of(read.status);
        return result;
    }
    result.size = static_cast<std::int64_t>(read.size);
    result.mtime_ns = read.mtime_ns;
    if (result.mtime_ns >= run_start_ns - kRecentMtimeNs) result.mtime_ns = -1;
    if (std::memchr(bytes.data(), 0, std::min(bytes.size(), kBinaryProbe)) != nullptr) {
        result.reason = "binary";
        return result;
    }
    if (!include_generated) {
        if (const MachineWritten kind = machine_written(bytes, candidate.facts.language); kind != MachineWritten::no) {
            result.reason = skip_reason(kind);
            return result;
        }
    }
    std::string hash = content_hash(bytes);
    if (!force_parse && candidate.stored != nullptr && candidate.stored->content_hash == hash &&
        candidate.stored->language == language_name(candidate.facts.language)) {
        result.kind = WorkResult::Kind::same_content;
        return result;
    }

    // The parser reads the text as UTF-8 with LF line ends; other modules' rows are made from
    // the bytes as they are in the file.
    std::string converted;
    if (!text::is_source_text(bytes)) converted = text::source_text(bytes);
    const std::string& text = converted.empty() ? bytes : converted;

    ParsedFile& parsed = result.parsed;
    parsed.facts = candidate.facts;
    parsed.facts.content_hash = std::move(hash);
    parsed.facts.size = result.size;
    parsed.facts.mtime_ns = result.mtime_ns;
    try {
        parsed.extraction = extract(candidate.facts.language, candidate.facts.path, text);
    } catch (const std::exception&) {
        result.reason = "parse_failed";
        return result;
    }
    FileExtraction& extraction = parsed.extraction;
    make_valid(extraction.module_name);
    parsed.token_counts.reserve(extraction.symbols.size());
    for (auto& symbol : extraction.symbols) {
        make_valid(symbol.name);
        make_valid(symbol.fqn);
        make_valid(symbol.kind);
        make_valid(symbol.signature);
        make_valid(symbol.docstring);
        const SymbolRowHead row{symbol.fqn, symbol.name, symbol.kind, candidate.facts.path, symbol.start_line,
                                symbol.signature ? std::optional<std::string_view>(*symbol.signature) : std::nullopt};
        parsed.token_counts.push_back(row.estimated_tokens());
    }
    for (auto& ref : extraction.references) {
        make_valid(ref.name);
        make_valid(ref.qualifier);
        make_valid(ref.usage_type);
        make_valid(ref.context);
    }
    for (auto& import : extraction.imports) {
        make_valid(import.module);
        for (auto& name : import.names) make_valid(name);
        make_valid(import.alias);
    }
    if (file_rows != nullptr) result.description = file_rows->describe(parsed, bytes);
    result.kind = WorkResult::Kind::parsed;
    return result;
}

// Package roots named by go.mod and Cargo.toml, as text for the change check and as records.
std::vector<PackageRoot> read_package_roots(const RootDirectory& root, const std::vector<std::string>& paths) {
    std::vector<PackageRoot> roots;
    for (const auto& path : paths) {
        if (!path.ends_with("go.mod") && !path.ends_with("Cargo.toml")) continue;
        const auto slash = path.rfind('/');
        const std::string_view name = slash == std::string::npos ? std::string_view(path) : std::string_view(path).substr(slash + 1);
        if (name != "go.mod" && name != "Cargo.toml") continue;
        std::string text;
        if (read_regular_file(root, path, text).status != FileReadStatus::ok) continue;
        if (auto package = package_root_from_manifest(path, text)) roots.push_back(std::move(*package));
    }
    return roots;
}

std::string describe_packages(const std::vector<PackageRoot>& roots) {
    std::string out;
    for (const auto& root : roots) out += root.name + "=" + root.directory + "\n";
    return out;
}

std::string utc_now() {
    const std::time_t now = std::time(nullptr);
    std::tm tm{};
    gmtime_r(&now, &tm);
    char buffer[32];
    std::strftime(buffer, sizeof buffer, "%Y-%m-%dT%H:%M:%SZ", &tm);
    return buffer;
}

// One run of IndexBuilder: its phases in order, and what each hands on to the next.
// stat() of the files under a root, listed in path order: the files of one directory are
// looked up from that directory's descriptor, so the kernel resolves each directory once
// instead of every path from the root (a tenth of a no-op refresh of a large tree).
class DirectoryStat {
public:
    explicit DirectoryStat(const fs::path& root) : root_(root) {}
    ~DirectoryStat() { close_directory(); }
    DirectoryStat(const DirectoryStat&) = delete;
    DirectoryStat& operator=(const DirectoryStat&) = delete;

    // Follows links like stat(); false with errno set when the file cannot be looked up.
    bool operator()(const std::string& relative, struct stat& st) {
        const auto slash = relative.rfind('/');
        const std::string_view directory = slash == std::string::npos ? std::string_view() : std::string_view(relative).substr(0, slash);
        if (fd_ < 0 || directory != directory_) {
            close_directory();
            directory_ = directory;
            const fs::path path = directory.empty() ? root_ : root_ / directory_;
            fd_ = ::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        }
        if (fd_ < 0) return ::stat((root_ / relative).c_str(), &st) == 0;
        const char* name = relative.c_str() + (slash == std::string::npos ? 0 : slash + 1);
        return ::fstatat(fd_, name, &st, 0) == 0;
    }

private:
    void close_directory() {
        if (fd_ >= 0) ::close(fd_);
        fd_ = -1;
    }

    fs::path root_;
    std::string directory_;
    int fd_ = -1;
};

class IndexRun {
public:
    explicit IndexRun(const IndexOptions& options)
        : options_(options), root_(options.repo), db_path_(storage::index_file_behind_links(options.db.value_or(default_index_path(root_)))) {}

    ~IndexRun() {
        if (discard_on_exit_) storage::remove_index_files(work_path_);
    }
    IndexRun(const IndexRun&) = delete;
    IndexRun& operator=(const IndexRun&) = delete;

    IndexStats execute() {
        std::error_code error;
        if (fs::is_directory(db_path_, error)) throw storage::IndexPathIsDirectory(db_path_);
        if (!take_writer_lock()) {
            stats_.cancelled = true;
            return stats_;
        }
        open_database();
        try {
            prepare_writing();
            // An index in place changes in one transaction: a reader sees it as it was before
            // this run or as it is after, never a part (one built aside is seen only once
            // published). A stopped refresh rolls back.
            std::optional<Transaction> whole_run;
            if (!build_aside_) whole_run.emplace(db_);
            list_files();
            read_index_state();
            if (had_index_ && !build_aside_ && !reparse_all_ && !recheck_unchanged_ && !derived_stale_) incremental_.emplace(db_);
            select_candidates();
            find_changed_files();
            parse_and_write();
            if (!stats_.cancelled) {
                remove_gone_files();
                if (marked_stale_ || derived_stale_ || reparse_all_) refresh_derived();
                record_generated_choice();
            }
            if (std::none_of(stats_.timings.begin(), stats_.timings.end(), [](const auto& t) { return t.first == "parse"; })) {
                lap("parse");
            }
            if (!stats_.cancelled && options_.refresh_extra_tables) refresh_extra_tables();
            if (!stats_.cancelled) count_rows();
            if (whole_run && !stats_.cancelled) {
                whole_run->commit();
                storage::shrink_write_ahead_log(db_, kLogShrinkWait);
                lap("commit");
            }
            whole_run.reset();
            if (stats_.cancelled) {
                stats_.files = store_->count_files();
                stats_.symbols = store_->count_symbols();
                stats_.references = store_->count_references();
            }
            store_.reset();
        } catch (const storage::SqliteError& e) {
            if (e.is_corruption()) throw storage::IndexFileError(db_path_, std::string("damaged (") + e.what() + ")");
            throw;
        }
        publish();
        stats_.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - started_).count();
        return stats_;
    }

private:
    // One writer at a time; false when the run was stopped while it waited.
    bool take_writer_lock() {
        if (!options_.wait_for_writer) {
            writer_lock_.emplace(storage::IndexWriterLock::try_acquire(db_path_));
            return true;
        }
        auto lock = storage::IndexWriterLock::acquire(db_path_, options_.on_lock_wait, options_.cancel);
        if (!lock) return false;
        writer_lock_.emplace(std::move(*lock));
        return true;
    }

    // A new index, or one rebuilt from scratch, is built aside without a journal and published
    // by a rename at the end: faster, and a rebuild that stops half way leaves the previous
    // index as it was.
    void open_database() {
        std::error_code error;
        had_index_ = fs::exists(db_path_, error);
        build_aside_ = options_.rebuild || !had_index_;
        work_path_ = build_aside_ ? storage::unpublished_index_path(db_path_) : db_path_;
        // Builds left by runs that died (killed, power lost) go whatever this run does.
        storage::remove_abandoned_builds(db_path_);
        db_ = storage::open_index(work_path_, {.read_only = false, .rebuild = build_aside_, .unpublished = build_aside_});
        discard_on_exit_ = build_aside_;
        // An index that a first build left incomplete is still being built.
        updating_ = build_aside_ || !storage::read_meta(db_, storage::meta_key::indexed_at).has_value();
    }

    void prepare_writing() {
        // 8 MB of page cache: a larger one only adds fresh pages to fault in while the index
        // fills (measured slower on a full index of the Python standard library).
        db_.exec("PRAGMA cache_size = -8192");
        db_.exec("PRAGMA temp_store = MEMORY");
        store_.emplace(db_);
    }

    // The repository's files (without the index's own), its components and package roots.
    void list_files() {
        progress("scanning", 0, 0);
        lap_start_ = std::chrono::steady_clock::now();
        WalkOptions walk_options;
        std::error_code error;
        const fs::path real_root = fs::weakly_canonical(root_, error);
        const fs::path real_db = fs::weakly_canonical(db_path_, error);
        const fs::path db_relative = real_db.lexically_relative(real_root);
        db_rel_text_ = db_relative.generic_string();
        db_inside_ = !db_relative.empty() && !db_rel_text_.starts_with("..");
        if (db_inside_ && db_relative.has_parent_path()) walk_options.excluded_dirs.push_back(db_relative.parent_path().generic_string());
        walk_options.use_git = options_.use_git;
        walk_ = list_repository_files(root_, walk_options);
        for (const auto& skipped : walk_.skipped) ++stats_.skipped[skipped.reason];
        components_.emplace(walk_.files);
        packages_ = read_package_roots(root_directory_, walk_.files);
        package_text_ = describe_packages(packages_);
        lap("scan");
    }

    // What the index holds: its files, and whether its derived data or its parses are stale.
    void read_index_state() {
        stored_ = store_->load_files();
        // An index without files is parsed whole by this revision: recorded now, so that a
        // first build that stops half way is continued, not started again.
        if (stored_.empty()) storage::write_meta(db_, storage::meta_key::parser_revision, kParserRevision);
        reparse_all_ = storage::read_meta(db_, storage::meta_key::parser_revision).value_or("") != kParserRevision;
        // Likewise the choice of machine-written files, which every file of an empty index follows.
        if (stored_.empty()) storage::write_meta(db_, storage::meta_key::generated_files, generated_choice());
        recorded_generated_choice_ = storage::read_meta(db_, storage::meta_key::generated_files).value_or("indexed");
        recheck_unchanged_ = recorded_generated_choice_ != generated_choice();
        derived_stale_ = storage::read_meta(db_, storage::meta_key::derived_stale).value_or("1") != "0" ||
                         storage::read_meta(db_, storage::meta_key::packages).value_or("") != package_text_;
    }

    bool is_index_file(const std::string& path) const {
        return db_inside_ && (path == db_rel_text_ || path.starts_with(db_rel_text_ + "-") ||
                              path.starts_with(db_rel_text_ + ".building-") || path == db_rel_text_ + ".lock");
    }

    // The listed files of a supported language, with their facts under the current rules.
    void select_candidates() {
        for (const auto& path : walk_.files) {
            if (is_index_file(path)) continue;
            const auto language = language_for_path(path);
            if (!language) {
                ++stats_.skipped["unsupported"];
                continue;
            }
            Candidate candidate;
            candidate.facts.path = path;
            candidate.facts.language = *language;
            candidate.facts.is_test = is_test_path(path, *language);
            candidate.facts.is_source = is_source_language(*language);
            candidate.facts.component = components_->component_of(path);
            if (auto it = stored_.find(path); it != stored_.end()) candidate.stored = &it->second;
            candidates_.push_back(std::move(candidate));
        }
    }

    static bool facts_differ(const StoredFile& stored, const FileFacts& facts) {
        return stored.is_test != facts.is_test || stored.is_source != facts.is_source || stored.component != facts.component;
    }

    // Files whose size and modification time match the index are not read again.
    void find_changed_files() {
        std::vector<std::uint64_t> size_of(candidates_.size(), 0);
        kept_.reserve(stored_.size());
        DirectoryStat stat_of(root_);
        for (std::size_t i = 0; i < candidates_.size(); ++i) {
            const Candidate& candidate = candidates_[i];
            struct stat st {};
            if (!stat_of(candidate.facts.path, st)) {
                ++stats_.skipped[errno == ENOENT ? "missing" : "unreadable"];
                continue;
            }
            if (static_cast<std::uint64_t>(st.st_size) > options_.max_file_size) {
                ++stats_.skipped["too_large"];
                continue;
            }
            const StoredFile* old = candidate.stored;
            if (!reparse_all_ && !recheck_unchanged_ && old != nullptr && old->mtime_ns != -1 && old->mtime_ns == mtime_of(st) &&
                old->size == static_cast<std::int64_t>(st.st_size) && old->language == language_name(candidate.facts.language)) {
                ++stats_.unchanged;
                kept_.insert(old->id);
                if (facts_differ(*old, candidate.facts)) facts_changed_.push_back(i);
                continue;
            }
            to_read_.push_back(i);
            size_of[i] = static_cast<std::uint64_t>(st.st_size);
            bytes_to_read_ += static_cast<std::uint64_t>(st.st_size);
        }
        // Largest files first: the workers then finish together instead of one parsing a big
        // file alone at the end.
        std::stable_sort(to_read_.begin(), to_read_.end(), [&](std::size_t a, std::size_t b) { return size_of[a] > size_of[b]; });
    }

    // Reads and parses the changed files on worker threads; this thread writes their results.
    void parse_and_write() {
        unsigned jobs = options_.jobs != 0 ? options_.jobs : std::max(1u, std::thread::hardware_concurrency());
        jobs = static_cast<unsigned>(std::min<std::size_t>(jobs, std::max<std::size_t>(1, to_read_.size())));
        const std::size_t parsers = to_read_.empty() ? 0 : jobs;
        if (options_.make_parsed_file_rows && !to_read_.empty()) {
            file_rows_ = options_.make_parsed_file_rows();
            begin_batch();
            file_rows_->begin(db_, to_read_.size(), stored_.size());
        }
        // Results are written in the order the files were handed out, so that ids do not depend
        // on thread timing. A wide window lets the other parsers run on while one holds a large
        // file (or is descheduled on a busy machine); each waiting result is one file's facts.
        OrderedResults queue(kResultWindow, parsers);
        std::atomic<std::size_t> next{0};
        WorkerThreads workers(
            parsers, [&](std::size_t) { parse_files(queue, next); }, [&] { queue.close(); });

        // Room for what source code usually holds (about one reference per 90 bytes, one
        // symbol per 350), so that the vectors rarely move while they fill; untouched room
        // costs address space only.
        collected_.references.reserve(bytes_to_read_ / 64);
        collected_.symbols.reserve(bytes_to_read_ / 256);
        std::size_t done = 0;
        progress("parsing", 0, to_read_.size());
        while (auto result = queue.pop()) {
            if (cancelled()) {
                stats_.cancelled = true;
                break;
            }
            write_result(*result);
            if (in_batch_ >= kBatchFiles) commit_batch();
            progress("parsing", ++done, to_read_.size());
        }
        if (cancelled()) stats_.cancelled = true;
        commit_batch();
        workers.join();
        if (file_rows_ && !stats_.cancelled) {
            begin_batch();
            file_rows_->finish(db_);
            commit_batch();
        }
        file_rows_.reset();
    }

    // One parser thread: takes the next file to read until none is left, the run is
    // cancelled or the writer stops taking results. A file taken is always handed on, so that
    // the writer never waits for one that no parser has.
    void parse_files(OrderedResults& queue, std::atomic<std::size_t>& next) {
        try {
            ExtractFunction extract =
                options_.make_extractor ? options_.make_extractor() : tree_sitter_extractor(options_.cancel);
            while (!cancelled()) {
                const std::size_t slot = next.fetch_add(1);
                if (slot >= to_read_.size()) break;
                const std::size_t index = to_read_[slot];
                WorkResult result = process(root_directory_, candidates_[index], index, options_.max_file_size, run_start_ns_,
                                            reparse_all_, options_.include_generated, extract, file_rows_.get());
                if (!queue.push(slot, std::move(result))) break;
            }
        } catch (...) {
            queue.close();
            queue.producer_done();
            throw;
        }
        queue.producer_done();
    }

    void write_result(WorkResult& result) {
        const Candidate& candidate = candidates_[result.candidate];
        switch (result.kind) {
            case WorkResult::Kind::skipped:
                ++stats_.skipped[result.reason];
                break;
            case WorkResult::Kind::same_content:
                ++stats_.unchanged;
                if (candidate.stored != nullptr) kept_.insert(candidate.stored->id);
                begin_batch();
                store_->update_stat(candidate.stored->id, result.size, result.mtime_ns);
                if (facts_differ(*candidate.stored, candidate.facts)) {
                    incremental_.reset();
                    mark_stale();
                    store_->update_facts(candidate.stored->id, candidate.facts);
                }
                ++in_batch_;
                break;
            case WorkResult::Kind::parsed:
                ++stats_.parsed;
                if (candidate.stored != nullptr) kept_.insert(candidate.stored->id);
                mark_stale();
                note_change(candidate);
                {
                    const std::int64_t first_symbol_id = store_->last_symbol_id() + 1;
                    const std::int64_t id = store_->write_parsed(
                        result.parsed, candidate.stored ? std::optional<std::int64_t>(candidate.stored->id) : std::nullopt,
                        &collected_);
                    written_.insert(id);
                    if (incremental_ && candidate.stored == nullptr) incremental_->note_added(id);
                    if (result.description) file_rows_->write(db_, id, first_symbol_id, std::move(result.description));
                }
                ++in_batch_;
                break;
        }
    }

    // A file about to be written: what it held is recorded while the refresh can still be
    // incremental; a reclassified file, or too many changes, need a whole resolution.
    void note_change(const Candidate& candidate) {
        if (!incremental_) return;
        if ((candidate.stored != nullptr && facts_differ(*candidate.stored, candidate.facts)) || incremental_->changed_files() >= incremental_limit()) {
            incremental_.reset();
            return;
        }
        if (candidate.stored != nullptr) incremental_->record_before(candidate.stored->id);
    }

    std::size_t incremental_limit() const {
        return std::max<std::size_t>(kIncrementalMinFiles, stored_.size() / kIncrementalShare);
    }

    void begin_batch() {
        if (transaction_) return;
        transaction_.emplace(db_);
        store_->begin_batch();
    }

    // Before the first write that changes what other files' references may mean.
    void mark_stale() {
        begin_batch();
        if (marked_stale_) return;
        storage::write_meta(db_, storage::meta_key::derived_stale, "1");
        marked_stale_ = true;
    }

    void commit_batch() {
        if (!transaction_) return;
        store_->finish_batch();
        transaction_->commit();
        transaction_.reset();
        in_batch_ = 0;
    }

    // Files gone or no longer usable leave the index; flags of unchanged files follow the
    // current rules and manifests.
    void remove_gone_files() {
        std::vector<std::int64_t> gone;
        for (const auto& [path, file] : stored_) {
            if (!kept_.contains(file.id)) gone.push_back(file.id);
        }
        if (!gone.empty() || !facts_changed_.empty()) {
            if (!facts_changed_.empty() || (incremental_ && incremental_->changed_files() + gone.size() > incremental_limit())) {
                incremental_.reset();
            }
            mark_stale();
            for (std::int64_t id : gone) {
                if (incremental_) incremental_->record_before(id, /*removed=*/true);
                store_->delete_file(id);
            }
            for (std::size_t index : facts_changed_) store_->update_facts(candidates_[index].stored->id, candidates_[index].facts);
            commit_batch();
        }
        stats_.removed = static_cast<std::int64_t>(gone.size());
    }

    // What depends on other files, recomputed whole and written as a difference, in one
    // transaction with the end of the stale mark.
    void refresh_derived() {
        progress("resolving", 0, 1);
        lap("parse");
        storage::Transaction refresh(db_);
        if (incremental_ && incremental_->run(collected_, packages_)) {
            store_->prune_components();
            lap("resolve changes");
        } else {
            store_->prune_components();
            IndexSnapshot& snapshot = collected_;
            store_->load_snapshot(snapshot, written_);
            snapshot.packages = packages_;
            lap("load");
            const DerivedData derived = derive_index_data(snapshot);
            lap("resolve");
            store_->write_derived(derived, snapshot);
        }

        storage::write_meta(db_, storage::meta_key::derived_stale, "0");
        storage::write_meta(db_, storage::meta_key::packages, package_text_);
        storage::write_meta(db_, storage::meta_key::parser_revision, kParserRevision);
        storage::write_meta(db_, storage::meta_key::indexed_at, utc_now());
        refresh.commit();
        lap("write");
        progress("resolving", 1, 1);
    }

    // The index's files, symbols and references. Counting the large tables reads all of a
    // kernel-sized index's row lists (a fifth of a no-op refresh): their counts are kept in
    // meta, counted again only by a run that changed them.
    void count_rows() {
        stats_.files = store_->count_files();
        const auto stored = [&](std::string_view key) -> std::optional<std::int64_t> {
            const auto text = storage::read_meta(db_, key);
            std::int64_t value = 0;
            if (!text || std::from_chars(text->data(), text->data() + text->size(), value).ec != std::errc()) return std::nullopt;
            return value;
        };
        const auto symbols = stored(storage::meta_key::symbol_count);
        const auto references = stored(storage::meta_key::reference_count);
        if (stats_.parsed == 0 && stats_.removed == 0 && symbols && references) {
            stats_.symbols = *symbols;
            stats_.references = *references;
            return;
        }
        stats_.symbols = store_->count_symbols();
        stats_.references = store_->count_references();
        storage::write_meta(db_, storage::meta_key::symbol_count, std::to_string(stats_.symbols));
        storage::write_meta(db_, storage::meta_key::reference_count, std::to_string(stats_.references));
    }

    // Whether this run indexes machine-written files, as recorded in the index.
    std::string_view generated_choice() const { return options_.include_generated ? "indexed" : "skipped"; }

    // Recorded once every file has been judged under the choice, so that later runs trust
    // unchanged files again.
    void record_generated_choice() {
        if (recorded_generated_choice_ != generated_choice()) {
            storage::write_meta(db_, storage::meta_key::generated_files, generated_choice());
        }
    }

    // Tables another module keeps in the index (the retriever's), brought up to date last.
    void refresh_extra_tables() {
        options_.refresh_extra_tables(db_, root_, options_.jobs);
        lap("extra tables");
    }

    // An index built aside takes the place of the old one; an interrupted first build is
    // published all the same: the next run goes on from it.
    void publish() {
        if (build_aside_ && !(stats_.cancelled && had_index_)) {
            storage::publish_index(std::move(db_), db_path_);
            discard_on_exit_ = false;
        }
    }

    bool cancelled() const { return options_.cancel != nullptr && options_.cancel->load(); }

    // Tells the caller, and readers through the lock file once the run changes the index.
    void progress(std::string_view phase, std::size_t done, std::size_t total) {
        if ((phase == "parsing" && total > 0) || phase == "resolving") updating_ = true;
        const IndexProgress report{phase, done, total, updating_};
        if (updating_) writer_lock_->publish_progress(report.percent());
        if (options_.on_progress) options_.on_progress(report);
    }

    void lap(const char* phase) {
        const auto now = std::chrono::steady_clock::now();
        stats_.timings.emplace_back(phase, std::chrono::duration<double>(now - lap_start_).count());
        lap_start_ = now;
    }

    const IndexOptions& options_;
    const std::chrono::steady_clock::time_point started_ = std::chrono::steady_clock::now();
    const std::int64_t run_start_ns_ = now_ns();
    const fs::path root_;
    const RootDirectory root_directory_{root_};  // every file is read beneath it
    const fs::path db_path_;
    IndexStats stats_;
    std::chrono::steady_clock::time_point lap_start_ = started_;

    // take_writer_lock; held until the run's last file operation is done
    std::optional<storage::IndexWriterLock> writer_lock_;

    // open_database
    bool had_index_ = false;
    bool updating_ = false;  // the run changes the index (IndexProgress::updating)
    bool build_aside_ = false;
    fs::path work_path_;
    bool discard_on_exit_ = false;  // the index built aside is removed unless published
    Database db_;
    std::optional<IndexStore> store_;
    std::unique_ptr<ParsedFileRows> file_rows_;  // another module's rows of each parsed file
    std::optional<IncrementalRefresh> incremental_;  // while this run's changes allow one
    std::optional<Transaction> transaction_;  // the batch being written

    // list_files
    std::string db_rel_text_;  // the index file's repository path, when inside the repository
    bool db_inside_ = false;
    WalkResult walk_;
    std::optional<ComponentMap> components_;
    std::vector<PackageRoot> packages_;
    std::string package_text_;

    // read_index_state
    std::unordered_map<std::string, StoredFile> stored_;
    bool reparse_all_ = false;
    bool derived_stale_ = false;
    std::string recorded_generated_choice_;
    bool recheck_unchanged_ = false;  // files unchanged on disk are read again all the same

    // select_candidates, find_changed_files
    std::vector<Candidate> candidates_;
    std::vector<std::size_t> to_read_;        // candidates to read, largest first
    std::vector<std::size_t> facts_changed_;  // unchanged candidates whose facts changed
    std::unordered_set<std::int64_t> kept_;    // ids of the indexed files that stay in the index
    std::uint64_t bytes_to_read_ = 0;

    // parse_and_write
    std::size_t in_batch_ = 0;
    bool marked_stale_ = false;
    // What the refresh needs of the files written in this run, kept as they are written.
    IndexSnapshot collected_;
    std::unordered_set<std::int64_t> written_;
};

}  // namespace

std::int64_t IndexStats::skipped_total() const {
    std::int64_t total = 0;
    for (const auto& [reason, count] : skipped) total += count;
    return total;
}

std::string IndexStats::summary() const {
    std::string skipped_text;
    for (const auto& [reason, count] : skipped) {
        if (!skipped_text.empty()) skipped_text += ", ";
        skipped_text += fmt::format("{} {}", count, reason);
    }
    if (skipped_text.empty()) skipped_text = "none";
    return fmt::format("{}indexed {} files ({} parsed, {} unchanged, {} removed); skipped {} ({}); {} symbols, {} references; {:.2f} s",
                       cancelled ? "interrupted: " : "", files, parsed, unchanged, removed, skipped_total(), skipped_text,
                       symbols, references, seconds);
}

std::int64_t IndexProgress::percent() const {
    if (phase == "parsing" && total > 0) return static_cast<std::int64_t>(90 * std::min(done, total) / total);
    if (phase == "resolving") return total > 0 && done >= total ? 99 : 90;
    return 0;
}

fs::path default_index_path(const fs::path& repo) { return repo / ".kestrix" / "index.db"; }

IndexBuilder::IndexBuilder(IndexOptions options) : options_(std::move(options)) {}

IndexStats IndexBuilder::run() { return IndexRun(options_).execute(); }

}  // namespace orvane_kestrix::indexer
