#pragma once
// The retriever's signals (retrieval_signal.hpp), in the order the fusion runs them.

#include <string_view>

#include "orvane_kestrix/retrieval/retrieval_signal.hpp"

namespace orvane_kestrix::retrieval {

// Explicit mentions: trace frames (the symbol around the frame's line, or the function it
// names in its file), qualified names (Cls.method, pkg.mod.func) and the identifiers the task
// writes, matched against symbol names; file paths and module names, matched against the
// index's paths, score their files. Scores fall with ambiguity: a name that many symbols share
// says less about each.
class MentionSignal final : public RetrievalSignal {
public:
    std::string_view name() const override { return "mentions"; }
    SignalScores score(const RetrievalQuery& query, RetrievalContext& context) override;
};

// BM25 over each source file's path and whole text (retrieval_file_text): which files the
// task's words are about. Scores files, carried to their symbols.
class FileTextSignal final : public RetrievalSignal {
public:
    std::string_view name() const override { return "file text"; }
    SignalScores score(const RetrievalQuery& query, RetrievalContext& context) override;
};

// BM25F over each symbol's columns (retrieval_symbol_text): name, qualified name, signature,
// docstring, body words and path, weighted per column. Besides the best symbols of the whole
// index it scores the symbols of the files the earlier signals rank highest, so that a file
// found by its text contributes its best-matching symbols.
class SymbolTextSignal final : public RetrievalSignal {
public:
    std::string_view name() const override { return "symbol text"; }
    SignalScores score(const RetrievalQuery& query, RetrievalContext& context) override;
};

// Spreads the best hits so far over the reference graph: the callers and callees of the
// strongest symbols (one step of a personalised PageRank, seeded by the fused scores).
class ReferenceGraphSignal final : public RetrievalSignal {
public:
    std::string_view name() const override { return "reference graph"; }
    SignalScores score(const RetrievalQuery& query, RetrievalContext& context) override;
};

// A weak prior for symbols the rest of the code uses: production fan-in, log-scaled.
class FanInPrior final : public RetrievalSignal {
public:
    std::string_view name() const override { return "fan-in"; }
    SignalScores score(const RetrievalQuery& query, RetrievalContext& context) override;
};

}  // namespace orvane_kestrix::retrieval
