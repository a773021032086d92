#include "orvane_kestrix/mcp/protocol.hpp"

#include <algorithm>

namespace orvane_kestrix::mcp {

Json supported_versions() {
    Json versions = Json::array({std::string(kModernVersion)});
    for (const auto version : kLegacyVersions) versions.push_back(std::string(version));
    return versions;
}

bool is_legacy_version(std::string_view version) {
    return std::find(kLegacyVersions.begin(), kLegacyVersions.end(), version) != kLegacyVersions.end();
}

bool is_supported_version(std::string_view version) { return version == kModernVersion || is_legacy_version(version); }

bool is_request_id(const Json& id) { return id.is_string() || id.is_number_integer(); }

Json error_response(const Json& id, int code, std::string_view message, const std::optional<Json>& data) {
    Json error = {{"code", code}, {"message", std::string(message)}};
    if (data) error["data"] = *data;
    return Json{{"jsonrpc", "2.0"}, {"id", id}, {"error", std::move(error)}};
}

}  // namespace orvane_kestrix::mcp
