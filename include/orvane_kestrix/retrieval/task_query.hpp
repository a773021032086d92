#pragma once
// Turns a task into the query the signals run (retrieval_signal.hpp): its mentions, the names
// it writes, and the search words worth a full-text lookup.
//
// Words are chosen by how rare they are in the index: words no symbol or file holds are
// dropped; the rarest kMaxTerms of the rest are the query's terms (the body signal weighs
// them all); the files' text is searched with the rarest of those within kMaxFilePostings
// (the files they are in, summed: every matching row is scored, and on a kernel-sized tree a
// common word is in tens of thousands of files); the symbols' text with the rarest
// kMaxSymbolTerms of those that at most kMaxSymbolShare of the symbols hold, within
// kMaxPostings (the rows the query visits). The rarest word is always searched. A long task (a pasted log) thus costs a bounded search: only its first
// kMaxCandidateWords distinct words are even looked up.

#include <cstdint>
#include <functional>
#include <string>

#include "orvane_kestrix/retrieval/retrieval_signal.hpp"
#include "orvane_kestrix/workers/retrieval.hpp"

namespace orvane_kestrix::retrieval {

inline constexpr std::size_t kMaxCandidateWords = 256;
inline constexpr std::size_t kMaxTerms = 200;
inline constexpr std::size_t kMaxSymbolTerms = 24;
inline constexpr double kMaxSymbolShare = 0.2;
inline constexpr std::int64_t kMaxPostings = 15000;
inline constexpr std::int64_t kMaxFilePostings = 5000;

// How many symbols and files hold a search word.
struct WordFrequency {
    std::int64_t symbols = 0;
    std::int64_t files = 0;
};

RetrievalQuery make_task_query(const std::string& task, bool include_tests, Tokenizer& tokenizer,
                               const std::function<WordFrequency(const std::string&)>& frequency,
                               std::int64_t indexed_symbols, std::int64_t indexed_files);

}  // namespace orvane_kestrix::retrieval
