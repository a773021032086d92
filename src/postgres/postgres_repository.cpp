// The index contract over PostgreSQL: one prepared statement per question.

#include "orvane_kestrix/postgres/postgres_repository.hpp"

#include <utility>

#include "orvane_kestrix/postgres/postgres_schema.hpp"
#include "orvane_kestrix/storage/sqlite_repository.hpp"
#include "orvane_kestrix/storage/symbol_file_paths.hpp"

namespace orvane_kestrix::postgres {

namespace {

// The Symbol members, in the order read_symbol expects them.
#define KESTRIX_PG_SYMBOL_COLUMNS                                                                         \
    "s.id, s.name, s.fqn, s.kind, s.file_id, s.is_export, s.start_line, s.end_line, s.signature, " \
    "s.docstring, s.docstring_truncated, s.token_count"
constexpr int kSymbolColumnCount = 12;

// SQLite refuses LIKE patterns longer than this (its default limit), so the SQLite index
// matches nothing for them; so does this one.
constexpr std::size_t kLikePatternLengthLimit = 50000;

Symbol read_symbol(const Result& r, int row) {
    Symbol s;
    s.id = r.int64(row, 0);
    s.name = r.string(row, 1);
    s.fqn = r.string(row, 2);
    s.kind = r.string(row, 3);
    s.file_id = r.optional_int64(row, 4);
    s.is_export = r.boolean(row, 5);
    s.start_line = r.int64(row, 6);
    s.end_line = r.int64(row, 7);
    s.signature = r.optional_text(row, 8);
    s.docstring = r.optional_text(row, 9);
    s.docstring_truncated = r.boolean(row, 10);
    s.stored_token_count = r.int64(row, 11);
    return s;
}

struct NamedStatement {
    const char* name;
    const char* sql;
};

// $1 is always the repository's id in every statement.
//
// The name search is planned for each pattern rather than prepared: a pattern with a literal
// head reads a range of the name index, a substring the trigram index, which one plan for any
// pattern cannot. The pattern ($2) arrives ASCII-folded, as name_folded is stored; no escape
// character.
constexpr const char* kSearch =
    "SELECT " KESTRIX_PG_SYMBOL_COLUMNS " FROM symbols AS s JOIN files AS f ON f.repo_id = s.repo_id AND f.id = s.file_id "
    "WHERE s.repo_id = $1 AND s.name_folded LIKE $2 ESCAPE '' AND (NOT $3::boolean OR f.is_source) "
    "ORDER BY s.id LIMIT $4::bigint";

// The others, prepared once per connection.
constexpr NamedStatement kStatements[] = {
    {"repository", "SELECT id, schema_version FROM repositories WHERE name = $1"},
    {"component_by_name", "SELECT id, name FROM components WHERE repo_id = $1 AND name = $2"},
    {"files_by_component", "SELECT id, path FROM files WHERE repo_id = $1 AND component_id = $2 ORDER BY id"},
    {"file_paths", "SELECT id, path FROM files WHERE repo_id = $1 AND id = ANY($2::bigint[])"},
    {"fan_in", "SELECT id, production_fan_in FROM symbols WHERE repo_id = $1 AND id = ANY($2::bigint[])"},
    {"test_paths", "SELECT path FROM files WHERE repo_id = $1 AND path = ANY($2::text[]) AND is_test"},
    {"symbols_with_paths",
     "SELECT " KESTRIX_PG_SYMBOL_COLUMNS ", f.path FROM symbols AS s "
     "LEFT JOIN files AS f ON f.repo_id = s.repo_id AND f.id = s.file_id "
     "WHERE s.repo_id = $1 AND s.id = ANY($2::bigint[])"},
    {"covering_tests",
     "SELECT t.path, src.path, min(ct.rank) FROM files AS src "
     "JOIN covering_tests AS ct ON ct.repo_id = src.repo_id AND ct.source_file_id = src.id "
     "JOIN files AS t ON t.repo_id = ct.repo_id AND t.id = ct.test_file_id "
     "WHERE src.repo_id = $1 AND src.path = ANY($2::text[]) "
     "GROUP BY t.path, src.path ORDER BY t.path, src.path"},
    {"symbols_by_file",
     "SELECT " KESTRIX_PG_SYMBOL_COLUMNS " FROM symbols AS s WHERE s.repo_id = $1 AND s.file_id = $2 ORDER BY s.id"},
    {"references",
     "SELECT r.usage_type, c.id, c.fqn, c.kind, c.name, r.context "
     "FROM refs AS r JOIN files AS f ON f.repo_id = r.repo_id AND f.id = r.file_id "
     "LEFT JOIN symbols AS c ON c.repo_id = r.repo_id AND c.id = r.caller_id "
     "WHERE r.repo_id = $1 AND r.id IN (SELECT rt.ref_id FROM symbols AS t "
     "JOIN ref_targets AS rt ON rt.repo_id = t.repo_id AND rt.symbol_id = t.id WHERE t.repo_id = $1 AND t.fqn = $2) "
     "ORDER BY f.path, r.line, r.id"},
    {"symbol_by_fqn",
     "SELECT " KESTRIX_PG_SYMBOL_COLUMNS " FROM symbols AS s WHERE s.repo_id = $1 AND s.fqn = $2 ORDER BY s.id LIMIT 1"},
};

std::string ascii_folded(std::string text) {
    for (char& c : text) {
        if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
    }
    return text;
}

// The strings PostgreSQL can hold; the others name nothing the index holds.
std::vector<std::string> storable(const std::vector<std::string>& values) {
    std::vector<std::string> out;
    out.reserve(values.size());
    for (const auto& v : values) {
        if (storable_text(v)) out.push_back(v);
    }
    return out;
}

}  // namespace

PostgresRepository::PostgresRepository(const std::string& url, std::string name)
    : connection_(url), name_(std::move(name)) {
    repo_id_ = std::to_string(open_repository_row(connection_, name_).id);
    for (const auto& statement : kStatements) connection_.prepare(statement.name, statement.sql);
}

PostgresRepository::~PostgresRepository() { abandon_snapshot(); }

void PostgresRepository::begin_snapshot() {
    abandon_snapshot();
    connection_.exec("BEGIN ISOLATION LEVEL REPEATABLE READ READ ONLY", "start reading the index");
    in_snapshot_ = true;
    try {
        const Result r = connection_.run_prepared("repository", {name_});
        if (r.rows() > 0 && r.int64(0, 1) == kServerSchemaVersion) {
            repo_id_ = r.string(0, 0);
        } else {
            // The full lookup says what is wrong, with the way out.
            repo_id_ = std::to_string(open_repository_row(connection_, name_).id);
        }
    } catch (...) {
        abandon_snapshot();
        throw;
    }
}

void PostgresRepository::end_snapshot() {
    if (!in_snapshot_) return;
    in_snapshot_ = false;
    connection_.exec("COMMIT", "end reading the index");
}

void PostgresRepository::abandon_snapshot() noexcept {
    if (!in_snapshot_) return;
    in_snapshot_ = false;
    connection_.rollback_quietly();
}

Result PostgresRepository::run(const char* statement, Parameters parameters) {
    parameters.insert(parameters.begin(), repo_id_);
    return connection_.run_prepared(statement, parameters);
}

std::optional<Component> PostgresRepository::get_component_by_name(const std::string& name) {
    if (!storable_text(name)) return std::nullopt;
    const Result r = run("component_by_name", {name});
    if (r.rows() == 0) return std::nullopt;
    return Component{r.int64(0, 0), r.string(0, 1)};
}

std::vector<FileRecord> PostgresRepository::get_files_by_component(std::int64_t component_id) {
    const Result r = run("files_by_component", {std::to_string(component_id)});
    std::vector<FileRecord> out;
    out.reserve(static_cast<std::size_t>(r.rows()));
    for (int i = 0; i < r.rows(); ++i) out.push_back(FileRecord{r.int64(i, 0), r.string(i, 1)});
    return out;
}

SymbolSearchResult PostgresRepository::search_symbols(const std::string& pattern, std::int64_t limit, bool source_only) {
    SymbolSearchResult result;
    if (!storable_text(pattern)) return result;
    if (plan_name_pattern(pattern).route != NamePatternRoute::exact && pattern.size() > kLikePatternLengthLimit) {
        return result;
    }
    std::optional<std::string> cut;
    if (limit >= 0) cut = std::to_string(limit);
    Parameters parameters = {repo_id_, ascii_folded(pattern), source_only ? "t" : "f", cut};
    const Result r = connection_.query(kSearch, parameters, "search the index's names");
    result.symbols.reserve(static_cast<std::size_t>(r.rows()));
    for (int i = 0; i < r.rows(); ++i) result.symbols.push_back(read_symbol(r, i));
    return result;
}

SymbolPathMap PostgresRepository::get_file_paths_batch(const std::vector<Symbol>& symbols) {
    return storage::symbol_file_paths(symbols, [&](const std::vector<std::int64_t>& file_ids) {
        std::unordered_map<std::int64_t, std::string> path_of_file;
        const Result r = run("file_paths", {int_array_literal(file_ids)});
        for (int i = 0; i < r.rows(); ++i) path_of_file.emplace(r.int64(i, 0), r.string(i, 1));
        return path_of_file;
    });
}

FanInMap PostgresRepository::production_fan_in(const std::vector<std::int64_t>& ids) {
    FanInMap out;
    if (ids.empty()) return out;
    const Result r = run("fan_in", {int_array_literal(ids)});
    for (int i = 0; i < r.rows(); ++i) out.emplace(r.int64(i, 0), r.int64(i, 1));
    return out;
}

std::unordered_set<std::string> PostgresRepository::test_paths(const std::vector<std::string>& paths) {
    std::unordered_set<std::string> out;
    const std::vector<std::string> asked = storable(paths);
    if (asked.empty()) return out;
    const Result r = run("test_paths", {text_array_literal(asked)});
    for (int i = 0; i < r.rows(); ++i) out.emplace(r.text(i, 0));
    return out;
}

std::unordered_map<std::int64_t, SymbolWithPath> PostgresRepository::symbols_with_paths(
    const std::vector<std::optional<std::int64_t>>& ids) {
    std::unordered_map<std::int64_t, SymbolWithPath> out;
    std::vector<std::int64_t> present;
    for (const auto& id : ids) {
        if (id) present.push_back(*id);
    }
    if (present.empty()) return out;
    const Result r = run("symbols_with_paths", {int_array_literal(present)});
    for (int i = 0; i < r.rows(); ++i) {
        Symbol s = read_symbol(r, i);
        const std::int64_t id = *s.id;
        out.try_emplace(id, SymbolWithPath{std::move(s), r.optional_text(i, kSymbolColumnCount)});
    }
    return out;
}

std::vector<CoveringTest> PostgresRepository::find_covering_tests(const std::vector<std::string>& paths) {
    std::vector<CoveringTest> out;
    const std::vector<std::string> asked = storable(paths);
    if (asked.empty()) return out;
    // The builder carries on without covering tests when their lookup fails; inside a
    // snapshot a failed statement would end the whole transaction, so it runs in a savepoint.
    if (in_snapshot_) connection_.exec("SAVEPOINT covering_tests", "read the index");
    Result r;
    try {
        r = run("covering_tests", {text_array_literal(asked)});
    } catch (const PostgresError&) {
        if (in_snapshot_ && !connection_.is_broken()) connection_.exec("ROLLBACK TO SAVEPOINT covering_tests", "read the index");
        throw;
    }
    if (in_snapshot_) connection_.exec("RELEASE SAVEPOINT covering_tests", "read the index");
    for (int i = 0; i < r.rows(); ++i) {
        const std::string_view test = r.text(i, 0);
        if (out.empty() || out.back().path != test) out.push_back(CoveringTest{std::string(test), {}});
        out.back().reaches.emplace_back(r.string(i, 1), r.real(i, 2));
    }
    return out;
}

std::vector<Symbol> PostgresRepository::get_symbols_by_file(std::int64_t file_id) {
    const Result r = run("symbols_by_file", {std::to_string(file_id)});
    std::vector<Symbol> out;
    out.reserve(static_cast<std::size_t>(r.rows()));
    for (int i = 0; i < r.rows(); ++i) out.push_back(read_symbol(r, i));
    return out;
}

ReferencesResult PostgresRepository::get_references(const std::string& fqn) {
    ReferencesResult out;
    if (!storable_text(fqn)) return out;
    const Result r = run("references", {fqn});
    for (int i = 0; i < r.rows(); ++i) {
        Reference ref;
        ref.usage_type = r.string(i, 0);
        if (!r.is_null(i, 1)) ref.caller_symbol = CallerSymbol{r.optional_text(i, 2), r.optional_text(i, 3), r.optional_text(i, 4)};
        if (!r.is_null(i, 5) && !r.text(i, 5).empty()) ref.context = r.string(i, 5);
        out.references.push_back(std::move(ref));
    }
    out.total = static_cast<std::int64_t>(out.references.size());
    return out;
}

std::optional<Symbol> PostgresRepository::get_symbol_by_fqn(const std::string& fqn) {
    if (!storable_text(fqn)) return std::nullopt;
    const Result r = run("symbol_by_fqn", {fqn});
    if (r.rows() == 0) return std::nullopt;
    return read_symbol(r, 0);
}

}  // namespace orvane_kestrix::postgres
