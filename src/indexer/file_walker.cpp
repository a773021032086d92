#include "orvane_kestrix/indexer/file_walker.hpp"

#include <dirent.h>
#include <fcntl.h>
#include <spawn.h>
#include <limits.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdlib>
#include <memory>
#include <optional>
#include <set>
#include <utility>

#include "orvane_kestrix/indexer/ignore_rules.hpp"

namespace orvane_kestrix::indexer {

namespace fs = std::filesystem;

namespace {

// Runs `git -C root ls-files -z --cached --others --exclude-standard` and returns the
// NUL-separated paths (relative to root), or nothing when root is not in a work tree or git
// is missing.
std::optional<std::vector<std::string>> git_ls_files(const fs::path& root) {
    int pipe_fds[2];
    if (pipe2(pipe_fds, O_CLOEXEC) != 0) return std::nullopt;
    const std::string root_text = root.string();
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, pipe_fds[1], STDOUT_FILENO);
    posix_spawn_file_actions_addclose(&actions, pipe_fds[0]);
    posix_spawn_file_actions_addclose(&actions, pipe_fds[1]);
    posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, "/dev/null", O_WRONLY, 0);
    const char* argv[] = {"git",      "-C",     root_text.c_str(), "ls-files", "-z", "--cached",
                          "--others", "--exclude-standard", nullptr};
    pid_t pid = 0;
    const int spawn_error = posix_spawnp(&pid, "git", &actions, nullptr, const_cast<char* const*>(argv), environ);
    posix_spawn_file_actions_destroy(&actions);
    if (spawn_error != 0) {
        close(pipe_fds[0]);
        close(pipe_fds[1]);
        return std::nullopt;
    }
    close(pipe_fds[1]);
    std::string output;
    std::array<char, 65536> buffer{};
    for (;;) {
        const ssize_t n = read(pipe_fds[0], buffer.data(), buffer.size());
        if (n > 0) {
            output.append(buffer.data(), static_cast<std::size_t>(n));
        } else if (n < 0 && errno == EINTR) {
            continue;
        } else {
            break;
        }
    }
    close(pipe_fds[0]);
    int status = 0;
    while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) return std::nullopt;

    std::vector<std::string> paths;
    std::size_t start = 0;
    while (start < output.size()) {
        const std::size_t end = output.find('\0', start);
        const std::size_t stop = end == std::string::npos ? output.size() : end;
        if (stop > start) paths.emplace_back(output, start, stop - start);
        start = stop + 1;
    }
    return paths;
}

std::optional<std::string> real_path(const fs::path& path, int& error) {
    char buffer[PATH_MAX];
    if (realpath(path.c_str(), buffer) == nullptr) {
        error = errno;
        return std::nullopt;
    }
    error = 0;
    return std::string(buffer);
}

bool is_within(const std::string& path, const std::string& root) {
    if (path == root) return true;
    if (root == "/") return true;
    return path.size() > root.size() && path.compare(0, root.size(), root) == 0 && path[root.size()] == '/';
}

struct DirKey {
    dev_t dev;
    ino_t ino;
    bool operator<(const DirKey& other) const {
        return dev != other.dev ? dev < other.dev : ino < other.ino;
    }
};

class Walker {
public:
    Walker(fs::path root, std::string real_root, WalkResult& result)
        : root_(std::move(root)), real_root_(std::move(real_root)), result_(result) {}

    // What a symbolic link leads to; records a skip when it leads nowhere usable.
    enum class LinkTarget { file, directory, none };
    LinkTarget resolve_link(const std::string& rel, std::string* target_real) {
        int error = 0;
        const auto target = real_path(root_ / rel, error);
        if (!target) {
            result_.skipped.push_back({rel, error == ELOOP ? "symlink_loop" : "broken_symlink"});
            return LinkTarget::none;
        }
        if (!is_within(*target, real_root_)) {
            result_.skipped.push_back({rel, "outside_root"});
            return LinkTarget::none;
        }
        struct stat st {};
        if (stat(target->c_str(), &st) != 0) {
            result_.skipped.push_back({rel, "broken_symlink"});
            return LinkTarget::none;
        }
        if (target_real != nullptr) *target_real = *target;
        if (S_ISREG(st.st_mode)) return LinkTarget::file;
        if (S_ISDIR(st.st_mode)) return LinkTarget::directory;
        result_.skipped.push_back({rel, "special_file"});
        return LinkTarget::none;
    }

    // Classifies one listed path: a regular file is kept, a link is resolved, anything else is
    // left out. Used for git's listing, where directories behind links are never entered.
    void add_listed(const std::string& rel) {
        struct stat st {};
        if (lstat((root_ / rel).c_str(), &st) != 0) return;  // deleted from the work tree
        if (S_ISREG(st.st_mode)) {
            result_.files.push_back(rel);
        } else if (S_ISLNK(st.st_mode)) {
            if (resolve_link(rel, nullptr) == LinkTarget::file) result_.files.push_back(rel);
        } else if (!S_ISDIR(st.st_mode)) {
            result_.skipped.push_back({rel, "special_file"});
        }
    }

    void walk() {
        struct stat st {};
        if (stat(root_.c_str(), &st) != 0) return;
        visited_.insert({st.st_dev, st.st_ino});
        ignore_.load("", (root_ / ".git" / "info" / "exclude").string());
        walk_tree("");
        // Links to directories are entered after every real directory, so that a directory
        // reachable both ways is listed under its real path.
        while (!linked_dirs_.empty()) {
            auto pending = std::move(linked_dirs_);
            linked_dirs_.clear();
            for (const auto& rel : pending) {
                std::string target;
                if (resolve_link(rel, &target) != LinkTarget::directory) continue;
                if (stat(target.c_str(), &st) != 0) continue;
                const std::string link_real_parent = parent_real(rel);
                if (is_within(link_real_parent, target)) {
                    result_.skipped.push_back({rel, "symlink_loop"});
                    continue;
                }
                if (!visited_.insert({st.st_dev, st.st_ino}).second) continue;  // listed already
                walk_tree(rel);
            }
        }
    }

private:
    std::string parent_real(const std::string& rel) {
        const auto slash = rel.rfind('/');
        const fs::path parent = slash == std::string::npos ? root_ : root_ / rel.substr(0, slash);
        int error = 0;
        return real_path(parent, error).value_or(real_root_);
    }

    // Lists the tree below `start` by readdir: the entry's type comes with its name, so only
    // directories (for their identity), links and entries of unknown type cost a stat.
    void walk_tree(const std::string& start) {
        std::vector<std::string> stack{start};
        while (!stack.empty()) {
            const std::string dir = std::move(stack.back());
            stack.pop_back();
            const fs::path dir_path = dir.empty() ? root_ : root_ / dir;
            std::unique_ptr<DIR, int (*)(DIR*)> handle(opendir(dir_path.c_str()), closedir);
            if (!handle) {
                result_.skipped.push_back({dir, "unreadable_dir"});
                continue;
            }
            ignore_.load(dir, (dir_path / ".gitignore").string());
            const int dir_fd = dirfd(handle.get());
            bool read_error = false;
            for (;;) {
                errno = 0;
                const dirent* entry = readdir(handle.get());
                if (entry == nullptr) {
                    read_error = errno != 0;
                    break;
                }
                const std::string_view name = entry->d_name;
                if (name == "." || name == "..") continue;
                std::string rel = dir.empty() ? std::string(name) : dir + "/" + std::string(name);
                unsigned char type = entry->d_type;
                struct stat st {};
                if (type == DT_DIR || type == DT_UNKNOWN) {
                    if (fstatat(dir_fd, entry->d_name, &st, AT_SYMLINK_NOFOLLOW) != 0) continue;
                    type = S_ISDIR(st.st_mode) ? DT_DIR : S_ISREG(st.st_mode) ? DT_REG : S_ISLNK(st.st_mode) ? DT_LNK : DT_UNKNOWN;
                }
                bool link_to_directory = false;
                if (type == DT_LNK) {
                    struct stat target {};
                    link_to_directory = fstatat(dir_fd, entry->d_name, &target, 0) == 0 && S_ISDIR(target.st_mode);
                }
                if (ignore_.ignored(rel, type == DT_DIR || link_to_directory)) continue;
                if (type == DT_DIR) {
                    if (is_skipped_directory_name(std::string(name))) continue;
                    if (!visited_.insert({st.st_dev, st.st_ino}).second) continue;
                    stack.push_back(std::move(rel));
                } else if (type == DT_REG) {
                    result_.files.push_back(std::move(rel));
                } else if (type == DT_LNK) {
                    if (link_to_directory) {
                        if (!is_skipped_directory_name(std::string(name))) linked_dirs_.push_back(std::move(rel));
                    } else if (resolve_link(rel, nullptr) == LinkTarget::file) {
                        result_.files.push_back(std::move(rel));
                    }
                } else {
                    result_.skipped.push_back({rel, "special_file"});
                }
            }
            if (read_error) result_.skipped.push_back({dir, "unreadable_dir"});
        }
    }

    fs::path root_;
    std::string real_root_;
    WalkResult& result_;
    IgnoreRules ignore_;
    std::set<DirKey> visited_;
    std::vector<std::string> linked_dirs_;
};

bool is_excluded(const std::string& rel, const std::vector<std::string>& excluded_dirs) {
    for (const auto& dir : excluded_dirs) {
        if (rel.size() > dir.size() && rel.compare(0, dir.size(), dir) == 0 && rel[dir.size()] == '/') return true;
    }
    return false;
}

}  // namespace

bool is_skipped_directory_name(const std::string& name) {
    static const std::set<std::string> kSkipped = {
        "node_modules", "bower_components", "site-packages", "__pycache__", "build", "dist",
        "target",       "out",              "venv",          "_build",
    };
    if (name.empty() || name[0] == '.') return true;
    if (name.rfind("cmake-build-", 0) == 0) return true;
    return kSkipped.count(name) > 0;
}

WalkResult list_repository_files(const fs::path& root, const WalkOptions& options) {
    WalkResult result;
    int error = 0;
    const auto real_root = real_path(root, error);
    if (!real_root) return result;
    Walker walker(root, *real_root, result);

    std::optional<std::vector<std::string>> listed;
    if (options.use_git) listed = git_ls_files(root);
    // A directory that git ignores as a whole (a checkout inside an ignored part of another work
    // tree, say) lists nothing: walk it instead.
    if (listed && listed->empty()) listed.reset();
    if (listed) {
        std::sort(listed->begin(), listed->end());
        listed->erase(std::unique(listed->begin(), listed->end()), listed->end());
        for (const auto& rel : *listed) {
            if (is_excluded(rel, options.excluded_dirs)) continue;
            walker.add_listed(rel);
        }
    } else {
        walker.walk();
        std::erase_if(result.files, [&](const std::string& rel) { return is_excluded(rel, options.excluded_dirs); });
    }
    std::sort(result.files.begin(), result.files.end());
    result.files.erase(std::unique(result.files.begin(), result.files.end()), result.files.end());
    std::sort(result.skipped.begin(), result.skipped.end(),
              [](const SkippedFile& a, const SkippedFile& b) { return a.path < b.path; });
    return result;
}

}  // namespace orvane_kestrix::indexer
