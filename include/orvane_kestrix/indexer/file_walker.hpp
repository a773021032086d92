#pragma once
// Lists the files of a repository that the indexer considers.
//
// In a git work tree (also when the root is a subdirectory of one): the tracked files and the
// untracked files that are not ignored, as `git ls-files --cached --others --exclude-standard`
// reports them. Elsewhere: a directory walk that skips `.git`, `node_modules`, build output
// and hidden directories. Either way, symbolic links are followed only to targets inside the
// root, each directory is entered once (loops end), and links that lead nowhere, out of the
// root or into a loop are reported as skipped with a reason.

#include <filesystem>
#include <string>
#include <vector>

namespace orvane_kestrix::indexer {

struct SkippedFile {
    std::string path;    // repository-relative
    std::string reason;  // "symlink_loop", "broken_symlink", "outside_root", "unreadable_dir"
};

struct WalkResult {
    // Repository-relative, "/"-separated paths of regular files (or links to them inside the
    // root), sorted, each once. Not filtered by language or size.
    std::vector<std::string> files;
    std::vector<SkippedFile> skipped;
};

struct WalkOptions {
    // Repository-relative directory prefixes never listed (e.g. the index's own ".kestrix").
    std::vector<std::string> excluded_dirs = {".kestrix"};
    bool use_git = true;
};

// Whether the walk (outside git) skips a directory of this name: VCS metadata, dependency and
// build output folders, caches, and hidden directories.
bool is_skipped_directory_name(const std::string& name);

WalkResult list_repository_files(const std::filesystem::path& root, const WalkOptions& options = {});

}  // namespace orvane_kestrix::indexer
