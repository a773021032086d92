#include "orvane_kestrix/workers/context_builder/pack.hpp"

namespace orvane_kestrix {

namespace {

OrderedJson optional_text(const std::optional<std::string>& value) {
    return value ? OrderedJson(*value) : OrderedJson(nullptr);
}

template <typename Row>
OrderedJson array_of(const std::vector<Row>& rows) {
    OrderedJson out = OrderedJson::array();
    for (const auto& row : rows) out.push_back(to_json(row));
    return out;
}

}  // namespace

OrderedJson to_json(const ParameterRow& row) {
    OrderedJson out = OrderedJson::object();
    out["name"] = row.name;
    out["description"] = row.description;
    if (row.type) out["type"] = *row.type;
    return out;
}

OrderedJson to_json(const RelatedRow& row) {
    OrderedJson out = OrderedJson::object();
    out["fqn"] = row.fqn;
    out["kind"] = row.kind;
    return out;
}

OrderedJson to_json(const TestRow& row) {
    OrderedJson out = OrderedJson::object();
    out["file"] = row.file;
    out["for"] = row.for_source;
    return out;
}

OrderedJson SymbolRow::to_json() const {
    OrderedJson out = OrderedJson::object();
    out["fqn"] = fqn;
    out["name"] = name;
    out["kind"] = kind;
    out["file"] = file;
    out["line"] = line;
    out["signature"] = optional_text(signature);
    out["docstring"] = optional_text(docstring);
    out["docstring_truncated"] = docstring_truncated;
    if (parameters && !parameters->empty()) out["parameters"] = array_of(*parameters);
    if (related && !related->empty()) out["related"] = array_of(*related);
    if (usage_example && !usage_example->empty()) out["usage_example"] = *usage_example;
    if (has_tests) out["has_tests"] = true;
    if (snippet && !snippet->empty()) out["snippet"] = *snippet;
    return out;
}

OrderedJson ContextPack::to_dict() const {
    OrderedJson out = OrderedJson::object();
    OrderedJson rows = OrderedJson::array();
    for (const auto& row : symbols) rows.push_back(row.to_json());
    out["symbols"] = std::move(rows);
    out["files"] = files;
    out["tests"] = array_of(tests);
    out["recommendations"] = recommendations;
    if (!notes.empty()) out["notes"] = notes;
    out["tokens_used"] = tokens_used;
    out["indexing_in_progress"] = indexing_in_progress;
    out["progress"] = progress;
    return out;
}

}  // namespace orvane_kestrix
