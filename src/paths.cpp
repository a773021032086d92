#include "orvane_kestrix/paths.hpp"

#include <vector>

namespace orvane_kestrix {

std::string_view directory_of(std::string_view path) {
    const auto slash = path.rfind('/');
    return slash == std::string_view::npos ? std::string_view() : path.substr(0, slash);
}

std::string_view file_name_of(std::string_view path) {
    const auto slash = path.rfind('/');
    return slash == std::string_view::npos ? path : path.substr(slash + 1);
}

std::string_view without_extension(std::string_view name) {
    const auto dot = name.rfind('.');
    return dot == std::string_view::npos || dot == 0 ? name : name.substr(0, dot);
}

std::string_view extension_of(std::string_view name) {
    const auto dot = name.rfind('.');
    return dot == std::string_view::npos || dot == 0 ? std::string_view() : name.substr(dot + 1);
}

std::optional<std::string> join_relative(std::string_view base, std::string_view relative) {
    std::vector<std::string_view> parts;
    auto fold = [&](std::string_view path) {
        while (!path.empty()) {
            const auto slash = path.find('/');
            const std::string_view part = path.substr(0, slash);
            path = slash == std::string_view::npos ? std::string_view() : path.substr(slash + 1);
            if (part.empty() || part == ".") continue;
            if (part != "..") {
                parts.push_back(part);
            } else if (parts.empty()) {
                return false;
            } else {
                parts.pop_back();
            }
        }
        return true;
    };
    if (!fold(base) || !fold(relative)) return std::nullopt;
    std::string joined;
    for (const auto part : parts) {
        if (!joined.empty()) joined.push_back('/');
        joined += part;
    }
    return joined;
}

bool is_contained_relative(std::string_view path) {
    return !path.starts_with('/') && join_relative("", path).has_value();
}

bool resolves_inside(const std::filesystem::path& canonical_root, const std::filesystem::path& path) {
    std::error_code error;
    const std::filesystem::path resolved = std::filesystem::weakly_canonical(path, error);
    if (error) return false;
    auto root_part = canonical_root.begin();
    auto path_part = resolved.begin();
    for (; root_part != canonical_root.end(); ++root_part, ++path_part) {
        if (root_part->empty()) continue;  // the trailing empty element of "dir/"
        if (path_part == resolved.end() || *path_part != *root_part) return false;
    }
    return true;
}

}  // namespace orvane_kestrix
