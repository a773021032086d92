#include "orvane_kestrix/retrieval/retrieval_tables.hpp"

#include <algorithm>
#include <cctype>
#include <charconv>
#include <deque>
#include <atomic>
#include <optional>
#include <span>
#include <string>
#include <thread>
#include <unordered_map>
#include <vector>

#include "orvane_kestrix/beneath_root.hpp"
#include "orvane_kestrix/regular_file.hpp"
#include "orvane_kestrix/retrieval/search_words.hpp"
#include "orvane_kestrix/retrieval/symbol_kinds.hpp"
#include "orvane_kestrix/retrieval/term_bm25.hpp"

namespace orvane_kestrix::retrieval {

namespace fs = std::filesystem;
using storage::Database;
using storage::Statement;

namespace {

// Rows written but describing content that is gone (a changed or removed file's old rows)
// stay in the contentless tables until they outnumber a quarter of the live rows; then the
// tables are rebuilt whole. Readers skip them: their symbol ids no longer exist, their file
// rows have no state row.
constexpr std::int64_t kMinStaleForRebuild = 2000;
constexpr const char* kStaleRowsKey = "retrieval_stale_rows";
// Larger files are far past any size the indexer reads; their rows keep only names and docs.
constexpr std::uint64_t kMaxDescribedBytes = 256u * 1024 * 1024;
constexpr const char* kLastDocKey = "retrieval_last_doc_id";
// "1" while rows written during an index run wait for their words to be counted.
constexpr const char* kCountsPendingKey = "retrieval_counts_pending";
// A run that parses more files than this, and more than a quarter of the index, starts the
// tables from empty.
constexpr std::size_t kMinFilesForClear = 64;

constexpr const char* kTables = R"sql(
CREATE VIRTUAL TABLE retrieval_symbol_text USING fts5(
  name, qualified, signature, doc, body, tokenize = 'ascii', content = '', columnsize = 0, detail = column);
CREATE VIRTUAL TABLE retrieval_file_text USING fts5(path, body, tokenize = 'ascii', content = '', columnsize = 0);
INSERT INTO retrieval_symbol_text(retrieval_symbol_text, rank) VALUES ('hashsize', 33554432);
INSERT INTO retrieval_file_text(retrieval_file_text, rank) VALUES ('hashsize', 33554432);
CREATE VIRTUAL TABLE retrieval_symbol_vocab USING fts5vocab(retrieval_symbol_text, 'row');
CREATE VIRTUAL TABLE retrieval_file_vocab USING fts5vocab(retrieval_file_text, 'row');
CREATE TABLE retrieval_word_counts(
  word TEXT PRIMARY KEY,
  symbols INTEGER NOT NULL,
  files INTEGER NOT NULL
) WITHOUT ROWID;
CREATE TABLE retrieval_file_state(
  file_id INTEGER PRIMARY KEY,
  doc_id INTEGER NOT NULL UNIQUE,
  content_hash TEXT NOT NULL,
  is_test INTEGER NOT NULL,
  symbol_rows INTEGER NOT NULL
);
)sql";

constexpr const char* kDropTables = R"sql(
DROP TABLE IF EXISTS retrieval_symbol_vocab;
DROP TABLE IF EXISTS retrieval_file_vocab;
DROP TABLE IF EXISTS retrieval_symbol_text;
DROP TABLE IF EXISTS retrieval_file_text;
DROP TABLE IF EXISTS retrieval_symbol_rows;
DROP TABLE IF EXISTS retrieval_file_state;
DROP TABLE IF EXISTS retrieval_word_counts;
DROP INDEX IF EXISTS retrieval_ref_targets_by_ref;
)sql";

struct SymbolFacts {
    std::int64_t id = 0;
    std::optional<std::int64_t> parent;
    std::string name, fqn, kind;
    std::int64_t start_line = 1, end_line = 1;
    std::optional<std::string> signature, docstring;
};

// The columns of one symbol's row.
struct SymbolRow {
    std::string name, qualified, signature, doc, body;
    std::int64_t tokens = 0;  // in all columns, as the table's tokenizer counts them
};

// A source file of the index, as its rows are made from it.
struct SourceFile {
    std::int64_t id = 0;
    std::string path;
    std::string content_hash;
    bool is_test = false;
};

struct FileJob : SourceFile {
    std::vector<SymbolFacts> symbols;
    // Filled by the workers.
    std::string path_words;
    std::string file_body;
    std::vector<SymbolRow> rows;
    std::int64_t file_tokens = 0;  // of the file's own row
    // Each word of the rows: in how many symbol rows and file rows (0 or 1) it stands.
    std::vector<std::pair<std::string, std::pair<std::int64_t, std::int64_t>>> word_rows;
};

// Calls `take` with each token the full-text tables see in `text` (their 'ascii' tokenizer:
// ASCII letters and digits, and every non-ASCII byte, make tokens; ASCII letters fold to lower
// case). A token with capitals is folded into `folded`, whose strings outlive the call.
template <typename Take>
void for_each_token(std::string_view text, std::deque<std::string>& folded, Take&& take) {
    const auto is_token = [](char c) {
        const auto byte = static_cast<unsigned char>(c);
        return byte >= 0x80 || std::isalnum(byte) != 0;
    };
    std::size_t i = 0;
    while (i < text.size()) {
        if (!is_token(text[i])) {
            ++i;
            continue;
        }
        std::size_t end = i;
        bool capitals = false;
        while (end < text.size() && is_token(text[end])) capitals |= (text[end] >= 'A' && text[end] <= 'Z'), ++end;
        std::string_view token = text.substr(i, end - i);
        if (capitals) {
            std::string& lower = folded.emplace_back(token);
            for (char& c : lower) {
                if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
            }
            token = lower;
        }
        take(token);
        i = end;
    }
}

// Counts the rows each word of a described file stands in (a word counts once per row), for
// the word-count table. One lookup per token: a row's number marks the words it has counted.
void count_word_rows(FileJob& job) {
    struct Tally {
        std::size_t last_row = static_cast<std::size_t>(-1);
        std::int64_t symbols = 0;
        std::int64_t files = 0;
    };
    std::unordered_map<std::string_view, Tally> tally;
    std::deque<std::string> folded;
    for (std::size_t r = 0; r < job.rows.size(); ++r) {
        const SymbolRow& row = job.rows[r];
        for (std::string_view column : {std::string_view(row.name), std::string_view(row.qualified), std::string_view(row.signature),
                                        std::string_view(row.doc), std::string_view(row.body)}) {
            for_each_token(column, folded, [&](std::string_view word) {
                ++job.rows[r].tokens;
                Tally& t = tally[word];
                if (t.last_row != r) {
                    t.last_row = r;
                    ++t.symbols;
                }
            });
        }
    }
    const std::size_t file_row = job.rows.size();
    for (std::string_view column : {std::string_view(job.path_words), std::string_view(job.file_body)}) {
        for_each_token(column, folded, [&](std::string_view word) {
            ++job.file_tokens;
            Tally& t = tally[word];
            if (t.last_row != file_row) {
                t.last_row = file_row;
                ++t.files;
            }
        });
    }
    job.word_rows.reserve(tally.size());
    for (const auto& [word, t] : tally) job.word_rows.emplace_back(std::string(word), std::pair(t.symbols, t.files));
}


// Whether a line belongs to the definition below it: a comment line or an annotation.
bool leads_member(std::string_view line) {
    while (!line.empty() && (line.front() == ' ' || line.front() == '\t')) line.remove_prefix(1);
    for (std::string_view start : {"/*", "*", "//", "#[", "@"}) {
        if (line.starts_with(start)) return true;
    }
    return false;
}

// The text of a file beneath the root; a path that leads out of it (a link swapped in since the
// file was indexed) reads as nothing.
std::optional<std::string> read_text(const RootDirectory& root, const std::string& path) {
    std::string text;
    if (read_regular_file(root, path, text, kMaxDescribedBytes).status != FileReadStatus::ok) return std::nullopt;
    return text;
}

// A file's search words, each distinct word stored once, and the line of every occurrence.
// Identifiers repeat a great deal within a file, so each distinct identifier is split and
// stemmed once.
class FileWords {
public:
    explicit FileWords(std::string_view text) : text_(text) {
        line_start_ = {0, 0};
        for (std::size_t i = 0; i < text.size(); ++i) {
            if (text[i] == '\n') line_start_.push_back(i + 1);
        }
        line_start_.push_back(text.size());
        for (std::size_t line = 1; line + 1 < line_start_.size(); ++line) {
            current_line_ = static_cast<std::uint32_t>(line);
            detail::scan_identifiers(text.substr(line_start_[line], line_start_[line + 1] - line_start_[line]), this,
                                     [](void* self, std::string_view identifier) {
                                         static_cast<FileWords*>(self)->add_identifier(identifier);
                                     });
        }
    }

    std::int64_t lines() const { return static_cast<std::int64_t>(line_start_.size()) - 2; }
    std::string_view line_text(std::int64_t line) const {
        if (line < 1 || line > lines()) return {};
        const auto at = static_cast<std::size_t>(line);
        return text_.substr(line_start_[at], line_start_[at + 1] - line_start_[at]);
    }

    // Every word, repeated by how often it occurs: 1 + (4 or more) + (16 or more). Term
    // frequency keeps its order of magnitude, the document a fraction of its length.
    std::string file_document() const {
        std::vector<std::uint32_t> count(words_.size(), 0);
        for (const auto& [line, word] : tokens_) ++count[word];
        std::string out;
        for (std::size_t w = 0; w < words_.size(); ++w) {
            const int repeats = 1 + (count[w] >= 4 ? 1 : 0) + (count[w] >= 16 ? 1 : 0);
            for (int r = 0; r < repeats; ++r) append(out, words_[w]);
        }
        return out;
    }

    // The distinct words of lines [from, to], leaving out the `holes` (sorted line ranges).
    std::string distinct_words(std::int64_t from, std::int64_t to, const std::vector<std::pair<std::int64_t, std::int64_t>>& holes) {
        ++stamp_;
        if (seen_.size() < words_.size()) seen_.resize(words_.size(), 0);
        std::string out;
        auto take = [&](std::int64_t a, std::int64_t b) {
            if (a > b) return;
            auto it = std::lower_bound(tokens_.begin(), tokens_.end(), std::pair<std::uint32_t, std::uint32_t>(static_cast<std::uint32_t>(std::max<std::int64_t>(a, 0)), 0));
            for (; it != tokens_.end() && it->first <= b; ++it) {
                if (seen_[it->second] == stamp_) continue;
                seen_[it->second] = stamp_;
                append(out, words_[it->second]);
            }
        };
        for (const auto& [hole_from, hole_to] : holes) {
            take(from, std::min(to, hole_from - 1));
            from = std::max(from, hole_to + 1);
        }
        take(from, to);
        return out;
    }

private:
    static void append(std::string& out, const std::string& word) {
        if (!out.empty()) out += ' ';
        out += word;
    }

    void add_identifier(std::string_view identifier) {
        auto [it, added] = identifiers_.try_emplace(identifier);
        if (added) {
            detail::split_identifier(identifier, this, [](void* self, std::string_view word, bool) {
                auto* words = static_cast<FileWords*>(self);
                auto [slot, fresh] = words->word_ids_.try_emplace(std::string(word), static_cast<std::uint32_t>(words->words_.size()));
                if (fresh) words->words_.push_back(slot->first);
                words->split_.push_back(slot->second);
            });
            it->second = {split_start_, static_cast<std::uint32_t>(split_.size()) - split_start_};
            split_start_ = static_cast<std::uint32_t>(split_.size());
        }
        for (std::uint32_t k = 0; k < it->second.second; ++k) tokens_.emplace_back(current_line_, split_[it->second.first + k]);
    }

    std::string_view text_;
    std::vector<std::size_t> line_start_;
    std::uint32_t current_line_ = 0;
    std::unordered_map<std::string_view, std::pair<std::uint32_t, std::uint32_t>> identifiers_;  // -> range of split_
    std::vector<std::uint32_t> split_;
    std::uint32_t split_start_ = 0;
    std::unordered_map<std::string, std::uint32_t> word_ids_;
    std::vector<std::string> words_;
    std::vector<std::pair<std::uint32_t, std::uint32_t>> tokens_;  // (line, word), in text order
    std::vector<std::uint32_t> seen_;
    std::uint32_t stamp_ = 0;
};

// Builds the rows of one file from its text (absent: a file that cannot be read, whose rows
// then keep only names and docs): the file's own and one per symbol.
void describe_file(FileJob& job, std::optional<std::string_view> text) {
    job.path_words = search_document(job.path);
    job.rows.assign(job.symbols.size(), SymbolRow());
    for (std::size_t i = 0; i < job.symbols.size(); ++i) {
        const SymbolFacts& symbol = job.symbols[i];
        SymbolRow& row = job.rows[i];
        row.name = search_document(symbol.name);
        row.qualified = search_document(symbol.fqn);
        if (symbol.signature) row.signature = search_document(*symbol.signature, 1);
        if (symbol.docstring) row.doc = search_document(*symbol.docstring, 1);
    }
    if (!text) return;
    FileWords words(*text);
    job.file_body = words.file_document();

    std::unordered_map<std::int64_t, std::vector<std::size_t>> children;
    for (std::size_t i = 0; i < job.symbols.size(); ++i) {
        if (job.symbols[i].parent) children[*job.symbols[i].parent].push_back(i);
    }
    for (std::size_t i = 0; i < job.symbols.size(); ++i) {
        const SymbolFacts& symbol = job.symbols[i];
        std::vector<std::pair<std::int64_t, std::int64_t>> holes;
        if (holds_members(symbol.kind)) {
            // The member definitions are rows of their own: the class keeps the lines between them.
            if (auto it = children.find(symbol.id); it != children.end()) {
                for (std::size_t child : it->second) {
                    // A member's doc comment and annotations sit above it, and belong to it.
                    std::int64_t first = job.symbols[child].start_line;
                    while (first - 1 > symbol.start_line && leads_member(words.line_text(first - 1))) --first;
                    holes.emplace_back(first, job.symbols[child].end_line);
                }
            }
            std::sort(holes.begin(), holes.end());
        }
        job.rows[i].body = words.distinct_words(symbol.start_line, symbol.end_line, holes);
    }
}

void describe_all(const RootDirectory& root, std::span<FileJob> jobs, unsigned threads) {
    threads = static_cast<unsigned>(std::min<std::size_t>(threads, std::max<std::size_t>(1, jobs.size())));
    std::atomic<std::size_t> next{0};
    auto work = [&] {
        for (;;) {
            const std::size_t i = next.fetch_add(1);
            if (i >= jobs.size()) break;
            const auto text = read_text(root, jobs[i].path);
            describe_file(jobs[i], text ? std::optional<std::string_view>(*text) : std::nullopt);
            count_word_rows(jobs[i]);
        }
    };
    std::vector<std::thread> workers;
    for (unsigned t = 1; t < threads; ++t) workers.emplace_back(work);
    work();
    for (auto& worker : workers) worker.join();
}

bool table_exists(Database& db, std::string_view name) {
    Statement statement(db, "SELECT 1 FROM sqlite_master WHERE name = ?");
    statement.bind(1, name);
    return statement.step();
}

std::int64_t meta_int(Database& db, const char* key) {
    const std::string text = storage::read_meta(db, key).value_or("0");
    std::int64_t value = 0;
    std::from_chars(text.data(), text.data() + text.size(), value);
    return value;
}

// Files are described in chunks: the workers describe the next chunk while this thread writes
// the rows of the last one, so that both cores stay busy and only two chunks' texts are held at
// once (a kernel-sized tree's rows at once took gigabytes).
constexpr std::size_t kChunkFiles = 256;

// Loads the symbols of each file of the chunk (this thread owns the connection).
void load_symbols(Statement& symbols, std::span<FileJob> chunk) {
    for (FileJob& job : chunk) {
        symbols.bind(1, job.id);
        while (symbols.step()) {
            SymbolFacts symbol;
            symbol.id = symbols.column_int64(0);
            symbol.parent = symbols.column_optional_int64(1);
            symbol.name = symbols.column_string(2);
            symbol.fqn = symbols.column_string(3);
            symbol.kind = symbols.column_string(4);
            symbol.start_line = symbols.column_int64(5);
            symbol.end_line = symbols.column_int64(6);
            symbol.signature = symbols.column_optional_text(7);
            symbol.docstring = symbols.column_optional_text(8);
            job.symbols.push_back(std::move(symbol));
        }
        symbols.reset();
    }
}

// Writes described files' rows and state rows; the counts of their words are added up and
// written by finish(), in key order (the table's pages then fill one after another instead of
// at random).
class RowWriter {
public:
    explicit RowWriter(Database& db)
        : db_(db),
          insert_symbol_(db, "INSERT INTO retrieval_symbol_text(rowid, name, qualified, signature, doc, body) "
                             "VALUES (?, ?, ?, ?, ?, ?)"),
          insert_file_(db, "INSERT INTO retrieval_file_text(rowid, path, body) VALUES (?, ?, ?)"),
          insert_state_(db, "INSERT INTO retrieval_file_state(file_id, doc_id, content_hash, is_test, symbol_rows) "
                            "VALUES (?, ?, ?, ?, ?)"),
          doc_id_(meta_int(db, kLastDocKey)) {}

    // Writes the rows, state and word counts of a group of files. Rows go in increasing rowid
    // order: FTS5 turns what it holds in memory into a new segment whenever a row's rowid is
    // below the one before, and test files' rows have negative rowids (written in file order,
    // every row of a test file would make a segment of its own).
    void write(std::span<const FileJob* const> jobs) {
        struct Row {
            std::int64_t rowid;
            const FileJob* job;
            std::size_t index;  // of the symbol in the job
        };
        std::vector<Row> symbol_rows, file_rows;
        for (const FileJob* job : jobs) {
            for (std::size_t i = 0; i < job->symbols.size(); ++i) {
                const std::int64_t rowid = text_rowid(job->symbols[i].id, job->rows[i].tokens);
                symbol_rows.push_back({job->is_test ? -rowid : rowid, job, i});
            }
            const std::int64_t rowid = text_rowid(++doc_id_, job->file_tokens);
            file_rows.push_back({job->is_test ? -rowid : rowid, job, 0});
        }
        const auto by_rowid = [](const Row& a, const Row& b) { return a.rowid < b.rowid; };
        std::sort(symbol_rows.begin(), symbol_rows.end(), by_rowid);
        std::sort(file_rows.begin(), file_rows.end(), by_rowid);
        for (const Row& symbol : symbol_rows) {
            const SymbolRow& row = symbol.job->rows[symbol.index];
            insert_symbol_.bind(1, symbol.rowid)
                .bind_static(2, row.name)
                .bind_static(3, row.qualified)
                .bind_static(4, row.signature)
                .bind_static(5, row.doc)
                .bind_static(6, row.body);
            insert_symbol_.run();
        }
        for (const Row& file : file_rows) {
            const FileJob& job = *file.job;
            insert_file_.bind(1, file.rowid).bind_static(2, job.path_words).bind_static(3, job.file_body);
            insert_file_.run();
            insert_state_.bind(1, job.id)
                .bind(2, file.rowid)
                .bind(3, job.content_hash)
                .bind(4, job.is_test)
                .bind(5, static_cast<std::int64_t>(job.symbols.size()));
            insert_state_.run();
            for (const auto& [word, rows] : job.word_rows) {
                auto& total = word_rows_[word];
                total.first += rows.first;
                total.second += rows.second;
            }
        }
    }

    void finish() {
        storage::write_meta(db_, kLastDocKey, std::to_string(doc_id_));
        Statement count(db_, "INSERT INTO retrieval_word_counts(word, symbols, files) VALUES (?, ?, ?) ON CONFLICT(word) "
                             "DO UPDATE SET symbols = symbols + excluded.symbols, files = files + excluded.files");
        std::vector<std::pair<const std::string*, std::pair<std::int64_t, std::int64_t>>> sorted;
        sorted.reserve(word_rows_.size());
        for (const auto& [word, rows] : word_rows_) sorted.emplace_back(&word, rows);
        std::sort(sorted.begin(), sorted.end(), [](const auto& a, const auto& b) { return *a.first < *b.first; });
        for (const auto& [word, rows] : sorted) {
            count.bind(1, *word).bind(2, rows.first).bind(3, rows.second);
            count.run();
        }
        word_rows_.clear();
    }

private:
    Database& db_;
    Statement insert_symbol_, insert_file_, insert_state_;
    std::int64_t doc_id_ = 0;
    std::unordered_map<std::string, std::pair<std::int64_t, std::int64_t>> word_rows_;
};

// Describes `jobs` and writes their rows, their state and the counts of their words; returns
// the files written.
std::size_t write_rows(Database& db, const fs::path& root_path, std::vector<FileJob>& jobs, unsigned threads) {
    const RootDirectory root(root_path);
    if (threads == 0) threads = std::max(1u, std::thread::hardware_concurrency());
    Statement symbols(db, "SELECT id, parent_id, name, fqn, kind, start_line, end_line, signature, docstring "
                          "FROM symbols WHERE file_id = ? ORDER BY id");
    RowWriter writer(db);
    std::size_t written = 0;

    const std::span<FileJob> all(jobs);
    auto chunk_at = [&](std::size_t begin) { return all.subspan(begin, std::min(kChunkFiles, all.size() - begin)); };
    load_symbols(symbols, chunk_at(0));
    describe_all(root, chunk_at(0), threads);
    for (std::size_t begin = 0; begin < all.size(); begin += kChunkFiles) {
        const std::size_t next = begin + kChunkFiles;
        std::thread describing;
        if (next < all.size()) {
            load_symbols(symbols, chunk_at(next));
            describing = std::thread([&, next] { describe_all(root, chunk_at(next), threads); });
        }
        try {
            std::vector<const FileJob*> chunk;
            for (const FileJob& job : chunk_at(begin)) chunk.push_back(&job);
            writer.write(chunk);
            written += chunk.size();
            // The texts are written; free them.
            for (FileJob& job : chunk_at(begin)) job = FileJob();
        } catch (...) {
            if (describing.joinable()) describing.join();
            throw;
        }
        if (describing.joinable()) describing.join();
    }
    writer.finish();
    return written;
}

// Creates the tables when they are missing, of another revision, or left incomplete by a run
// that stopped before counting the words of the rows it wrote.
void ensure_tables(Database& db) {
    if (has_retrieval_tables(db)) return;
    db.exec(kDropTables);
    db.exec(kTables);
    storage::write_meta(db, kRetrievalRevisionKey, kRetrievalRevision);
    storage::write_meta(db, kStaleRowsKey, "0");
}

// Empties the tables (their rows are then all written again).
void clear_tables(Database& db) {
    db.exec("INSERT INTO retrieval_symbol_text(retrieval_symbol_text) VALUES ('delete-all');"
            "INSERT INTO retrieval_file_text(retrieval_file_text) VALUES ('delete-all');"
            "DELETE FROM retrieval_file_state;"
            "DELETE FROM retrieval_word_counts;");
    storage::write_meta(db, kStaleRowsKey, "0");
    storage::write_meta(db, kLastDocKey, "0");
}

// The rows of each file an index run parses, described by the parser that parsed it.
class ParsedFileRetrievalRows final : public indexer::ParsedFileRows {
public:
    explicit ParsedFileRetrievalRows(std::size_t group_bytes) : group_bytes_(group_bytes) {}

    void begin(Database& db, std::size_t to_parse, std::size_t indexed) override {
        ensure_tables(db);
        // Until finish() has counted the words of the rows written, the tables are incomplete
        // (a first build commits its rows in batches, and may stop between two).
        storage::write_meta(db, kCountsPendingKey, "1");
        // When much of the index is parsed again, its old rows would soon outnumber the live
        // ones and force a rebuild of everything: start from empty tables instead.
        if (to_parse > std::max<std::size_t>(kMinFilesForClear, indexed / 4)) clear_tables(db);
        stale_ = meta_int(db, kStaleRowsKey);
        writer_.emplace(db);
        old_state_.emplace(db, "SELECT symbol_rows FROM retrieval_file_state WHERE file_id = ?");
        forget_.emplace(db, "DELETE FROM retrieval_file_state WHERE file_id = ?");
    }

    std::shared_ptr<void> describe(const indexer::ParsedFile& parsed, std::string_view bytes) const override {
        if (!parsed.facts.is_source) return nullptr;
        auto job = std::make_shared<FileJob>();
        job->path = parsed.facts.path;
        job->content_hash = parsed.facts.content_hash;
        job->is_test = parsed.facts.is_test;
        const auto& symbols = parsed.extraction.symbols;
        job->symbols.reserve(symbols.size());
        for (std::size_t i = 0; i < symbols.size(); ++i) {
            // Numbered by position until write() knows the ids; parents are positions too.
            job->symbols.push_back({static_cast<std::int64_t>(i),
                                    symbols[i].parent ? std::optional<std::int64_t>(static_cast<std::int64_t>(*symbols[i].parent))
                                                      : std::nullopt,
                                    symbols[i].name, symbols[i].fqn, symbols[i].kind, symbols[i].start_line,
                                    symbols[i].end_line, symbols[i].signature, symbols[i].docstring});
        }
        describe_file(*job, bytes.size() <= kMaxDescribedBytes ? std::optional<std::string_view>(bytes) : std::nullopt);
        count_word_rows(*job);
        return job;
    }

    // Files are written in groups of about group_bytes_ of text: each commit of a first build's
    // batch would otherwise flush what FTS5 holds in memory into a segment of a few files.
    void write(Database&, std::int64_t file_id, std::int64_t first_symbol_id, std::shared_ptr<void> description) override {
        auto job = std::static_pointer_cast<FileJob>(description);
        job->id = file_id;
        for (std::size_t i = 0; i < job->symbols.size(); ++i) job->symbols[i].id = first_symbol_id + static_cast<std::int64_t>(i);
        pending_bytes_ += job->path_words.size() + job->file_body.size();
        for (const SymbolRow& row : job->rows) {
            pending_bytes_ += row.name.size() + row.qualified.size() + row.signature.size() + row.doc.size() + row.body.size();
        }
        pending_.push_back(std::move(job));
        if (pending_bytes_ >= group_bytes_) write_pending();
    }

    void finish(Database& db) override {
        write_pending();
        writer_->finish();
        storage::write_meta(db, kStaleRowsKey, std::to_string(stale_));
        storage::write_meta(db, kCountsPendingKey, "0");
    }

private:
    void write_pending() {
        for (const auto& job : pending_) {
            // The rows of the file's previous content stay behind, unreachable.
            old_state_->bind(1, job->id);
            if (old_state_->step()) {
                stale_ += old_state_->column_int64(0) + 1;
                old_state_->reset();
                forget_->bind(1, job->id);
                forget_->run();
            } else {
                old_state_->reset();
            }
        }
        std::vector<const FileJob*> group;
        for (const auto& job : pending_) group.push_back(job.get());
        writer_->write(group);
        pending_.clear();
        pending_bytes_ = 0;
    }

    std::optional<RowWriter> writer_;
    std::optional<Statement> old_state_, forget_;
    std::int64_t stale_ = 0;
    std::size_t group_bytes_;
    std::vector<std::shared_ptr<FileJob>> pending_;
    std::size_t pending_bytes_ = 0;
};

}  // namespace

indexer::IndexOptions index_options_with_retrieval(indexer::IndexOptions options, std::size_t group_bytes) {
    options.make_parsed_file_rows = [group_bytes] { return std::make_unique<ParsedFileRetrievalRows>(group_bytes); };
    options.refresh_extra_tables = [](Database& db, const fs::path& root, unsigned jobs) {
        refresh_retrieval_tables(db, root, jobs);
    };
    return options;
}

bool has_retrieval_tables(Database& db) {
    // All of them: one dropped by hand makes the tables absent (remade by the next refresh),
    // not a query that fails.
    for (const char* table : {"retrieval_symbol_text", "retrieval_file_text", "retrieval_symbol_vocab",
                              "retrieval_file_vocab", "retrieval_file_state", "retrieval_word_counts"}) {
        if (!table_exists(db, table)) return false;
    }
    return storage::read_meta(db, kRetrievalRevisionKey).value_or("") == kRetrievalRevision &&
           storage::read_meta(db, kCountsPendingKey).value_or("0") == "0";
}


RetrievalRefreshStats refresh_retrieval_tables(Database& db, const fs::path& root, unsigned jobs) {
    RetrievalRefreshStats stats;
    storage::Transaction transaction(db);
    ensure_tables(db);

    struct State {
        std::string content_hash;
        bool is_test = false;
        std::int64_t symbol_rows = 0;
    };
    std::unordered_map<std::int64_t, State> state;
    {
        Statement q(db, "SELECT file_id, content_hash, is_test, symbol_rows FROM retrieval_file_state");
        while (q.step()) state[q.column_int64(0)] = {q.column_string(1), q.column_int64(2) != 0, q.column_int64(3)};
    }
    // Every source file, in brief; a FileJob is made only for the files to describe (a no-op
    // refresh of a large tree would otherwise allocate one for each of its files).
    std::vector<SourceFile> all_files;
    std::vector<std::size_t> to_describe;
    std::vector<std::int64_t> to_forget;  // state rows to delete
    std::int64_t stale = meta_int(db, kStaleRowsKey);
    std::int64_t live = 0;
    bool same_ids = false;  // a file to describe whose symbols keep their ids (only its flags changed)
    {
        Statement q(db, "SELECT id, path, content_hash, is_test FROM files WHERE is_source = 1 ORDER BY id");
        while (q.step()) {
            SourceFile job;
            job.id = q.column_int64(0);
            job.path = q.column_string(1);
            job.content_hash = q.column_string(2);
            job.is_test = q.column_int64(3) != 0;
            auto it = state.find(job.id);
            bool current = false;
            if (it != state.end()) {
                current = it->second.content_hash == job.content_hash && it->second.is_test == job.is_test;
                same_ids |= !current && it->second.content_hash == job.content_hash;
                if (current) {
                    live += it->second.symbol_rows + 1;
                } else {
                    stale += it->second.symbol_rows + 1;
                    to_forget.push_back(job.id);
                }
                state.erase(it);
            }
            if (!current) to_describe.push_back(all_files.size());
            all_files.push_back(std::move(job));
        }
    }
    // What remains in `state` is gone from the index, or no longer source code.
    for (const auto& [id, old] : state) {
        stale += old.symbol_rows + 1;
        to_forget.push_back(id);
    }
    stats.dropped = static_cast<std::int64_t>(state.size());

    // Symbols that kept their ids cannot be written again beside their old rows, and stale rows
    // past a quarter of the live ones cost the searches more than a rebuild costs once.
    if (same_ids || stale > std::max(kMinStaleForRebuild, live / 4)) {
        clear_tables(db);
        stale = 0;
        to_forget.clear();
        to_describe.clear();
        for (std::size_t i = 0; i < all_files.size(); ++i) to_describe.push_back(i);
    }
    {
        Statement forget(db, "DELETE FROM retrieval_file_state WHERE file_id = ?");
        for (std::int64_t id : to_forget) {
            forget.bind(1, id);
            forget.run();
        }
    }

    std::vector<FileJob> jobs_to_run;
    jobs_to_run.reserve(to_describe.size());
    for (std::size_t index : to_describe) {
        static_cast<SourceFile&>(jobs_to_run.emplace_back()) = std::move(all_files[index]);
    }
    if (!jobs_to_run.empty()) {
        const std::size_t written = write_rows(db, root, jobs_to_run, jobs);
        stats.described += static_cast<std::int64_t>(written);
    }
    storage::write_meta(db, kStaleRowsKey, std::to_string(stale));
    transaction.commit();
    return stats;
}

}  // namespace orvane_kestrix::retrieval
