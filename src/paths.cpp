#include "orvane_kestrix/paths.hpp"

#include <filesystem>

namespace orvane_kestrix {

bool is_contained_relative(std::string_view path) {
    const std::filesystem::path p(path);
    if (p.is_absolute() || p.has_root_name() || p.has_root_directory()) return false;
    int depth = 0;
    for (const auto& part : p) {
        if (part == "..") {
            if (--depth < 0) return false;
        } else if (part != "." && !part.empty()) {
            ++depth;
        }
    }
    return true;
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
