#pragma once
// The MCP server without its transport: takes one JSON-RPC message and gives the response (or
// nothing, for a notification). It speaks both protocol eras:
// - 2026-07-28, stateless: every request names the version and the client's capabilities in
//   params._meta; `server/discover` says what the server offers; results carry
//   `resultType: "complete"` and the server's identity in `_meta`;
// - 2025-11-25 and earlier: `initialize` negotiates the version once, then requests follow.
// Malformed messages get the JSON-RPC error they deserve and the server goes on.
//
// handle() may be called from several threads at once when the context is stateless (HTTP);
// a stateful transport (stdio) calls it from one thread.

#include <atomic>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

#include "orvane_kestrix/mcp/protocol.hpp"
#include "orvane_kestrix/service/workspace.hpp"

namespace orvane_kestrix::mcp {

struct ServerInfo {
    std::string name = "kestrix";
    std::string version;
};

// What the transport knows of a message beyond its body.
struct RequestContext {
    // Streamable HTTP keeps no session: a legacy request is served without initialize first.
    bool stateless = false;
    // The protocol version the transport names beside the body (HTTP's MCP-Protocol-Version);
    // the stateless version there makes the request a 2026-07-28 one whatever its body says.
    std::optional<std::string> transport_version;
    // Sends a notification to the client while the request runs (progress); may be empty.
    std::function<void(const Json&)> notify;
};

// The protocol version a request names in params._meta, if any (the mark of a 2026-07-28
// request).
std::optional<std::string> meta_protocol_version(const Json& message);

class McpServer {
public:
    McpServer(service::Workspace& workspace, ServerInfo info);

    // One message as text: a parse error is answered like any other error.
    std::optional<Json> handle_text(std::string_view text, const RequestContext& context);
    std::optional<Json> handle(const Json& message, const RequestContext& context);

private:
    Json dispatch_modern(const std::string& method, const Json& params, const RequestContext& context);
    Json dispatch_legacy(const std::string& method, const Json& params, const RequestContext& context);
    Json initialize(const Json& params);
    Json discover() const;
    Json list_tools() const;
    Json call_tool(const Json& params, const RequestContext& context);

    service::Workspace& workspace_;
    ServerInfo info_;
    std::atomic<bool> initialized_{false};
};

}  // namespace orvane_kestrix::mcp
