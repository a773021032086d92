#pragma once
// Fuses the signals' scores into one score per symbol: a weighted sum.
//
//   fused(s) = sum over signals i of  w_i * max(symbol_i(s), carry * file_i(file of s))
//
// Each signal scores in [0, 1] (normalised by its own best hit), so the weights say how much
// each kind of evidence counts against the others; a file-level score reaches every symbol of
// that file the ranking holds, at `carry` of its strength. The weights were fitted by hand on
// the localization development set (retrieval-dev: file Acc@5 and symbol Hit@5 at an 800-token
// budget), keeping only changes that helped on every source; bench/retrieval_dev.sh reruns it.
// Signals run in order; after each, the fused scores so far are in the context for the next.

#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

#include "orvane_kestrix/retrieval/retrieval_signal.hpp"

namespace orvane_kestrix::retrieval {

struct FusionOutcome {
    std::unordered_map<std::int64_t, double> scores;  // symbol id -> fused score
    std::vector<std::string> unavailable;            // "signal: reason", for each signal that could not run
};

class WeightedFusion {
public:
    // A file-level score reaches the file's symbols at this share.
    static constexpr double kFileCarry = 1.0;

    void add(std::unique_ptr<RetrievalSignal> signal, double weight);
    FusionOutcome run(const RetrievalQuery& query, RetrievalContext& context);

private:
    struct Entry {
        std::unique_ptr<RetrievalSignal> signal;
        double weight = 0;
    };
    std::vector<Entry> entries_;
};

}  // namespace orvane_kestrix::retrieval
