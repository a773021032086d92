#pragma once
// The Model Context Protocol as this server speaks it: the revisions it accepts, the keys of
// the per-request `_meta` envelope, and the JSON-RPC error codes it answers with.

#include <array>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>

#include <nlohmann/json.hpp>

namespace orvane_kestrix::mcp {

// Ordered, so that what this server writes keeps the order in which it was built.
using Json = nlohmann::ordered_json;

// The stateless revision: no initialize; version and client capabilities in every request.
inline constexpr std::string_view kModernVersion = "2026-07-28";
// The revisions negotiated with `initialize`, newest first; the first is offered to a client
// that asks for one this server does not know.
inline constexpr std::array<std::string_view, 4> kLegacyVersions = {"2025-11-25", "2025-06-18", "2025-03-26",
                                                                     "2024-11-05"};

inline constexpr std::string_view kProtocolVersionKey = "io.modelcontextprotocol/protocolVersion";
inline constexpr std::string_view kClientCapabilitiesKey = "io.modelcontextprotocol/clientCapabilities";
inline constexpr std::string_view kServerInfoKey = "io.modelcontextprotocol/serverInfo";

// JSON-RPC and MCP error codes.
namespace error_code {
inline constexpr int parse_error = -32700;
inline constexpr int invalid_request = -32600;
inline constexpr int method_not_found = -32601;
inline constexpr int invalid_params = -32602;
inline constexpr int internal_error = -32603;
// A standard HTTP header disagrees with the body (Mcp-Method, Mcp-Name, MCP-Protocol-Version).
inline constexpr int header_mismatch = -32020;
// The request names a protocol version this server does not speak.
inline constexpr int unsupported_protocol_version = -32022;
}  // namespace error_code

// Every version this server answers, the stateless one first.
Json supported_versions();
bool is_legacy_version(std::string_view version);
bool is_supported_version(std::string_view version);

// Whether a JSON value can be a request id (or a progress token): a string or an integer.
bool is_request_id(const Json& id);

// A request that gets a JSON-RPC error instead of a result.
class ProtocolError : public std::runtime_error {
public:
    ProtocolError(int code, const std::string& message, std::optional<Json> data = std::nullopt)
        : std::runtime_error(message), code_(code), data_(std::move(data)) {}
    int code() const { return code_; }
    const std::optional<Json>& data() const { return data_; }

private:
    int code_;
    std::optional<Json> data_;
};

// A JSON-RPC error response; `id` is null when the request's id could not be read.
Json error_response(const Json& id, int code, std::string_view message, const std::optional<Json>& data = std::nullopt);

}  // namespace orvane_kestrix::mcp
