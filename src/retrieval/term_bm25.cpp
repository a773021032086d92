#include "orvane_kestrix/retrieval/term_bm25.hpp"

#include <sqlite3.h>

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstring>
#include <vector>

namespace orvane_kestrix::retrieval {

namespace {

constexpr double kK1 = 1.2;
constexpr double kB = 0.75;

// What stays the same for every row of one query.
struct QueryData {
    std::vector<double> idf;     // per phrase
    std::vector<double> weight;  // per column
    double average_length = 0;
};

QueryData* query_data(const Fts5ExtensionApi* api, Fts5Context* fts, sqlite3_context* context, int argc, sqlite3_value** argv) {
    if (auto* data = static_cast<QueryData*>(api->xGetAuxdata(fts, 0))) return data;
    auto* data = new QueryData;
    const int phrases = api->xPhraseCount(fts);
    const int columns = api->xColumnCount(fts);
    sqlite3_int64 rows = 0;
    sqlite3_int64 tokens = 0;
    if (api->xRowCount(fts, &rows) != SQLITE_OK || api->xColumnTotalSize(fts, -1, &tokens) != SQLITE_OK) {
        delete data;
        sqlite3_result_error(context, "term_bm25: cannot read the table's sizes", -1);
        return nullptr;
    }
    data->average_length = rows > 0 ? static_cast<double>(tokens) / static_cast<double>(rows) : 0;
    // The rows holding each phrase, as bm25() counts them, then its idf.
    const char* counts = argc > 0 ? reinterpret_cast<const char*>(sqlite3_value_text(argv[0])) : nullptr;
    const char* end = counts != nullptr ? counts + std::strlen(counts) : nullptr;
    for (int i = 0; i < phrases; ++i) {
        sqlite3_int64 hits = 0;
        while (counts != nullptr && counts < end && *counts == ' ') ++counts;
        if (counts != nullptr && counts < end) counts = std::from_chars(counts, end, hits).ptr;
        double idf = std::log((static_cast<double>(rows) - static_cast<double>(hits) + 0.5) / (static_cast<double>(hits) + 0.5));
        if (idf <= 0.0) idf = 1e-6;
        data->idf.push_back(idf);
    }
    for (int c = 0; c < columns; ++c) data->weight.push_back(c + 1 < argc ? sqlite3_value_double(argv[c + 1]) : 1.0);
    if (api->xSetAuxdata(fts, data, [](void* p) { delete static_cast<QueryData*>(p); }) != SQLITE_OK) {
        sqlite3_result_error(context, "term_bm25: out of memory", -1);
        return nullptr;
    }
    return data;
}

// `pUserData` says how a phrase's frequency in a row is counted: null, every occurrence (the
// table keeps positions); otherwise once per column that holds it.
void term_bm25(const Fts5ExtensionApi* api, Fts5Context* fts, sqlite3_context* context, int argc, sqlite3_value** argv) {
    const QueryData* data = query_data(api, fts, context, argc, argv);
    if (data == nullptr) return;
    const bool by_column = api->xUserData(fts) != nullptr;
    const double length = row_length_of_rowid(api->xRowid(fts));
    const double norm = kK1 * (1 - kB + kB * length / data->average_length);
    double score = 0;
    for (std::size_t i = 0; i < data->idf.size(); ++i) {
        Fts5PhraseIter it;
        int column = 0;
        int offset = 0;
        double frequency = 0;
        if (by_column) {
            for (api->xPhraseFirstColumn(fts, static_cast<int>(i), &it, &column); column >= 0;
                 api->xPhraseNextColumn(fts, &it, &column)) {
                frequency += data->weight[static_cast<std::size_t>(column)];
            }
        } else {
            for (api->xPhraseFirst(fts, static_cast<int>(i), &it, &column, &offset); column >= 0;
                 api->xPhraseNext(fts, &it, &column, &offset)) {
                frequency += data->weight[static_cast<std::size_t>(column)];
            }
        }
        // Grouped as bm25() groups it, so that both round alike.
        if (frequency > 0) score += data->idf[i] * ((frequency * (kK1 + 1.0)) / (frequency + norm));
    }
    sqlite3_result_double(context, -score);
}

fts5_api* fts5_of(sqlite3* db) {
    fts5_api* api = nullptr;
    sqlite3_stmt* statement = nullptr;
    if (sqlite3_prepare_v2(db, "SELECT fts5(?1)", -1, &statement, nullptr) == SQLITE_OK) {
        sqlite3_bind_pointer(statement, 1, static_cast<void*>(&api), "fts5_api_ptr", nullptr);
        sqlite3_step(statement);
    }
    sqlite3_finalize(statement);
    return api;
}

constexpr std::int64_t kExactLengths = 64;
constexpr std::int64_t kCodes = std::int64_t{1} << kLengthBits;
constexpr double kStepsPerOctave = 8;

}  // namespace

std::int64_t text_rowid(std::int64_t id, std::int64_t tokens) {
    std::int64_t code = tokens;
    if (tokens >= kExactLengths) {
        const auto step = std::llround(kStepsPerOctave * std::log2(static_cast<double>(tokens) / kExactLengths));
        code = std::min<std::int64_t>(kExactLengths + step, kCodes - 1);
    }
    return (id << kLengthBits) | std::max<std::int64_t>(code, 0);
}

double row_length_of_rowid(std::int64_t rowid) {
    const std::int64_t code = (rowid < 0 ? -rowid : rowid) & (kCodes - 1);
    if (code < kExactLengths) return static_cast<double>(code);
    return std::round(kExactLengths * std::exp2(static_cast<double>(code - kExactLengths) / kStepsPerOctave));
}

void register_term_bm25(storage::Database& db) {
    fts5_api* api = fts5_of(db.handle());
    if (api == nullptr) throw storage::SqliteError(SQLITE_ERROR, "this SQLite has no FTS5");
    static int by_column = 1;
    if (api->xCreateFunction(api, "term_bm25", nullptr, term_bm25, nullptr) != SQLITE_OK ||
        api->xCreateFunction(api, "column_bm25", &by_column, term_bm25, nullptr) != SQLITE_OK) {
        throw storage::SqliteError(SQLITE_ERROR, "cannot register term_bm25() and column_bm25()");
    }
}

}  // namespace orvane_kestrix::retrieval
