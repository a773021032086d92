#pragma once
// One source of evidence for the retriever's ranking, and what every signal reads and writes.
//
// A signal scores symbols (and, when its evidence is about whole files, files) in [0, 1] for
// one task; the fusion (fusion.hpp) weighs and adds the scores of all signals. Signals run in
// order, and a later one may read what the earlier ones found (the reference graph spreads
// from the best hits so far). A signal that cannot run on this index or task says why in
// `unavailable` and scores nothing; the retriever then ranks with the others and passes the
// reason on in its note. A new signal (a dense embedding signal, say) is one more class behind
// this interface and one more entry in the fusion's list.

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "orvane_kestrix/retrieval/index_catalog.hpp"
#include "orvane_kestrix/retrieval/task_mentions.hpp"
#include "orvane_kestrix/storage/sqlite_schema.hpp"

namespace orvane_kestrix::retrieval {

// A task as the signals see it.
struct RetrievalQuery {
    std::string task;
    bool include_tests = false;
    // The search words (search_words.hpp) that the index holds, rarest first: all of them for
    // the files' text (a few thousand rows), the rarest for the symbols' text, where every
    // row a word matches is scored.
    std::vector<std::string> terms;
    // The inverse document frequency of each of `terms` over the index's files.
    std::vector<double> term_idf;
    std::vector<std::string> symbol_terms;
    // How many rows of the symbols' text hold each of `symbol_terms`, space-separated (the
    // ranking's idf; term_bm25.hpp).
    std::string symbol_term_rows;
    // The same for the files' text: how many file rows hold each word of `file_match`.
    std::string file_term_rows;
    // The FTS5 queries over them: the words ORed, test files' rows left out unless wanted.
    std::string file_match;
    std::string symbol_match;
    // The identifiers the task writes (the tokenizer's names), as written.
    std::vector<std::string> names;
    TaskMentions mentions;
};

// Symbols that rarely hold the code a task changes: variables, constants, fields, and
// properties of a line or two (a property with a body of its own, a Python getter say, is a
// method in all but name).
bool is_minor_symbol(std::string_view kind, std::int64_t start_line, std::int64_t end_line);

// What the retriever knows of a symbol while it ranks.
struct CandidateSymbol {
    std::int64_t id = 0;
    std::int64_t file_id = 0;
    std::string name;
    std::string fqn;
    std::string kind;
    std::int64_t start_line = 1;
    std::int64_t end_line = 1;
    std::int64_t fan_in = 0;
    std::int64_t cost = 0;  // the tokens its pack row costs without a snippet
};

// The working state of one retrieval: the index, its files, the symbols met so far and the
// fused scores of the signals that have run.
class RetrievalContext {
public:
    RetrievalContext(storage::Database& db, const IndexCatalog& catalog) : db(db), catalog(catalog) {}

    storage::Database& db;
    const IndexCatalog& catalog;
    // Fused score so far, by symbol id, and the weighted file scores so far, by file id.
    std::unordered_map<std::int64_t, double> fused;
    std::unordered_map<std::int64_t, double> file_fused;

    // The facts of these symbols, loaded in one batch for those not yet known.
    void load(const std::vector<std::int64_t>& ids);
    const CandidateSymbol* find(std::int64_t id) const;
    const std::unordered_map<std::int64_t, CandidateSymbol>& symbols() const { return symbols_; }

private:
    std::unordered_map<std::int64_t, CandidateSymbol> symbols_;
};

struct SignalScores {
    std::unordered_map<std::int64_t, double> symbols;  // symbol id -> [0, 1]
    std::unordered_map<std::int64_t, double> files;    // file id -> [0, 1], carried to the file's symbols
    std::optional<std::string> unavailable;            // why the signal could not run
};

class RetrievalSignal {
public:
    virtual ~RetrievalSignal() = default;
    virtual std::string_view name() const = 0;
    virtual SignalScores score(const RetrievalQuery& query, RetrievalContext& context) = 0;
};

}  // namespace orvane_kestrix::retrieval
