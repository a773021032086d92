#include "orvane_kestrix/mcp/server.hpp"

#include <exception>
#include <utility>

#include "orvane_kestrix/mcp/context_tool.hpp"
#include "orvane_kestrix/service/errors.hpp"

namespace orvane_kestrix::mcp {

namespace {

// How long a client may keep the tool list and the discovery answer: they never change while
// the server runs.
constexpr int kListTtlMs = 300000;

constexpr std::string_view kInstructions =
    "Call the `context` tool with a coding task in plain words before reading files: it answers with the code "
    "symbols of this repository that the task is about, best first, with their files, signatures, docstrings, "
    "related symbols and covering tests, within a token budget.";

const Json* find_member(const Json& object, std::string_view key) {
    if (!object.is_object()) return nullptr;
    const auto it = object.find(key);
    return it == object.end() ? nullptr : &*it;
}

// The checks every 2026-07-28 request passes before it is served.
void check_request_meta(const Json& params) {
    const Json* meta = find_member(params, "_meta");
    const std::string expected = "a " + std::string(kModernVersion) + " request names " +
                                 std::string(kProtocolVersionKey) + " and " + std::string(kClientCapabilitiesKey) +
                                 " in params._meta";
    if (meta == nullptr || !meta->is_object()) throw ProtocolError(error_code::invalid_params, "Missing _meta: " + expected);
    const Json* version = find_member(*meta, kProtocolVersionKey);
    if (version == nullptr || !version->is_string()) {
        throw ProtocolError(error_code::invalid_params, "Missing protocol version: " + expected);
    }
    const Json* capabilities = find_member(*meta, kClientCapabilitiesKey);
    if (capabilities == nullptr || !capabilities->is_object()) {
        throw ProtocolError(error_code::invalid_params, "Missing client capabilities: " + expected);
    }
    const std::string requested = version->get<std::string>();
    if (requested != kModernVersion) {
        throw ProtocolError(error_code::unsupported_protocol_version, "Unsupported protocol version: " + requested,
                            Json{{"supported", Json::array({std::string(kModernVersion)})}, {"requested", requested}});
    }
}

std::string progress_message(const service::IndexingStatus& status) {
    if (status.in_progress) return "Indexing the repository (" + std::to_string(status.progress) + "%); packing from what is indexed";
    return "Building the context pack";
}

}  // namespace

std::optional<std::string> meta_protocol_version(const Json& message) {
    const Json* params = find_member(message, "params");
    const Json* meta = params != nullptr ? find_member(*params, "_meta") : nullptr;
    const Json* version = meta != nullptr ? find_member(*meta, kProtocolVersionKey) : nullptr;
    if (version == nullptr || !version->is_string()) return std::nullopt;
    return version->get<std::string>();
}

McpServer::McpServer(service::Workspace& workspace, ServerInfo info) : workspace_(workspace), info_(std::move(info)) {}

std::optional<Json> McpServer::handle_text(std::string_view text, const RequestContext& context) {
    Json message;
    try {
        message = Json::parse(text);
    } catch (const Json::parse_error&) {
        return error_response(nullptr, error_code::parse_error, "Parse error: not a JSON text");
    }
    return handle(message, context);
}

std::optional<Json> McpServer::handle(const Json& message, const RequestContext& context) {
    if (!message.is_object()) {
        return error_response(nullptr, error_code::invalid_request,
                              message.is_array() ? "Invalid request: batches are not supported" : "Invalid request: not an object");
    }
    const Json* id = find_member(message, "id");
    if (id != nullptr && !is_request_id(*id)) {
        return error_response(nullptr, error_code::invalid_request, "Invalid request: the id must be a string or an integer");
    }
    const Json reply_id = id != nullptr ? *id : Json(nullptr);
    const Json* version = find_member(message, "jsonrpc");
    if (version == nullptr || *version != "2.0") {
        return error_response(reply_id, error_code::invalid_request, "Invalid request: jsonrpc must be \"2.0\"");
    }
    const Json* method = find_member(message, "method");
    if (method == nullptr) {
        // A response from the client: this server sends no requests, so there is nothing to match.
        if (id != nullptr && (message.contains("result") || message.contains("error"))) return std::nullopt;
        return error_response(reply_id, error_code::invalid_request, "Invalid request: no method");
    }
    if (!method->is_string()) return error_response(reply_id, error_code::invalid_request, "Invalid request: the method must be a string");
    const Json* params_member = find_member(message, "params");
    if (params_member != nullptr && !params_member->is_object()) {
        if (id == nullptr) return std::nullopt;
        return error_response(reply_id, params_member->is_array() ? error_code::invalid_params : error_code::invalid_request,
                              "Invalid params: params must be an object");
    }
    const Json params = params_member != nullptr ? *params_member : Json::object();
    const std::string name = method->get<std::string>();

    if (id == nullptr) {
        // Notifications get no answer. Cancellation is the transport's (it knows what is queued).
        if (name == "notifications/initialized") initialized_.store(true);
        return std::nullopt;
    }
    try {
        const bool modern = name == "server/discover" || meta_protocol_version(message).has_value() ||
                            context.transport_version == kModernVersion;
        Json result = modern ? dispatch_modern(name, params, context) : dispatch_legacy(name, params, context);
        return Json{{"jsonrpc", "2.0"}, {"id", reply_id}, {"result", std::move(result)}};
    } catch (const ProtocolError& e) {
        return error_response(reply_id, e.code(), e.what(), e.data());
    } catch (const std::exception& e) {
        return error_response(reply_id, error_code::internal_error, std::string("Internal error: ") + e.what());
    }
}

Json McpServer::dispatch_modern(const std::string& method, const Json& params, const RequestContext& context) {
    check_request_meta(params);
    Json result;
    if (method == "server/discover") {
        result = discover();
    } else if (method == "tools/list") {
        result = list_tools();
        result["ttlMs"] = kListTtlMs;
        result["cacheScope"] = "public";
    } else if (method == "tools/call") {
        result = call_tool(params, context);
    } else {
        throw ProtocolError(error_code::method_not_found, "Method not found: " + method);
    }
    result["resultType"] = "complete";
    result["_meta"] = {{std::string(kServerInfoKey), {{"name", info_.name}, {"version", info_.version}}}};
    return result;
}

Json McpServer::dispatch_legacy(const std::string& method, const Json& params, const RequestContext& context) {
    if (method == "initialize") return initialize(params);
    if (method == "ping") return Json::object();
    if (method != "tools/list" && method != "tools/call") {
        throw ProtocolError(error_code::method_not_found, "Method not found: " + method);
    }
    if (!context.stateless && !initialized_.load()) {
        throw ProtocolError(error_code::invalid_request,
                            "Not initialized: send initialize first, or name the protocol version " +
                                std::string(kModernVersion) + " in params._meta");
    }
    return method == "tools/list" ? list_tools() : call_tool(params, context);
}

Json McpServer::initialize(const Json& params) {
    const Json* requested = find_member(params, "protocolVersion");
    if (requested == nullptr || !requested->is_string()) {
        throw ProtocolError(error_code::invalid_params, "Invalid params: initialize needs protocolVersion");
    }
    const std::string version = requested->get<std::string>();
    Json result = Json::object();
    result["protocolVersion"] = is_legacy_version(version) ? version : std::string(kLegacyVersions.front());
    result["capabilities"] = {{"tools", {{"listChanged", false}}}};
    result["serverInfo"] = {{"name", info_.name}, {"version", info_.version}};
    result["instructions"] = std::string(kInstructions);
    // Served from here on; a client that skips notifications/initialized still gets answers.
    initialized_.store(true);
    return result;
}

Json McpServer::discover() const {
    Json result = Json::object();
    result["supportedVersions"] = supported_versions();
    result["capabilities"] = {{"tools", {{"listChanged", false}}}};
    result["instructions"] = std::string(kInstructions);
    result["ttlMs"] = kListTtlMs;
    result["cacheScope"] = "public";
    return result;
}

Json McpServer::list_tools() const { return Json{{"tools", Json::array({context_tool_definition()})}}; }

Json McpServer::call_tool(const Json& params, const RequestContext& context) {
    const Json* name = find_member(params, "name");
    if (name == nullptr || !name->is_string()) throw ProtocolError(error_code::invalid_params, "Invalid params: tools/call needs the tool's name");
    if (*name != kContextToolName) {
        throw ProtocolError(error_code::invalid_params, "Unknown tool: " + name->get<std::string>());
    }
    const Json* meta = find_member(params, "_meta");
    const Json* token = meta != nullptr ? find_member(*meta, "progressToken") : nullptr;
    const bool reports_progress = token != nullptr && is_request_id(*token) && context.notify;
    auto report = [&](int progress, const std::string& message) {
        context.notify(Json{{"jsonrpc", "2.0"},
                            {"method", "notifications/progress"},
                            {"params", {{"progressToken", *token}, {"progress", progress}, {"total", 100}, {"message", message}}}});
    };
    if (reports_progress) report(0, progress_message(workspace_.indexing_status()));
    const Json* arguments = find_member(params, "arguments");
    Json result;
    try {
        result = call_context_tool(workspace_, arguments != nullptr ? *arguments : Json::object());
    } catch (const service::ServiceError& e) {
        // A damaged or unreadable index: the model reads what to do about it.
        result = tool_error_result(e.what());
    }
    if (reports_progress) report(100, "Done");
    return result;
}

}  // namespace orvane_kestrix::mcp
