#pragma once

#include <filesystem>
#include <string_view>

namespace orvane_kestrix {

// Whether a repository-relative path stays inside the repository: not absolute, and never
// climbing above its root through "..".
bool is_contained_relative(std::string_view path);

// Whether `path`, with every link resolved, lies under `canonical_root` (itself canonical).
// A path that cannot be resolved is not under it.
bool resolves_inside(const std::filesystem::path& canonical_root, const std::filesystem::path& path);

}  // namespace orvane_kestrix
