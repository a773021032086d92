#include "orvane_kestrix/indexer/index_builder.hpp"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <deque>
#include <fstream>
#include <mutex>
#include <sstream>
#include <thread>
#include <unordered_set>

#define XXH_INLINE_ALL
#include <xxhash.h>

#include <fmt/format.h>

#include "orvane_kestrix/indexer/file_classification.hpp"
#include "orvane_kestrix/indexer/file_walker.hpp"
#include "orvane_kestrix/indexer/index_store.hpp"
#include "orvane_kestrix/indexer/resolution.hpp"
#include "orvane_kestrix/retrieval/retrieval_tables.hpp"
#include "orvane_kestrix/storage/sqlite_schema.hpp"
#include "orvane_kestrix/text/json_string.hpp"
#include "orvane_kestrix/text/unicode.hpp"
#include "orvane_kestrix/workers/context_builder/token_estimate.hpp"

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

// The estimated tokens of a symbol's pack row without docstring and snippet, written as the
// JSON writer prints it compactly (the strings are valid UTF-8 by now).
std::int64_t row_tokens(const ExtractedSymbol& symbol, const std::string& path) {
    std::string row;
    row.reserve(64 + symbol.fqn.size() + symbol.name.size() + path.size() + (symbol.signature ? symbol.signature->size() : 0));
    row += "{\"fqn\":";
    text::append_json_string(row, symbol.fqn);
    row += ",\"name\":";
    text::append_json_string(row, symbol.name);
    row += ",\"kind\":";
    text::append_json_string(row, symbol.kind);
    row += ",\"file\":";
    text::append_json_string(row, path);
    row += ",\"line\":";
    row += std::to_string(symbol.start_line);
    row += ",\"signature\":";
    if (symbol.signature) {
        text::append_json_string(row, *symbol.signature);
    } else {
        row += "null";
    }
    row += '}';
    return estimate_tokens(row);
}

enum class ReadStatus { ok, missing, unreadable, too_large, special };

ReadStatus read_file(const fs::path& path, std::uint64_t max_size, std::string& out, struct stat& st) {
    const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    if (fd < 0) return errno == ENOENT || errno == ENOTDIR ? ReadStatus::missing : ReadStatus::unreadable;
    struct Closer {
        int fd;
        ~Closer() { close(fd); }
    } closer{fd};
    if (fstat(fd, &st) != 0) return ReadStatus::unreadable;
    if (!S_ISREG(st.st_mode)) return ReadStatus::special;
    if (static_cast<std::uint64_t>(st.st_size) > max_size) return ReadStatus::too_large;
    out.resize(static_cast<std::size_t>(st.st_size));
    std::size_t filled = 0;
    for (;;) {
        if (filled == out.size()) {
            if (out.size() >= max_size + 1) break;
            out.resize(std::min<std::uint64_t>(max_size + 1, out.size() + 65536));
        }
        const ssize_t n = read(fd, out.data() + filled, out.size() - filled);
        if (n < 0) {
            if (errno == EINTR) continue;
            return ReadStatus::unreadable;
        }
        if (n == 0) break;
        filled += static_cast<std::size_t>(n);
    }
    out.resize(filled);
    if (filled > max_size) return ReadStatus::too_large;
    return ReadStatus::ok;
}

const char* reason_of(ReadStatus status) {
    switch (status) {
        case ReadStatus::missing:
            return "missing";
        case ReadStatus::unreadable:
            return "unreadable";
        case ReadStatus::too_large:
            return "too_large";
        case ReadStatus::special:
            return "special_file";
        case ReadStatus::ok:
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
};

// Results travel from the parser threads to the writer through a bounded queue, so memory
// stays flat however fast the parsers are.
class ResultQueue {
public:
    ResultQueue(std::size_t capacity, std::size_t producers) : capacity_(capacity), producers_(producers) {}

    bool push(WorkResult&& result) {
        std::unique_lock lock(mutex_);
        not_full_.wait(lock, [&] { return closed_ || queue_.size() < capacity_; });
        if (closed_) return false;
        queue_.push_back(std::move(result));
        not_empty_.notify_one();
        return true;
    }

    std::optional<WorkResult> pop() {
        std::unique_lock lock(mutex_);
        not_empty_.wait(lock, [&] { return !queue_.empty() || producers_ == 0; });
        if (queue_.empty()) return std::nullopt;
        WorkResult result = std::move(queue_.front());
        queue_.pop_front();
        not_full_.notify_one();
        return result;
    }

    void producer_done() {
        std::lock_guard lock(mutex_);
        --producers_;
        not_empty_.notify_all();
    }

    void close() {
        std::lock_guard lock(mutex_);
        closed_ = true;
        queue_.clear();
        not_full_.notify_all();
    }

private:
    std::mutex mutex_;
    std::condition_variable not_empty_;
    std::condition_variable not_full_;
    std::deque<WorkResult> queue_;
    std::size_t capacity_;
    std::size_t producers_;
    bool closed_ = false;
};

ExtractFunction tree_sitter_extractor() {
    auto extractor = std::make_shared<Extractor>();
    return [extractor](Language language, std::string_view path, std::string_view content) {
        return extractor->extract(language, path, content);
    };
}

// Reads, checks and parses one file on a worker thread.
WorkResult process(const fs::path& root, const Candidate& candidate, std::size_t index, std::uint64_t max_size,
                   std::int64_t run_start_ns, bool force_parse, ExtractFunction& extract) {
    WorkResult result;
    result.candidate = index;
    std::string bytes;
    struct stat st {};
    const ReadStatus status = read_file(root / candidate.facts.path, max_size, bytes, st);
    if (status != ReadStatus::ok) {
        result.reason = reason_of(status);
        return result;
    }
    result.size = static_cast<std::int64_t>(st.st_size);
    result.mtime_ns = mtime_of(st);
    if (result.mtime_ns >= run_start_ns - kRecentMtimeNs) result.mtime_ns = -1;
    if (std::memchr(bytes.data(), 0, std::min(bytes.size(), kBinaryProbe)) != nullptr) {
        result.reason = "binary";
        return result;
    }
    std::string hash = content_hash(bytes);
    if (!force_parse && candidate.stored != nullptr && candidate.stored->content_hash == hash &&
        candidate.stored->language == language_name(candidate.facts.language)) {
        result.kind = WorkResult::Kind::same_content;
        return result;
    }

    // Text as the snippet reader sees it: invalid UTF-8 replaced, every line ending a LF.
    if (!text::is_valid_utf8(bytes)) bytes = text::decode_utf8_lenient(bytes);
    if (bytes.find('\r') != std::string::npos) bytes = text::universal_newlines(bytes);

    ParsedFile& parsed = result.parsed;
    parsed.facts = candidate.facts;
    parsed.facts.content_hash = std::move(hash);
    parsed.facts.size = result.size;
    parsed.facts.mtime_ns = result.mtime_ns;
    try {
        parsed.extraction = extract(candidate.facts.language, candidate.facts.path, bytes);
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
        parsed.token_counts.push_back(row_tokens(symbol, candidate.facts.path));
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
    result.kind = WorkResult::Kind::parsed;
    return result;
}

// Package roots named by go.mod and Cargo.toml, as text for the change check and as records.
std::vector<PackageRoot> read_package_roots(const fs::path& root, const std::vector<std::string>& paths) {
    std::vector<PackageRoot> roots;
    for (const auto& path : paths) {
        if (!path.ends_with("go.mod") && !path.ends_with("Cargo.toml")) continue;
        const auto slash = path.rfind('/');
        const std::string_view name = slash == std::string::npos ? std::string_view(path) : std::string_view(path).substr(slash + 1);
        if (name != "go.mod" && name != "Cargo.toml") continue;
        std::ifstream in(root / path, std::ios::binary);
        if (!in) continue;
        std::ostringstream text;
        text << in.rdbuf();
        if (auto package = package_root_from_manifest(path, text.str())) roots.push_back(std::move(*package));
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

fs::path default_index_path(const fs::path& repo) { return repo / ".kestrix" / "index.db"; }

IndexBuilder::IndexBuilder(IndexOptions options) : options_(std::move(options)) {}

IndexStats IndexBuilder::run() {
    const auto started = std::chrono::steady_clock::now();
    const std::int64_t run_start_ns = now_ns();
    IndexStats stats;
    const fs::path root = options_.repo;
    const fs::path db_path = options_.db.value_or(default_index_path(root));
    auto cancelled = [&] { return options_.cancel != nullptr && options_.cancel->load(); };
    auto progress = [&](std::string_view phase, std::size_t done, std::size_t total) {
        if (options_.on_progress) options_.on_progress(IndexProgress{phase, done, total});
    };

    // A new index, or one rebuilt from scratch, is built aside without a journal and
    // published by a rename at the end: faster, and a rebuild that stops half way leaves the
    // previous index as it was.
    std::error_code exists_error;
    const bool had_index = fs::exists(db_path, exists_error);
    const bool build_aside = options_.rebuild || !had_index;
    if (build_aside && fs::is_directory(db_path, exists_error)) throw storage::IndexFileError(db_path, "is a directory");
    const fs::path work_path = build_aside ? storage::unpublished_index_path(db_path) : db_path;
    if (build_aside) storage::remove_abandoned_builds(db_path);
    Database db = storage::open_index(work_path, {.read_only = false, .rebuild = build_aside, .unpublished = build_aside});
    struct Discard {
        fs::path path;
        bool armed;
        ~Discard() {
            if (armed) storage::remove_index_files(path);
        }
    } discard{work_path, build_aside};
    try {
        // 8 MB of page cache: a larger one only adds fresh pages to fault in while the index
        // fills (measured slower on a full index of the Python standard library).
        db.exec("PRAGMA cache_size = -8192");
        db.exec("PRAGMA temp_store = MEMORY");
        IndexStore store(db);

        // 1. Which files, and which of them need reading.
        progress("scanning", 0, 0);
        auto lap_start = std::chrono::steady_clock::now();
        auto lap = [&](const char* phase) {
            const auto now = std::chrono::steady_clock::now();
            stats.timings.emplace_back(phase, std::chrono::duration<double>(now - lap_start).count());
            lap_start = now;
        };
        WalkOptions walk_options;
        std::error_code error;
        const fs::path real_root = fs::weakly_canonical(root, error);
        const fs::path real_db = fs::weakly_canonical(db_path, error);
        const fs::path db_relative = real_db.lexically_relative(real_root);
        std::string db_rel_text = db_relative.generic_string();
        const bool db_inside = !db_relative.empty() && !db_rel_text.starts_with("..");
        if (db_inside && db_relative.has_parent_path()) walk_options.excluded_dirs.push_back(db_relative.parent_path().generic_string());
        walk_options.use_git = options_.use_git;
        WalkResult walk = list_repository_files(root, walk_options);
        for (const auto& skipped : walk.skipped) ++stats.skipped[skipped.reason];

        const ComponentMap components(walk.files);
        const std::vector<PackageRoot> packages = read_package_roots(root, walk.files);
        const std::string package_text = describe_packages(packages);
        lap("scan");

        std::unordered_map<std::string, StoredFile> stored = store.load_files();
        // An index without files is parsed whole by this revision: recorded now, so that a
        // first build that stops half way is continued, not started again.
        if (stored.empty()) storage::write_meta(db, "parser_revision", kParserRevision);
        const bool reparse_all = storage::read_meta(db, "parser_revision").value_or("") != kParserRevision;
        bool derived_stale = storage::read_meta(db, "derived_stale").value_or("1") != "0" ||
                             storage::read_meta(db, "packages").value_or("") != package_text;

        std::vector<Candidate> candidates;
        std::vector<std::size_t> to_read;
        std::vector<std::size_t> facts_changed;
        std::unordered_set<std::string> kept;
        for (const auto& path : walk.files) {
            if (db_inside && (path == db_rel_text || path.starts_with(db_rel_text + "-") ||
                              path.starts_with(db_rel_text + ".building-"))) {
                continue;
            }
            const auto language = language_for_path(path);
            if (!language) {
                ++stats.skipped["unsupported"];
                continue;
            }
            Candidate candidate;
            candidate.facts.path = path;
            candidate.facts.language = *language;
            candidate.facts.is_test = is_test_path(path, *language);
            candidate.facts.is_source = is_source_language(*language);
            candidate.facts.component = components.component_of(path);
            if (auto it = stored.find(path); it != stored.end()) candidate.stored = &it->second;
            candidates.push_back(std::move(candidate));
        }

        // Files whose size and modification time match the index are not read again.
        std::uint64_t bytes_to_read = 0;
        std::vector<std::uint64_t> size_of(candidates.size(), 0);
        for (std::size_t i = 0; i < candidates.size(); ++i) {
            const Candidate& candidate = candidates[i];
            struct stat st {};
            if (stat((root / candidate.facts.path).c_str(), &st) != 0) {
                ++stats.skipped[errno == ENOENT ? "missing" : "unreadable"];
                continue;
            }
            if (static_cast<std::uint64_t>(st.st_size) > options_.max_file_size) {
                ++stats.skipped["too_large"];
                continue;
            }
            const StoredFile* old = candidate.stored;
            if (!reparse_all && old != nullptr && old->mtime_ns != -1 && old->mtime_ns == mtime_of(st) &&
                old->size == static_cast<std::int64_t>(st.st_size) && old->language == language_name(candidate.facts.language)) {
                ++stats.unchanged;
                kept.insert(candidate.facts.path);
                if (old->is_test != candidate.facts.is_test || old->is_source != candidate.facts.is_source ||
                    old->component != candidate.facts.component) {
                    facts_changed.push_back(i);
                }
                continue;
            }
            to_read.push_back(i);
            size_of[i] = static_cast<std::uint64_t>(st.st_size);
            bytes_to_read += static_cast<std::uint64_t>(st.st_size);
        }
        // Largest files first: the workers then finish together instead of one parsing a big
        // file alone at the end.
        std::stable_sort(to_read.begin(), to_read.end(), [&](std::size_t a, std::size_t b) { return size_of[a] > size_of[b]; });

        // 2. Read and parse on worker threads; write on this one.
        unsigned jobs = options_.jobs != 0 ? options_.jobs : std::max(1u, std::thread::hardware_concurrency());
        jobs = static_cast<unsigned>(std::min<std::size_t>(jobs, std::max<std::size_t>(1, to_read.size())));
        ResultQueue queue(64, to_read.empty() ? 0 : jobs);
        std::atomic<std::size_t> next{0};
        std::vector<std::thread> workers;
        std::exception_ptr worker_error;
        std::mutex worker_error_mutex;
        if (!to_read.empty()) {
            for (unsigned w = 0; w < jobs; ++w) {
                workers.emplace_back([&] {
                    try {
                        ExtractFunction extract = options_.make_extractor ? options_.make_extractor() : tree_sitter_extractor();
                        for (;;) {
                            const std::size_t slot = next.fetch_add(1);
                            if (slot >= to_read.size() || cancelled()) break;
                            const std::size_t index = to_read[slot];
                            const Candidate& candidate = candidates[index];
                            WorkResult result = process(root, candidate, index, options_.max_file_size, run_start_ns,
                                                        reparse_all, extract);
                            if (!queue.push(std::move(result))) break;
                        }
                    } catch (...) {
                        std::lock_guard lock(worker_error_mutex);
                        if (!worker_error) worker_error = std::current_exception();
                    }
                    queue.producer_done();
                });
            }
        }
        struct Joiner {
            std::vector<std::thread>& threads;
            ResultQueue& queue;
            ~Joiner() {
                queue.close();
                for (auto& thread : threads) {
                    if (thread.joinable()) thread.join();
                }
            }
        } joiner{workers, queue};

        std::optional<Transaction> transaction;
        std::size_t in_batch = 0;
        bool marked_stale = false;
        auto begin_batch = [&] {
            if (transaction) return;
            transaction.emplace(db);
            store.begin_batch();
        };
        // Before the first write that changes what other files' references may mean.
        auto mark_stale = [&] {
            begin_batch();
            if (marked_stale) return;
            storage::write_meta(db, "derived_stale", "1");
            marked_stale = true;
        };
        auto commit_batch = [&] {
            if (!transaction) return;
            store.finish_batch();
            transaction->commit();
            transaction.reset();
            in_batch = 0;
        };

        // What the refresh needs of the files written in this run, kept as they are written.
        IndexSnapshot collected;
        // Room for what source code usually holds (about one reference per 90 bytes, one
        // symbol per 350), so that the vectors rarely move while they fill; untouched room
        // costs address space only.
        collected.references.reserve(bytes_to_read / 64);
        collected.symbols.reserve(bytes_to_read / 256);
        std::unordered_set<std::int64_t> written;
        std::size_t done = 0;
        progress("parsing", 0, to_read.size());
        while (auto result = queue.pop()) {
            if (cancelled()) {
                stats.cancelled = true;
                break;
            }
            const Candidate& candidate = candidates[result->candidate];
            switch (result->kind) {
                case WorkResult::Kind::skipped:
                    ++stats.skipped[result->reason];
                    break;
                case WorkResult::Kind::same_content:
                    ++stats.unchanged;
                    kept.insert(candidate.facts.path);
                    begin_batch();
                    store.update_stat(candidate.stored->id, result->size, result->mtime_ns);
                    if (candidate.stored->is_test != candidate.facts.is_test ||
                        candidate.stored->is_source != candidate.facts.is_source ||
                        candidate.stored->component != candidate.facts.component) {
                        mark_stale();
                        store.update_facts(candidate.stored->id, candidate.facts);
                    }
                    ++in_batch;
                    break;
                case WorkResult::Kind::parsed:
                    ++stats.parsed;
                    kept.insert(candidate.facts.path);
                    mark_stale();
                    written.insert(store.write_parsed(
                        result->parsed, candidate.stored ? std::optional<std::int64_t>(candidate.stored->id) : std::nullopt,
                        &collected));
                    ++in_batch;
                    break;
            }
            if (in_batch >= kBatchFiles) commit_batch();
            progress("parsing", ++done, to_read.size());
        }
        if (cancelled()) stats.cancelled = true;
        commit_batch();
        queue.close();
        for (auto& thread : workers) thread.join();
        workers.clear();
        if (worker_error) std::rethrow_exception(worker_error);

        if (!stats.cancelled) {
            // 3. Files gone or no longer usable leave the index; flags of unchanged files follow
            //    the current rules and manifests.
            std::vector<std::int64_t> gone;
            for (const auto& [path, file] : stored) {
                if (kept.count(path) == 0) gone.push_back(file.id);
            }
            if (!gone.empty() || !facts_changed.empty()) {
                mark_stale();
                for (std::int64_t id : gone) store.delete_file(id);
                for (std::size_t index : facts_changed) store.update_facts(candidates[index].stored->id, candidates[index].facts);
                commit_batch();
            }
            stats.removed = static_cast<std::int64_t>(gone.size());

            // 4. What depends on other files, recomputed whole and written as a difference, in
            //    one transaction with the end of the stale mark.
            if (marked_stale || derived_stale || reparse_all) {
                progress("resolving", 0, 1);
                lap("parse");
                Transaction refresh(db);
                store.prune_components();
                IndexSnapshot& snapshot = collected;
                store.load_snapshot(snapshot, written);
                snapshot.packages = packages;
                lap("load");
                const DerivedData derived = derive_index_data(snapshot);
                lap("resolve");
                store.write_derived(derived, snapshot);

                storage::write_meta(db, "derived_stale", "0");
                storage::write_meta(db, "packages", package_text);
                storage::write_meta(db, "parser_revision", kParserRevision);
                storage::write_meta(db, "indexed_at", utc_now());
                refresh.commit();
                lap("write");
                progress("resolving", 1, 1);
            }
        }

        if (std::none_of(stats.timings.begin(), stats.timings.end(), [](const auto& t) { return t.first == "parse"; })) {
            lap("parse");
        }
        // 5. The retriever's tables, for the files whose rows are missing or out of date.
        if (!stats.cancelled && options_.retrieval_tables) {
            retrieval::refresh_retrieval_tables(db, root, options_.jobs);
            lap("retrieval");
        }
        stats.files = store.count_files();
        stats.symbols = store.count_symbols();
        stats.references = store.count_references();
    } catch (const storage::SqliteError& e) {
        if (e.is_corruption()) throw storage::IndexFileError(db_path, std::string("damaged (") + e.what() + ")");
        throw;
    }
    // An interrupted first build is published all the same: the next run goes on from it.
    if (build_aside && !(stats.cancelled && had_index)) {
        storage::publish_index(std::move(db), db_path);
        discard.armed = false;
    }
    stats.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
    return stats;
}

}  // namespace orvane_kestrix::indexer
