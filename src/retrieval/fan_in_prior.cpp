#include <algorithm>
#include <cmath>

#include "orvane_kestrix/retrieval/signals.hpp"

namespace orvane_kestrix::retrieval {

SignalScores FanInPrior::score(const RetrievalQuery&, RetrievalContext& context) {
    SignalScores out;
    std::int64_t most = 0;
    for (const auto& [id, symbol] : context.symbols()) most = std::max(most, symbol.fan_in);
    if (most <= 0) return out;
    const double scale = std::log1p(static_cast<double>(most));
    // Only symbols another signal found: the prior orders hits, it finds none.
    for (const auto& [id, score] : context.fused) {
        if (const CandidateSymbol* symbol = context.find(id); symbol != nullptr && symbol->fan_in > 0) {
            out.symbols[id] = std::log1p(static_cast<double>(symbol->fan_in)) / scale;
        }
    }
    return out;
}

}  // namespace orvane_kestrix::retrieval
