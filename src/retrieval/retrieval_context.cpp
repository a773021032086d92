#include "orvane_kestrix/retrieval/retrieval_signal.hpp"

#include "orvane_kestrix/storage/repository_fan_in.hpp"

namespace orvane_kestrix::retrieval {

bool is_minor_symbol(std::string_view kind, std::int64_t start_line, std::int64_t end_line) {
    if (kind == "property") return end_line - start_line < 2;
    return kind == "variable" || kind == "constant" || kind == "field";
}

void RetrievalContext::load(const std::vector<std::int64_t>& ids) {
    std::vector<std::int64_t> missing;
    for (std::int64_t id : ids) {
        if (!symbols_.contains(id)) missing.push_back(id);
    }
    if (missing.empty()) return;
    storage::Statement q(db,
                         "SELECT s.id, s.file_id, s.name, s.fqn, s.kind, s.start_line, s.end_line, s.production_fan_in, "
                         "s.token_count + CASE WHEN s.docstring IS NULL OR s.docstring = '' THEN 0 "
                         "ELSE max(1, length(s.docstring) / 4) END "
                         "FROM json_each(?1) AS j CROSS JOIN symbols AS s ON s.id = j.value");
    const std::string list = storage::json_array(missing);
    q.bind_static(1, list);
    while (q.step()) {
        CandidateSymbol symbol;
        symbol.id = q.column_int64(0);
        symbol.file_id = q.column_int64(1);
        symbol.name = q.column_string(2);
        symbol.fqn = q.column_string(3);
        symbol.kind = q.column_string(4);
        symbol.start_line = q.column_int64(5);
        symbol.end_line = q.column_int64(6);
        symbol.fan_in = q.column_int64(7);
        symbol.cost = q.column_int64(8);
        symbols_.emplace(symbol.id, std::move(symbol));
    }
}

const CandidateSymbol* RetrievalContext::find(std::int64_t id) const {
    auto it = symbols_.find(id);
    return it == symbols_.end() ? nullptr : &it->second;
}

}  // namespace orvane_kestrix::retrieval
