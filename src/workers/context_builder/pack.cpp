#include "orvane_kestrix/workers/context_builder/pack.hpp"

#include <charconv>

#include "orvane_kestrix/text/json_string.hpp"
#include "orvane_kestrix/workers/context_builder/token_estimate.hpp"

namespace orvane_kestrix {

namespace {

template <typename Text>
OrderedJson optional_text(const std::optional<Text>& value) {
    return value ? OrderedJson(*value) : OrderedJson(nullptr);
}

// A value of a row as the JSON writer takes it.
OrderedJson json_value(std::string_view text) { return OrderedJson(text); }
OrderedJson json_value(std::int64_t number) { return OrderedJson(number); }
OrderedJson json_value(const std::optional<std::string_view>& text) { return optional_text(text); }

// A value of a row as compact JSON text.
void append_json(std::string& out, std::string_view text) { text::append_json_string(out, text); }

void append_json(std::string& out, std::int64_t number) {
    char digits[24];
    out.append(digits, std::to_chars(digits, digits + sizeof digits, number).ptr);
}

void append_json(std::string& out, const std::optional<std::string_view>& text) {
    if (text) {
        text::append_json_string(out, *text);
    } else {
        out += "null";
    }
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

std::int64_t SymbolRowHead::estimated_tokens() const {
    std::string text;
    text.reserve(64 + fqn.size() + name.size() + kind.size() + file.size() + (signature ? signature->size() : 0));
    text += '{';
    write_members([&](std::string_view key, const auto& value) {
        if (text.size() > 1) text += ',';
        text::append_json_string(text, key);
        text += ':';
        append_json(text, value);
    });
    text += '}';
    return estimate_tokens(text);
}

SymbolRowHead SymbolRow::head() const {
    return {fqn, name, kind, file, line, signature ? std::optional<std::string_view>(*signature) : std::nullopt};
}

OrderedJson SymbolRow::to_json() const {
    OrderedJson out = OrderedJson::object();
    head().write_members([&](std::string_view key, const auto& value) { out[std::string(key)] = json_value(value); });
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
