#include <algorithm>
#include <unordered_set>

#include "orvane_kestrix/retrieval/signals.hpp"
#include "orvane_kestrix/storage/repository_fan_in.hpp"

namespace orvane_kestrix::retrieval {

namespace {
constexpr std::size_t kSeeds = 20;
// Edges read per direction: a seed that half the code calls spreads thinly anyway.
constexpr int kMaxEdges = 4000;
}  // namespace

SignalScores ReferenceGraphSignal::score(const RetrievalQuery&, RetrievalContext& context) {
    SignalScores out;
    std::vector<std::pair<double, std::int64_t>> ranked;
    for (const auto& [id, score] : context.fused) ranked.emplace_back(score, id);
    if (ranked.empty()) return out;
    std::sort(ranked.begin(), ranked.end(), [](const auto& a, const auto& b) { return a.first > b.first || (a.first == b.first && a.second < b.second); });
    if (ranked.size() > kSeeds) ranked.resize(kSeeds);

    std::unordered_map<std::int64_t, double> seed_score;
    std::vector<std::int64_t> seeds;
    std::unordered_set<std::int64_t> seed_files;
    for (const auto& [score, id] : ranked) {
        seed_score[id] = score;
        seeds.push_back(id);
        if (const CandidateSymbol* symbol = context.find(id)) seed_files.insert(symbol->file_id);
    }
    const std::string seed_list = storage::json_array(seeds);
    const std::string file_list = storage::json_array(std::vector<std::int64_t>(seed_files.begin(), seed_files.end()));

    // Neighbours of each seed: its callers (whoever refers to it) and its callees.
    std::unordered_map<std::int64_t, std::unordered_set<std::int64_t>> neighbours;
    storage::Statement callers(context.db,
                               "SELECT rt.symbol_id, r.caller_id FROM json_each(?1) AS j "
                               "CROSS JOIN ref_targets AS rt ON rt.symbol_id = j.value "
                               "CROSS JOIN refs AS r ON r.id = rt.ref_id WHERE r.caller_id IS NOT NULL LIMIT ?2");
    callers.bind_static(1, seed_list).bind(2, kMaxEdges);
    while (callers.step()) neighbours[callers.column_int64(0)].insert(callers.column_int64(1));
    storage::Statement callees(context.db,
                               "SELECT r.caller_id, rt.symbol_id FROM json_each(?1) AS j "
                               "CROSS JOIN refs AS r ON r.file_id = j.value "
                               "CROSS JOIN ref_targets AS rt ON rt.ref_id = r.id "
                               "WHERE r.caller_id IN (SELECT value FROM json_each(?2)) LIMIT ?3");
    callees.bind_static(1, file_list).bind_static(2, seed_list).bind(3, kMaxEdges);
    while (callees.step()) neighbours[callees.column_int64(0)].insert(callees.column_int64(1));

    // One step of a personalised PageRank: each seed hands its score out evenly. The restart
    // distribution is the seeds' scores squared, so that the few strong hits decide where the
    // walk goes rather than the many middling ones.
    std::unordered_map<std::int64_t, double> spread;
    for (const auto& [seed, around] : neighbours) {
        const double share = seed_score[seed] * seed_score[seed] / static_cast<double>(around.size());
        for (std::int64_t neighbour : around) {
            if (neighbour != seed) spread[neighbour] += share;
        }
    }
    double best = 0;
    for (const auto& [id, value] : spread) best = std::max(best, value);
    if (best <= 0) return out;
    for (const auto& [id, value] : spread) out.symbols[id] = value / best;
    return out;
}

}  // namespace orvane_kestrix::retrieval
