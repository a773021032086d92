#include "orvane_kestrix/retrieval/fusion.hpp"

#include <algorithm>

namespace orvane_kestrix::retrieval {

void WeightedFusion::add(std::unique_ptr<RetrievalSignal> signal, double weight) {
    entries_.push_back({std::move(signal), weight});
}

FusionOutcome WeightedFusion::run(const RetrievalQuery& query, RetrievalContext& context) {
    FusionOutcome outcome;
    std::vector<std::pair<double, SignalScores>> done;
    auto refuse = [&] {
        context.fused.clear();
        context.file_fused.clear();
        for (const auto& [weight, scores] : done) {
            for (const auto& [file, score] : scores.files) context.file_fused[file] += weight * score;
        }
        for (const auto& [id, symbol] : context.symbols()) {
            double total = 0;
            for (const auto& [weight, scores] : done) {
                double best = 0;
                if (auto it = scores.symbols.find(id); it != scores.symbols.end()) best = it->second;
                if (auto it = scores.files.find(symbol.file_id); it != scores.files.end()) best = std::max(best, kFileCarry * it->second);
                total += weight * best;
            }
            if (total > 0) context.fused[id] = total;
        }
    };
    for (Entry& entry : entries_) {
        SignalScores scores = entry.signal->score(query, context);
        if (scores.unavailable) {
            outcome.unavailable.push_back(std::string(entry.signal->name()) + ": " + *scores.unavailable);
            continue;
        }
        std::vector<std::int64_t> ids;
        ids.reserve(scores.symbols.size());
        for (const auto& [id, score] : scores.symbols) ids.push_back(id);
        context.load(ids);
        done.emplace_back(entry.weight, std::move(scores));
        refuse();
    }
    outcome.scores = context.fused;
    return outcome;
}

}  // namespace orvane_kestrix::retrieval
