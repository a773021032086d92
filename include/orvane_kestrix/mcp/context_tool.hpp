#pragma once
// The server's one tool, `context`: its definition (input and output schemas, written for the
// model that reads them), the translation of its arguments into a PackRequest, and its result.

#include <cstdint>
#include <stdexcept>
#include <string>
#include <string_view>

#include "orvane_kestrix/mcp/protocol.hpp"
#include "orvane_kestrix/service/workspace.hpp"

namespace orvane_kestrix::mcp {

inline constexpr std::string_view kContextToolName = "context";
// Agents commonly cut tool output at 25,000 tokens; a result holds the pack twice (as
// structured content and as text), so the pack's budget is capped well below half of that.
inline constexpr std::int64_t kResultTokenLimit = 25000;
inline constexpr std::int64_t kMaxTokenBudget = 8000;

// An argument the tool cannot use; what() is the message the model reads.
class ToolArgumentError : public std::invalid_argument {
public:
    using std::invalid_argument::invalid_argument;
};

// A CallToolResult that reports a failure to the model: `isError: true` and the message.
Json tool_error_result(const std::string& message);

// The tool as tools/list describes it.
Json context_tool_definition();

// The request that `arguments` describe; throws ToolArgumentError.
PackRequest context_request(const Json& arguments);

// The CallToolResult of one call: the pack's map as structuredContent and the same JSON as one
// text block, or `isError: true` with the message for a bad argument or an unknown component.
// Errors of the index itself propagate (the server answers them as internal errors).
Json call_context_tool(service::Workspace& workspace, const Json& arguments);

}  // namespace orvane_kestrix::mcp
