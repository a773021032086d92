#include "orvane_kestrix/mcp/http_transport.hpp"

#include <httplib.h>

#include <charconv>
#include <stdexcept>

namespace orvane_kestrix::mcp {

namespace {

constexpr const char* kJsonType = "application/json";
constexpr const char* kEventStreamType = "text/event-stream";

std::string_view trimmed(std::string_view text) {
    const auto first = text.find_first_not_of(" \t");
    if (first == std::string_view::npos) return {};
    const auto last = text.find_last_not_of(" \t");
    return text.substr(first, last - first + 1);
}

std::optional<std::string> header(const httplib::Request& request, const char* name) {
    // httplib compares header names without regard to case.
    if (!request.has_header(name)) return std::nullopt;
    return std::string(trimmed(request.get_header_value(name)));
}

// The host of a Host header value or of an origin ("scheme://host:port"), without the port.
std::string host_of(std::string_view value) {
    if (const auto scheme = value.find("://"); scheme != std::string_view::npos) value.remove_prefix(scheme + 3);
    if (const auto slash = value.find('/'); slash != std::string_view::npos) value = value.substr(0, slash);
    if (value.starts_with('[')) {
        const auto close = value.find(']');
        return std::string(value.substr(1, close == std::string_view::npos ? std::string_view::npos : close - 1));
    }
    return std::string(value.substr(0, value.find(':')));
}

std::string dump(const Json& message) { return message.dump(-1, ' ', false, Json::error_handler_t::replace); }

// The HTTP status of a JSON-RPC error: malformed messages are bad requests; a 2026-07-28
// request for an unknown method is not found, one that fails validation a bad request.
int status_of(const Json& response, bool modern) {
    if (!response.contains("error")) return 200;
    const int code = response["error"].value("code", 0);
    if (code == error_code::parse_error || code == error_code::invalid_request) return 400;
    if (!modern) return 200;
    if (code == error_code::method_not_found) return 404;
    if (code == error_code::invalid_params || code == error_code::header_mismatch ||
        code == error_code::unsupported_protocol_version || code == -32021) {
        return 400;
    }
    return 200;
}

void send_json(httplib::Response& response, int status, const Json& body) {
    response.status = status;
    response.set_content(dump(body), kJsonType);
}

// The value a 2026-07-28 request must repeat in Mcp-Name: the tool or prompt name, or the
// resource's URI.
std::optional<std::string> named_target(const std::string& method, const Json& params) {
    if (!params.is_object()) return std::nullopt;
    const char* key = method == "tools/call" || method == "prompts/get" ? "name" : method == "resources/read" ? "uri" : nullptr;
    if (key == nullptr) return std::nullopt;
    const auto it = params.find(key);
    if (it == params.end() || !it->is_string()) return std::nullopt;
    return it->get<std::string>();
}

class HttpSession {
public:
    HttpSession(McpServer& server, const HttpEndpoint& endpoint) : server_(server), endpoint_(endpoint) {}

    void post(const httplib::Request& request, httplib::Response& response) {
        if (!origin_allowed(request)) {
            send_json(response, 403, error_response(nullptr, error_code::invalid_request, "Forbidden: the request's Origin or Host is not this machine"));
            return;
        }
        const std::string content_type = request.get_header_value("Content-Type");
        if (content_type.find(kJsonType) == std::string::npos) {
            send_json(response, 415, error_response(nullptr, error_code::invalid_request, "Unsupported media type: POST application/json"));
            return;
        }
        Json message;
        try {
            message = Json::parse(request.body);
        } catch (const Json::parse_error&) {
            send_json(response, 400, error_response(nullptr, error_code::parse_error, "Parse error: not a JSON text"));
            return;
        }
        RequestContext context;
        context.stateless = true;
        context.transport_version = header(request, "MCP-Protocol-Version");
        const bool is_request = message.is_object() && message.contains("method") && message.contains("id");
        if (!is_request) {
            // Notifications and responses are accepted without an answer; malformed ones are not.
            const std::optional<Json> answer = server_.handle(message, context);
            if (answer) {
                send_json(response, 400, *answer);
            } else {
                response.status = 202;
            }
            return;
        }
        const std::optional<std::string> meta_version = meta_protocol_version(message);
        const bool modern = meta_version || context.transport_version == kModernVersion ||
                            message.value("method", Json()) == "server/discover";
        if (const std::optional<Json> refusal = check_headers(request, message, context.transport_version, meta_version, modern)) {
            send_json(response, 400, *refusal);
            return;
        }
        if (wants_event_stream(request, message)) {
            stream(message, context, response);
            return;
        }
        const std::optional<Json> answer = server_.handle(message, context);
        if (!answer) {
            response.status = 202;
            return;
        }
        send_json(response, status_of(*answer, modern), *answer);
    }

private:
    bool origin_allowed(const httplib::Request& request) const {
        if (const std::optional<std::string> origin = header(request, "Origin")) {
            const std::string host = host_of(*origin);
            if (!is_loopback_host(host) && host != endpoint_.host) return false;
        }
        if (is_loopback_host(endpoint_.host)) {
            const std::optional<std::string> host = header(request, "Host");
            if (host && !is_loopback_host(host_of(*host))) return false;
        }
        return true;
    }

    // The standard headers of a request, checked against its body; the error to answer with,
    // if any.
    static std::optional<Json> check_headers(const httplib::Request& request, const Json& message,
                                             const std::optional<std::string>& header_version,
                                             const std::optional<std::string>& meta_version, bool modern) {
        const Json& id = message["id"];
        auto mismatch = [&](const std::string& what) {
            return error_response(id, error_code::header_mismatch, "Header mismatch: " + what);
        };
        if (header_version && !is_supported_version(*header_version) && header_version != meta_version) {
            return error_response(id, error_code::unsupported_protocol_version, "Unsupported protocol version: " + *header_version,
                                  Json{{"supported", supported_versions()}, {"requested", *header_version}});
        }
        if (!modern) return std::nullopt;
        if (meta_version && header_version != meta_version) {
            return mismatch("MCP-Protocol-Version must repeat params._meta's protocol version " + *meta_version);
        }
        const std::string method = message["method"].is_string() ? message["method"].get<std::string>() : std::string();
        const std::optional<std::string> method_header = header(request, "Mcp-Method");
        if (method_header != method) return mismatch("Mcp-Method must repeat the method " + method);
        if (const std::optional<std::string> target = named_target(method, message.value("params", Json()))) {
            if (header(request, "Mcp-Name") != target) return mismatch("Mcp-Name must repeat " + *target);
        }
        return std::nullopt;
    }

    static bool wants_event_stream(const httplib::Request& request, const Json& message) {
        if (request.get_header_value("Accept").find(kEventStreamType) == std::string::npos) return false;
        if (message.value("method", Json()) != "tools/call") return false;
        const Json params = message.value("params", Json());
        return params.is_object() && params.contains("_meta") && params["_meta"].is_object() &&
               params["_meta"].contains("progressToken");
    }

    // Answers as server-sent events: the progress notifications while the pack is built, then
    // the response.
    void stream(const Json& message, RequestContext context, httplib::Response& response) {
        response.status = 200;
        response.set_header("Cache-Control", "no-cache");
        response.set_chunked_content_provider(kEventStreamType, [this, message, context](std::size_t, httplib::DataSink& sink) mutable {
            auto send = [&sink](const Json& event) {
                const std::string text = "event: message\ndata: " + dump(event) + "\n\n";
                return sink.write(text.data(), text.size());
            };
            context.notify = [&send](const Json& notification) { send(notification); };
            if (const std::optional<Json> answer = server_.handle(message, context)) send(*answer);
            sink.done();
            return true;
        });
    }

    McpServer& server_;
    HttpEndpoint endpoint_;
};

}  // namespace

bool is_loopback_host(std::string_view host) {
    if (host == "localhost" || host == "::1") return true;
    // An IPv4 address in 127.0.0.0/8, not a name that merely starts like one (127.evil.example).
    return host.starts_with("127.") && host.find_first_not_of("0123456789.") == std::string_view::npos;
}

HttpEndpoint parse_http_endpoint(std::string_view text) {
    HttpEndpoint endpoint;
    std::string_view port = text;
    if (const auto colon = text.rfind(':'); colon != std::string_view::npos) {
        std::string_view host = text.substr(0, colon);
        if (host.starts_with('[') && host.ends_with(']')) host = host.substr(1, host.size() - 2);
        if (host.empty()) throw std::invalid_argument("--http " + std::string(text) + ": no host before the port");
        endpoint.host = std::string(host);
        port = text.substr(colon + 1);
    }
    const auto [end, error] = std::from_chars(port.data(), port.data() + port.size(), endpoint.port);
    if (error != std::errc() || end != port.data() + port.size() || endpoint.port < 0 || endpoint.port > 65535) {
        throw std::invalid_argument("--http " + std::string(text) + ": the port must be a number from 0 to 65535");
    }
    return endpoint;
}

void serve_http(McpServer& server, const HttpEndpoint& endpoint, const std::function<void(const std::string&)>& log) {
    httplib::Server http;
    HttpSession session(server, endpoint);
    http.Post("/mcp", [&session](const httplib::Request& request, httplib::Response& response) { session.post(request, response); });
    auto not_allowed = [](const httplib::Request&, httplib::Response& response) {
        response.status = 405;
        response.set_header("Allow", "POST");
    };
    http.Get("/mcp", not_allowed);
    http.Delete("/mcp", not_allowed);
    http.set_payload_max_length(64 * 1024 * 1024);
    int port = endpoint.port;
    if (port == 0) {
        port = http.bind_to_any_port(endpoint.host);
    } else if (!http.bind_to_port(endpoint.host, port)) {
        port = -1;
    }
    if (port < 0) throw std::runtime_error("cannot listen on " + endpoint.host + ":" + std::to_string(endpoint.port));
    const std::string shown_host = endpoint.host.find(':') != std::string::npos ? "[" + endpoint.host + "]" : endpoint.host;
    if (log) log("listening on http://" + shown_host + ":" + std::to_string(port) + "/mcp");
    http.listen_after_bind();
}

}  // namespace orvane_kestrix::mcp
