#include "orvane_kestrix/mcp/context_tool.hpp"

#include <algorithm>
#include <cmath>
#include <set>
#include <string>
#include <vector>

#include "orvane_kestrix/service/errors.hpp"

namespace orvane_kestrix::mcp {

namespace {

Json string_array_schema(std::string_view description) {
    return Json{{"type", "array"}, {"items", {{"type", "string"}}}, {"description", std::string(description)}};
}

Json input_schema() {
    Json properties = Json::object();
    properties["action"] = {{"type", "string"},
                            {"enum", {"task"}},
                            {"default", "task"},
                            {"description", "What to do. \"task\": build the context pack of a coding task."}};
    properties["task"] = {
        {"type", "string"},
        {"minLength", 1},
        {"description",
         "The coding task in plain words, as you would tell a colleague: what to fix, add or explain. Naming the "
         "functions, classes or files involved (e.g. \"Fix rounding in total_price\") finds them first."}};
    properties["token_budget"] = {
        {"type", "integer"},
        {"minimum", 1},
        {"maximum", kMaxTokenBudget},
        {"default", 800},
        {"description", "How many tokens the pack may spend (default 800). Values above " +
                            std::to_string(kMaxTokenBudget) + " are capped at " + std::to_string(kMaxTokenBudget) +
                            ", so that the whole result stays under " + std::to_string(kResultTokenLimit) +
                            " tokens."}};
    properties["component"] = {
        {"type", "string"},
        {"description",
         "Keep to the files of one component: a directory with a package manifest, named by its path in the "
         "repository (e.g. \"web\" or \"services/api\"). An unknown name is an error that says so."}};
    properties["include_snippets"] = {
        {"type", "boolean"},
        {"default", false},
        {"description", "Add the source code of the packed symbols (the first lines of each, within the budget)."}};
    properties["prefer_kinds"] = string_array_schema(
        "Symbol kinds to favour, e.g. [\"class\", \"function\"]. Kinds: class, interface, struct, trait, enum, "
        "function, method, module, namespace, type, variable, constant, field, property.");
    properties["source_only"] = {
        {"type", "boolean"},
        {"default", true},
        {"description", "Search source code only (default). Set false to search documentation and data files "
                        "(Markdown sections, JSON, YAML, TOML keys) too."}};
    properties["wide_match"] = {
        {"type", "boolean"},
        {"default", false},
        {"description", "Match the task's words anywhere inside symbol names instead of whole names only: finds "
                        "more, ranks less sharply."}};
    properties["deep_fqns"] = string_array_schema(
        "Fully qualified names of symbols (as a previous pack gave them in \"fqn\") whose snippets may run to 200 "
        "lines instead of 50: for logic you need to read whole. Use with include_snippets.");
    return Json{{"type", "object"}, {"properties", std::move(properties)}, {"required", {"task"}},
                {"additionalProperties", false}};
}

Json output_schema() {
    const Json text = {{"type", "string"}};
    // anyOf rather than a list of types: clients that map schemas onto one type per value
    // (function-calling dialects) keep it.
    const Json nullable_text = {{"anyOf", {{{"type", "string"}}, {{"type", "null"}}}}};
    Json row_properties = Json::object();
    row_properties["fqn"] = text;
    row_properties["name"] = text;
    row_properties["kind"] = text;
    row_properties["file"] = text;
    row_properties["line"] = {{"type", "integer"}};
    row_properties["signature"] = nullable_text;
    row_properties["docstring"] = nullable_text;
    row_properties["docstring_truncated"] = {{"type", "boolean"}};
    row_properties["parameters"] = {
        {"type", "array"},
        {"items",
         {{"type", "object"},
          {"properties", {{"name", text}, {"description", text}, {"type", text}}},
          {"required", {"name", "description"}}}}};
    row_properties["related"] = {
        {"type", "array"},
        {"items", {{"type", "object"}, {"properties", {{"fqn", text}, {"kind", text}}}, {"required", {"fqn", "kind"}}}}};
    row_properties["usage_example"] = text;
    row_properties["has_tests"] = {{"type", "boolean"}};
    row_properties["snippet"] = text;
    const Json symbol_row = {{"type", "object"},
                             {"properties", std::move(row_properties)},
                             {"required", {"fqn", "name", "kind", "file", "line", "signature", "docstring"}}};
    const Json test_row = {
        {"type", "object"}, {"properties", {{"file", text}, {"for", text}}}, {"required", {"file", "for"}}};

    Json properties = Json::object();
    properties["symbols"] = {{"type", "array"},
                             {"items", symbol_row},
                             {"description", "The packed code symbols, most relevant first."}};
    properties["files"] = {{"type", "array"}, {"items", text}, {"description", "The files of the packed symbols."}};
    properties["tests"] = {{"type", "array"}, {"items", test_row}, {"description", "Test files and the file each covers."}};
    properties["recommendations"] = {{"type", "array"}, {"items", text}};
    properties["notes"] = {{"type", "array"}, {"items", text}, {"description", "What the pack could not do."}};
    properties["tokens_used"] = {{"type", "integer"}};
    properties["indexing_in_progress"] = {
        {"type", "boolean"}, {"description", "True while the index is being built or refreshed: ask again later for more."}};
    properties["progress"] = {{"type", "integer"}, {"description", "Indexing progress in percent."}};
    return Json{{"type", "object"},
                {"properties", std::move(properties)},
                {"required", {"symbols", "files", "tests", "recommendations", "tokens_used", "indexing_in_progress",
                              "progress"}}};
}

const Json& member_or_null(const Json& object, const char* key) {
    static const Json null_value;
    const auto it = object.find(key);
    return it == object.end() ? null_value : *it;
}

std::optional<bool> boolean_argument(const Json& arguments, const char* key) {
    const Json& value = member_or_null(arguments, key);
    if (value.is_null()) return std::nullopt;
    if (!value.is_boolean()) throw ToolArgumentError(std::string(key) + " must be true or false");
    return value.get<bool>();
}

std::optional<std::vector<std::string>> strings_argument(const Json& arguments, const char* key) {
    const Json& value = member_or_null(arguments, key);
    if (value.is_null()) return std::nullopt;
    const std::string problem = std::string(key) + " must be a list of strings";
    if (!value.is_array()) throw ToolArgumentError(problem);
    std::vector<std::string> out;
    for (const Json& item : value) {
        if (!item.is_string()) throw ToolArgumentError(problem);
        out.push_back(item.get<std::string>());
    }
    return out;
}

std::int64_t budget_argument(const Json& arguments) {
    const Json& value = member_or_null(arguments, "token_budget");
    if (value.is_null()) return 800;
    const std::string problem = "token_budget must be a whole number of tokens, 1 or more";
    double number = 0;
    if (value.is_number_unsigned()) {
        return static_cast<std::int64_t>(std::min<std::uint64_t>(value.get<std::uint64_t>(), kMaxTokenBudget));
    } else if (value.is_number_integer()) {
        number = static_cast<double>(value.get<std::int64_t>());
    } else if (value.is_number_float()) {
        number = value.get<double>();
    } else {
        throw ToolArgumentError(problem);
    }
    if (!std::isfinite(number) || number != std::floor(number) || number < 1) throw ToolArgumentError(problem);
    return static_cast<std::int64_t>(std::min<double>(number, kMaxTokenBudget));
}

bool is_blank(const std::string& text) {
    return std::all_of(text.begin(), text.end(), [](unsigned char c) { return c == ' ' || (c >= '\t' && c <= '\r'); });
}

std::string compact(const Json& value) { return value.dump(-1, ' ', false, Json::error_handler_t::replace); }

}  // namespace

Json tool_error_result(const std::string& message) {
    return Json{{"content", Json::array({Json{{"type", "text"}, {"text", message}}})}, {"isError", true}};
}

Json context_tool_definition() {
    Json tool = Json::object();
    tool["name"] = std::string(kContextToolName);
    tool["title"] = "Code context for a task";
    tool["description"] =
        "Find the code a coding task is about. Give the task in plain words (action \"task\"); get back a "
        "token-budgeted context pack: the most relevant functions, classes and methods of this repository, best "
        "first, each with file, line, signature and docstring, the first ones with parameters, related symbols, a "
        "usage example and whether tests cover them; optional source snippets; the files involved; covering tests; "
        "recommendations and notes. Call it before reading files to know where to look.";
    tool["inputSchema"] = input_schema();
    tool["outputSchema"] = output_schema();
    tool["annotations"] = {{"readOnlyHint", true}, {"openWorldHint", false}};
    return tool;
}

PackRequest context_request(const Json& arguments) {
    if (!arguments.is_object()) throw ToolArgumentError("The arguments must be an object");
    static const std::set<std::string> known = {"action",      "task",        "token_budget", "component", "include_snippets",
                                                "prefer_kinds", "source_only", "wide_match",   "deep_fqns"};
    for (const auto& [key, value] : arguments.items()) {
        if (known.count(key) == 0) throw ToolArgumentError("Unknown argument: " + key);
    }
    const Json& action = member_or_null(arguments, "action");
    if (!action.is_null() && !(action.is_string() && action.get<std::string>() == "task")) {
        throw ToolArgumentError("Unknown action: " + (action.is_string() ? action.get<std::string>() : compact(action)) +
                                " (the tool offers: task)");
    }
    const Json& task = member_or_null(arguments, "task");
    if (task.is_null()) throw ToolArgumentError("The task is missing: describe the coding task in plain words");
    if (!task.is_string()) throw ToolArgumentError("task must be a string");
    PackRequest request;
    request.task = task.get<std::string>();
    if (is_blank(request.task)) throw ToolArgumentError("The task is empty: describe the coding task in plain words");
    request.token_budget = budget_argument(arguments);
    const Json& component = member_or_null(arguments, "component");
    if (!component.is_null()) {
        if (!component.is_string()) throw ToolArgumentError("component must be a string");
        if (!component.get<std::string>().empty()) request.component_filter = component.get<std::string>();
    }
    request.include_snippets = boolean_argument(arguments, "include_snippets").value_or(false);
    request.prefer_kinds = strings_argument(arguments, "prefer_kinds");
    if (request.prefer_kinds && request.prefer_kinds->empty()) request.prefer_kinds.reset();
    request.source_only = boolean_argument(arguments, "source_only").value_or(true);
    request.wide_match = boolean_argument(arguments, "wide_match").value_or(false);
    if (auto deep = strings_argument(arguments, "deep_fqns"); deep && !deep->empty()) {
        request.deep_fqns = std::set<std::string>(deep->begin(), deep->end());
    }
    return request;
}

Json call_context_tool(service::Workspace& workspace, const Json& arguments) {
    PackRequest request;
    try {
        request = context_request(arguments.is_null() ? Json::object() : arguments);
    } catch (const ToolArgumentError& e) {
        return tool_error_result(e.what());
    }
    for (;;) {
        ContextPack pack;
        try {
            pack = workspace.pack(request);
        } catch (const service::UnknownComponentError& e) {
            return tool_error_result(e.what());
        }
        Json structured = pack.to_dict();
        std::string text = compact(structured);
        // Both copies of the pack, at about four characters a token; snippets can outgrow the
        // packing estimate, so a result over the limit is packed again on a smaller budget.
        const std::int64_t result_tokens = static_cast<std::int64_t>(text.size()) * 2 / 4;
        if (result_tokens > kResultTokenLimit && request.token_budget > 1) {
            request.token_budget = std::max<std::int64_t>(1, request.token_budget * kResultTokenLimit * 9 / 10 / result_tokens);
            continue;
        }
        Json result = Json::object();
        result["content"] = Json::array({Json{{"type", "text"}, {"text", std::move(text)}}});
        result["structuredContent"] = std::move(structured);
        result["isError"] = false;
        return result;
    }
}

}  // namespace orvane_kestrix::mcp
