#pragma once
// The context pack and its rows: what one build hands back to the caller.

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <nlohmann/json.hpp>

namespace orvane_kestrix {

using OrderedJson = nlohmann::ordered_json;

// One parameter parsed from a docstring.
struct ParameterRow {
    std::string name{};
    std::string description{};
    std::optional<std::string> type{};  // only when the docstring states one (may be empty)

    bool operator==(const ParameterRow&) const = default;
};

// Another class, function or method of the same file.
struct RelatedRow {
    std::string fqn{};
    std::string kind{};

    bool operator==(const RelatedRow&) const = default;
};

// A test file listed for a source file of the pack.
struct TestRow {
    std::string file{};        // the test file's path
    std::string for_source{};  // written as "for"

    bool operator==(const TestRow&) const = default;
};

// The members a symbol row begins with, in their order: what the index knows of a symbol
// apart from its docstring. The index stores the estimated tokens of these members per symbol
// (Symbol::token_count()), so the row and that count are written from this one list.
struct SymbolRowHead {
    std::string_view fqn{};
    std::string_view name{};
    std::string_view kind{};
    std::string_view file{};
    std::int64_t line = 0;
    std::optional<std::string_view> signature{};  // written as null when absent

    // Calls write(key, value) for each member, in row order.
    template <typename Write>
    void write_members(Write&& write) const {
        write("fqn", fqn);
        write("name", name);
        write("kind", kind);
        write("file", file);
        write("line", line);
        write("signature", signature);
    }

    // estimate_tokens of these members as compact JSON text, as the pack's JSON writer prints
    // them (the strings must be valid UTF-8).
    std::int64_t estimated_tokens() const;
};

// One packed symbol. Optional members are written only when present (and non-empty);
// `signature` and `docstring` are always written, as null when absent.
struct SymbolRow {
    std::string fqn{};
    std::string name{};
    std::string kind{};
    std::string file{};
    std::int64_t line = 0;
    std::optional<std::string> signature{};
    std::optional<std::string> docstring{};
    bool docstring_truncated = false;
    std::optional<std::vector<ParameterRow>> parameters{};
    std::optional<std::vector<RelatedRow>> related{};
    std::optional<std::string> usage_example{};
    bool has_tests = false;  // written only as true
    std::optional<std::string> snippet{};

    SymbolRowHead head() const;
    OrderedJson to_json() const;
};

OrderedJson to_json(const ParameterRow& row);
OrderedJson to_json(const RelatedRow& row);
OrderedJson to_json(const TestRow& row);

struct ContextPack {
    std::vector<SymbolRow> symbols{};
    std::vector<std::string> files{};
    std::vector<TestRow> tests{};
    std::vector<std::string> recommendations{};
    std::vector<std::string> notes{};
    std::int64_t tokens_used = 0;
    bool indexing_in_progress = false;
    std::int64_t progress = 100;

    // The pack as a JSON object: "symbols", "files", "tests", "recommendations", "notes"
    // (only when there are notes), "tokens_used", "indexing_in_progress", "progress".
    OrderedJson to_dict() const;
};

}  // namespace orvane_kestrix
