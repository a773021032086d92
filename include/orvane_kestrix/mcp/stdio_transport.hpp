#pragma once
// MCP over standard input and output: one JSON-RPC message per line each way. Only protocol
// messages are written to `out`. One thread reads and parses ahead while another answers in
// order, so that a notifications/cancelled can drop a request that is still waiting (or the
// answer of one that is running). Returns at the end of input, once what was read is answered.

#include <cstddef>
#include <istream>
#include <ostream>

#include "orvane_kestrix/mcp/server.hpp"

namespace orvane_kestrix::mcp {

// Longer lines are answered with a parse error instead of being parsed.
inline constexpr std::size_t kMaxMessageBytes = 64 * 1024 * 1024;

void serve_stdio(McpServer& server, std::istream& in, std::ostream& out);

}  // namespace orvane_kestrix::mcp
