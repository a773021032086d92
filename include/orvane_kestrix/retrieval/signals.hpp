#pragma once
// The retriever's signals (retrieval_signal.hpp), in the order the fusion runs them.

#include <cstdint>
#include <filesystem>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "orvane_kestrix/retrieval/retrieval_signal.hpp"

namespace orvane_kestrix {
class RootDirectory;
struct FileReadResult;
}

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

// BM25 over the lines of each symbol of the leading files (the files the earlier signals rank
// highest), read from the working tree: the words a symbol's body uses, with their counts, and
// its name counted twice. The full-text tables hold each body word once and only the rarest
// task words are searched there; within a few files every task word and every repeat can be
// weighed, which tells the function a task is about from its neighbours. Files whose size
// differs from the indexed one (edited since) are left out: their line ranges no longer hold.
class SymbolBodySignal final : public RetrievalSignal {
public:
    static constexpr std::size_t kLeadingFiles = 8;
    // Larger files cost more to read than their symbols' ranking is worth.
    static constexpr std::uint64_t kMaxFileBytes = 2 * 1024 * 1024;

    // `root`: the repository the index describes; absent, the signal cannot run.
    explicit SymbolBodySignal(std::optional<std::filesystem::path> root);
    ~SymbolBodySignal() override;
    std::string_view name() const override { return "symbol bodies"; }
    SignalScores score(const RetrievalQuery& query, RetrievalContext& context) override;

    // A file's identifiers as this signal reads them (defined in its source).
    struct ScannedFile;

private:
    const ScannedFile& scanned_file(const std::string& path, std::string_view text, const FileReadResult& read);

    std::unique_ptr<RootDirectory> root_;
    // The leading files of the last tasks, scanned: an agent's tasks come back to the same
    // files, and scanning their text was most of this signal's cost.
    std::map<std::string, std::shared_ptr<ScannedFile>> scanned_;
    std::uint64_t scan_clock_ = 0;
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
