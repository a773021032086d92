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

}  // namespace orvane_kestrix
