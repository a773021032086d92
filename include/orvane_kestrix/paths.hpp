#pragma once
// Repository paths: "/"-separated, relative to the repository root.

#include <filesystem>
#include <optional>
#include <string>
#include <string_view>

namespace orvane_kestrix {

// The directory part of a path ("" for a file at the root) and the file name part.
std::string_view directory_of(std::string_view path);
std::string_view file_name_of(std::string_view path);
// The file name without its last extension ("format.test" for "format.test.js"); a dot file
// keeps its whole name.
std::string_view without_extension(std::string_view name);
// The last extension without its dot ("" when there is none, or for a dot file).
std::string_view extension_of(std::string_view name);

// `base` joined with the "/"-separated `relative`, "." and ".." folded; absent when it climbs
// above the root.
std::optional<std::string> join_relative(std::string_view base, std::string_view relative);

// Whether a repository-relative path stays inside the repository: not absolute, and never
// climbing above its root through "..".
bool is_contained_relative(std::string_view path);

// Whether `path`, with every link resolved, lies under `canonical_root` (itself canonical).
// A path that cannot be resolved is not under it.
bool resolves_inside(const std::filesystem::path& canonical_root, const std::filesystem::path& path);

}  // namespace orvane_kestrix
