#include "orvane_kestrix/retrieval/retrieval_tables.hpp"
#include "orvane_kestrix/retrieval/signals.hpp"

namespace orvane_kestrix::retrieval {

namespace {
// Files scored; the rest of a long tail carries too little to matter.
constexpr int kFiles = 40;
}  // namespace

SignalScores FileTextSignal::score(const RetrievalQuery& query, RetrievalContext& context) {
    SignalScores out;
    if (query.terms.empty()) {
        out.unavailable = "the task has no words the files' text holds";
        return out;
    }
    // A word in the path counts four times one in the text: paths name what a file is about.
    // Rows without a state row describe content that is gone (retrieval_tables.hpp); the
    // ranking is cut before the join (a quarter further, for such rows), so that only the rows
    // kept are looked up.
    // Test files' rows have negative rowids; state rows hold the rowid (retrieval_tables.hpp).
    const std::string sql = std::string("SELECT s.file_id, t.relevance FROM (SELECT rowid AS doc, -term_bm25(retrieval_file_text, ?4, 4.0, 1.0) AS "
                                        "relevance FROM retrieval_file_text WHERE retrieval_file_text MATCH ?1") +
                            (query.include_tests ? "" : kOutsideTests) +
                            " ORDER BY relevance DESC LIMIT ?3) AS t CROSS JOIN retrieval_file_state AS s ON s.doc_id = t.doc "
                            "ORDER BY t.relevance DESC LIMIT ?2";
    storage::Statement q(context.db, sql);
    q.bind_static(1, query.file_match).bind(2, kFiles).bind(3, kFiles + kFiles / 4).bind_static(4, query.file_term_rows);
    double best = 0;
    while (q.step()) {
        const double relevance = q.column_double(1);
        if (best == 0) best = relevance;
        if (best > 0) out.files[q.column_int64(0)] = relevance / best;
    }
    return out;
}

}  // namespace orvane_kestrix::retrieval
