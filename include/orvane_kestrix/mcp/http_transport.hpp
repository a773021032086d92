#pragma once
// MCP over Streamable HTTP: JSON-RPC messages POSTed to /mcp, answered as JSON or, for a
// tools/call that asks for progress from a client that accepts it, as a server-sent event
// stream. No sessions: every POST stands alone. 2026-07-28 requests must repeat their method,
// tool name and protocol version in the Mcp-Method, Mcp-Name and MCP-Protocol-Version headers.
// Requests whose Origin (or, on a loopback address, Host) is not this machine are refused,
// against DNS rebinding.

#include <functional>
#include <string>
#include <string_view>

#include "orvane_kestrix/mcp/server.hpp"

namespace orvane_kestrix::mcp {

struct HttpEndpoint {
    std::string host = "127.0.0.1";
    int port = 0;  // 0: any free port (announced in the log)
};

// "HOST:PORT", "[IPv6]:PORT" or "PORT" (on 127.0.0.1); throws std::invalid_argument.
HttpEndpoint parse_http_endpoint(std::string_view text);

// Whether a host name (as in a Host or Origin header, without port) is this machine's
// loopback: localhost, 127.0.0.0/8 or ::1.
bool is_loopback_host(std::string_view host);

// Serves until the process ends; throws std::runtime_error when the address cannot be bound.
// `log` receives the line naming the address it listens on.
void serve_http(McpServer& server, const HttpEndpoint& endpoint, const std::function<void(const std::string&)>& log);

}  // namespace orvane_kestrix::mcp
