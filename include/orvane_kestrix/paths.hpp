#pragma once

#include <string_view>

namespace orvane_kestrix {

// Whether a repository-relative path stays inside the repository: not absolute, and never
// climbing above its root through "..".
bool is_contained_relative(std::string_view path);

}  // namespace orvane_kestrix
