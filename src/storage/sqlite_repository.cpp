// The index contract over the SQLite index: one prepared statement per question.

#include "orvane_kestrix/storage/sqlite_repository.hpp"

#include <sqlite3.h>

#include <algorithm>
#include <limits>

#include "orvane_kestrix/storage/repository_fan_in.hpp"
#include "orvane_kestrix/storage/symbol_file_paths.hpp"

namespace orvane_kestrix {

namespace {

using storage::ResetOnExit;
using storage::Statement;

// The Symbol members, in the order read_symbol expects them.
#define KESTRIX_SYMBOL_COLUMNS                                                                        \
    "s.id, s.name, s.fqn, s.kind, s.file_id, s.is_export, s.start_line, s.end_line, s.signature, " \
    "s.docstring, s.docstring_truncated, s.token_count"
constexpr int kSymbolColumnCount = 12;

Symbol read_symbol(const Statement& row, int first = 0) {
    Symbol s;
    s.id = row.column_int64(first + 0);
    s.name = row.column_string(first + 1);
    s.fqn = row.column_string(first + 2);
    s.kind = row.column_string(first + 3);
    s.file_id = row.column_optional_int64(first + 4);
    s.is_export = row.column_int64(first + 5) != 0;
    s.start_line = row.column_int64(first + 6);
    s.end_line = row.column_int64(first + 7);
    s.signature = row.column_optional_text(first + 8);
    s.docstring = row.column_optional_text(first + 9);
    s.docstring_truncated = row.column_int64(first + 10) != 0;
    s.stored_token_count = row.column_int64(first + 11);
    return s;
}

// Search statements share their tail: the source-only switch (?2) and the id order. The
// recheck of the pattern is written `+s.name LIKE ?1` so that SQLite never treats the pattern
// as an index key, which would recompile the statement for every new pattern.
// ?5 is the row limit.
constexpr const char* kSearchTail = " AND (?2 = 0 OR f.is_source = 1) ORDER BY s.id LIMIT ?5";

std::string search_sql(const char* where) {
    return std::string("SELECT " KESTRIX_SYMBOL_COLUMNS " FROM symbols AS s JOIN files AS f ON f.id = s.file_id WHERE ") +
           where + kSearchTail;
}

// The trigram route walks the trigram table's hits in id order and stops at the limit, so a
// common word costs no more than a rare one. Its MATCH expression (?3) asks for every trigram
// of the pattern's literal runs; the table folds case beyond ASCII and, without positions,
// cannot check their order, so the LIKE is repeated on the name.
constexpr const char* kTrigramSearch =
    "SELECT " KESTRIX_SYMBOL_COLUMNS " FROM symbol_names CROSS JOIN symbols AS s ON s.id = symbol_names.rowid "
    "CROSS JOIN files AS f ON f.id = s.file_id "
    "WHERE symbol_names MATCH ?3 AND +s.name LIKE ?1 AND (?2 = 0 OR f.is_source = 1) "
    "ORDER BY symbol_names.rowid LIMIT ?5";

bool is_wildcard(char c) { return c == '%' || c == '_'; }

bool is_continuation(unsigned char byte) { return (byte & 0xC0) == 0x80; }

}  // namespace

NamePatternPlan plan_name_pattern(std::string_view pattern) {
    NamePatternPlan plan;
    const bool has_wildcard = std::any_of(pattern.begin(), pattern.end(), is_wildcard);
    if (!has_wildcard) {
        plan.route = NamePatternRoute::exact;
        return plan;
    }
    // The trigram table narrows a LIKE by the trigrams of its runs of three or more literal
    // characters: every one of them must occur in a matching name.
    std::vector<std::string> trigrams;
    std::size_t run_start = 0;
    for (std::size_t i = 0; i <= pattern.size(); ++i) {
        if (i < pattern.size() && !is_wildcard(pattern[i])) continue;
        std::vector<std::size_t> chars;
        for (std::size_t j = run_start; j < i; ++j) {
            if (!is_continuation(static_cast<unsigned char>(pattern[j]))) chars.push_back(j);
        }
        chars.push_back(i);
        for (std::size_t k = 0; k + 3 < chars.size(); ++k) {
            std::string trigram(pattern.substr(chars[k], chars[k + 3] - chars[k]));
            if (trigram.find('\0') != std::string::npos) continue;  // not expressible; the recheck stays
            if (std::find(trigrams.begin(), trigrams.end(), trigram) == trigrams.end()) trigrams.push_back(std::move(trigram));
        }
        run_start = i + 1;
    }
    if (!trigrams.empty()) {
        plan.route = NamePatternRoute::trigram;
        for (const auto& trigram : trigrams) {
            if (!plan.match.empty()) plan.match += " AND ";
            plan.match.push_back('"');
            for (const char c : trigram) {
                if (c == '"') plan.match.push_back('"');
                plan.match.push_back(c);
            }
            plan.match.push_back('"');
        }
        return plan;
    }
    const std::size_t head = std::find_if(pattern.begin(), pattern.end(), is_wildcard) - pattern.begin();
    if (head == 0) return plan;  // scan
    std::string lower(pattern.substr(0, head));
    for (char& c : lower) {
        if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
    }
    // Every name whose folded head equals `lower` sorts before `lower` with its last byte
    // raised; a raised byte may fold further up, which only widens the range.
    if (static_cast<unsigned char>(lower.back()) == 0xFF) return plan;
    std::string upper = lower;
    upper.back() = static_cast<char>(static_cast<unsigned char>(upper.back()) + 1);
    plan.route = NamePatternRoute::prefix;
    plan.lower = std::move(lower);
    plan.upper = std::move(upper);
    return plan;
}

struct SqliteRepository::Statements {
    explicit Statements(storage::Database& db)
        : fan_in(db),
          component_by_name(db.prepare("SELECT id, name FROM components WHERE name = ?1")),
          files_by_component(db.prepare("SELECT id, path FROM files WHERE component_id = ?1 ORDER BY id")),
          search_exact(db.prepare(search_sql("s.name = ?1 COLLATE NOCASE"))),
          search_trigram(db.prepare(kTrigramSearch)),
          search_prefix(db.prepare(search_sql(
              "s.name >= ?3 COLLATE NOCASE AND s.name < ?4 COLLATE NOCASE AND +s.name LIKE ?1"))),
          search_scan(db.prepare(search_sql("+s.name LIKE ?1"))),
          file_paths(db.prepare("SELECT f.id, f.path FROM json_each(?1) AS j CROSS JOIN files AS f ON f.id = j.value")),
          symbols_with_paths(db.prepare("SELECT " KESTRIX_SYMBOL_COLUMNS ", f.path FROM json_each(?1) AS j "
                                        "CROSS JOIN symbols AS s ON s.id = j.value LEFT JOIN files AS f ON f.id = s.file_id")),
          covering_tests(db.prepare(
              "SELECT t.path, src.path, ct.rank FROM json_each(?1) AS j "
              "CROSS JOIN files AS src ON src.path = j.value "
              "CROSS JOIN covering_tests AS ct ON ct.source_file_id = src.id "
              "JOIN files AS t ON t.id = ct.test_file_id "
              "GROUP BY t.path, src.path ORDER BY t.path, src.path")),
          // A file's symbols are written together, so their ids form one run: reading that
          // run of the table in order beats a lookup per symbol and a sort. The file_id test
          // keeps the answer right whatever the ids.
          symbols_by_file(db.prepare(
              "SELECT " KESTRIX_SYMBOL_COLUMNS " FROM symbols AS s "
              "WHERE s.id BETWEEN (SELECT min(id) FROM symbols WHERE file_id = ?1) "
              "AND (SELECT max(id) FROM symbols WHERE file_id = ?1) AND +s.file_id = ?1 ORDER BY s.id")),
          references(db.prepare(
              "SELECT r.usage_type, c.id, c.fqn, c.kind, c.name, r.context "
              "FROM refs AS r JOIN files AS f ON f.id = r.file_id LEFT JOIN symbols AS c ON c.id = r.caller_id "
              "WHERE r.id IN (SELECT rt.ref_id FROM symbols AS t JOIN ref_targets AS rt ON rt.symbol_id = t.id "
              "WHERE t.fqn = ?1) "
              "ORDER BY f.path, r.line, r.id")),
          symbol_by_fqn(db.prepare("SELECT " KESTRIX_SYMBOL_COLUMNS " FROM symbols AS s WHERE s.fqn = ?1 ORDER BY s.id LIMIT 1")) {}

    FanInQueries fan_in;
    Statement component_by_name;
    Statement files_by_component;
    Statement search_exact;
    Statement search_trigram;
    Statement search_prefix;
    Statement search_scan;
    Statement file_paths;
    Statement symbols_with_paths;
    Statement covering_tests;
    Statement symbols_by_file;
    Statement references;
    Statement symbol_by_fqn;
};

namespace {

storage::Database configured(storage::Database db) {
    // Plans must not depend on bound values: a LIKE pattern bound to a statement would
    // otherwise make SQLite recompile it whenever the pattern changes.
    sqlite3_db_config(db.handle(), SQLITE_DBCONFIG_ENABLE_QPSG, 1, nullptr);
    // Pages are read through a memory map rather than copied in by a system call each; the
    // page cache keeps the hot part of a large index. As much as SQLite allows (it caps the
    // size): a kernel-sized index is several GB, and only what packs touch is ever paged in.
    db.exec("PRAGMA mmap_size = 17179869184");
    db.exec("PRAGMA cache_size = -32768");
    return db;
}

}  // namespace

SqliteRepository::SqliteRepository(const std::filesystem::path& index_path)
    : SqliteRepository(storage::open_index(index_path, {.read_only = true})) {}

SqliteRepository::SqliteRepository(storage::Database database)
    : db_(configured(std::move(database))), statements_(std::make_unique<Statements>(db_)) {}

SqliteRepository::~SqliteRepository() = default;

std::optional<Component> SqliteRepository::get_component_by_name(const std::string& name) {
    Statement& q = statements_->component_by_name;
    ResetOnExit guard{q};
    q.bind(1, name);
    if (!q.step()) return std::nullopt;
    return Component{q.column_int64(0), q.column_string(1)};
}

std::vector<FileRecord> SqliteRepository::get_files_by_component(std::int64_t component_id) {
    Statement& q = statements_->files_by_component;
    ResetOnExit guard{q};
    q.bind(1, component_id);
    std::vector<FileRecord> out;
    while (q.step()) out.push_back(FileRecord{q.column_int64(0), q.column_string(1)});
    return out;
}

SymbolSearchResult SqliteRepository::search_symbols(const std::string& pattern, std::int64_t limit, bool source_only) {
    const NamePatternPlan plan = plan_name_pattern(pattern);
    SymbolSearchResult result;
    // SQLite refuses a LIKE pattern beyond its length limit; no name in an index is that long
    // (the indexer drops longer qualified names), so such a pattern matches nothing.
    if (plan.route != NamePatternRoute::exact &&
        pattern.size() > static_cast<std::size_t>(sqlite3_limit(db_.handle(), SQLITE_LIMIT_LIKE_PATTERN_LENGTH, -1))) {
        return result;
    }
    Statement* q = nullptr;
    switch (plan.route) {
        case NamePatternRoute::exact: q = &statements_->search_exact; break;
        case NamePatternRoute::trigram: q = &statements_->search_trigram; break;
        case NamePatternRoute::prefix: q = &statements_->search_prefix; break;
        case NamePatternRoute::scan: q = &statements_->search_scan; break;
    }
    ResetOnExit guard{*q};
    q->bind(1, pattern);
    q->bind(2, source_only);
    if (plan.route == NamePatternRoute::trigram) q->bind(3, plan.match);
    if (plan.route == NamePatternRoute::prefix) {
        q->bind(3, plan.lower);
        q->bind(4, plan.upper);
    }
    // A negative limit is none (SQLite reads LIMIT -1 so too).
    q->bind(5, limit < 0 ? std::int64_t{-1} : limit);
    while (q->step()) result.symbols.push_back(read_symbol(*q));
    return result;
}

SymbolPathMap SqliteRepository::get_file_paths_batch(const std::vector<Symbol>& symbols) {
    return storage::symbol_file_paths(symbols, [&](const std::vector<std::int64_t>& file_ids) {
        std::unordered_map<std::int64_t, std::string> path_of_file;
        Statement& q = statements_->file_paths;
        ResetOnExit guard{q};
        q.bind(1, storage::json_array(file_ids));
        while (q.step()) path_of_file.emplace(q.column_int64(0), q.column_string(1));
        return path_of_file;
    });
}

FanInMap SqliteRepository::production_fan_in(const std::vector<std::int64_t>& ids) {
    return statements_->fan_in.production_fan_in(ids);
}

std::unordered_set<std::string> SqliteRepository::test_paths(const std::vector<std::string>& paths) {
    return statements_->fan_in.test_paths(paths);
}

std::unordered_map<std::int64_t, SymbolWithPath> SqliteRepository::symbols_with_paths(
    const std::vector<std::optional<std::int64_t>>& ids) {
    std::unordered_map<std::int64_t, SymbolWithPath> out;
    std::vector<std::int64_t> present;
    for (const auto& id : ids) {
        if (id) present.push_back(*id);
    }
    if (present.empty()) return out;
    Statement& q = statements_->symbols_with_paths;
    ResetOnExit guard{q};
    q.bind(1, storage::json_array(present));
    while (q.step()) {
        Symbol s = read_symbol(q);
        const std::int64_t id = *s.id;
        out.try_emplace(id, SymbolWithPath{std::move(s), q.column_optional_text(kSymbolColumnCount)});
    }
    return out;
}

std::vector<CoveringTest> SqliteRepository::find_covering_tests(const std::vector<std::string>& paths) {
    std::vector<CoveringTest> out;
    if (paths.empty()) return out;
    Statement& q = statements_->covering_tests;
    ResetOnExit guard{q};
    q.bind(1, storage::json_array(paths));
    while (q.step()) {
        const std::string_view test = q.column_text(0);
        if (out.empty() || out.back().path != test) out.push_back(CoveringTest{std::string(test), {}});
        out.back().reaches.emplace_back(q.column_string(1), q.column_double(2));
    }
    return out;
}

std::vector<Symbol> SqliteRepository::get_symbols_by_file(std::int64_t file_id) {
    Statement& q = statements_->symbols_by_file;
    ResetOnExit guard{q};
    q.bind(1, file_id);
    std::vector<Symbol> out;
    while (q.step()) out.push_back(read_symbol(q));
    return out;
}

ReferencesResult SqliteRepository::get_references(const std::string& fqn) {
    Statement& q = statements_->references;
    ResetOnExit guard{q};
    q.bind(1, fqn);
    ReferencesResult out;
    while (q.step()) {
        Reference ref;
        ref.usage_type = q.column_string(0);
        if (!q.column_is_null(1)) {
            ref.caller_symbol = CallerSymbol{q.column_optional_text(2), q.column_optional_text(3), q.column_optional_text(4)};
        }
        if (!q.column_is_null(5) && !q.column_text(5).empty()) ref.context = q.column_string(5);
        out.references.push_back(std::move(ref));
    }
    out.total = static_cast<std::int64_t>(out.references.size());
    return out;
}

std::optional<Symbol> SqliteRepository::get_symbol_by_fqn(const std::string& fqn) {
    Statement& q = statements_->symbol_by_fqn;
    ResetOnExit guard{q};
    q.bind(1, fqn);
    if (!q.step()) return std::nullopt;
    return read_symbol(q);
}

}  // namespace orvane_kestrix
