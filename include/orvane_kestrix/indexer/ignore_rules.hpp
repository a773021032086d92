#pragma once
// The .gitignore rules of a tree, for listing its files without git: each directory's
// .gitignore, and .git/info/exclude at the root. As git reads them: blank lines and "#"
// comments are skipped; "!" re-includes; a trailing "/" matches directories only; a pattern
// with a "/" before its end is anchored to its file's directory, one without matches a name
// at any depth below it; "*", "?" and "[...]" match within one path component, "**" across
// components ("**/x", "x/**", "a/**/b"). The last matching rule wins, deeper files' rules
// after shallower ones. (What lies in an ignored directory cannot be re-included: the walk
// does not enter it.)

#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace orvane_kestrix::indexer {

// Whether `text` (a "/"-separated path) matches a gitignore glob pattern.
bool glob_matches(std::string_view pattern, std::string_view text);

class IgnoreRules {
public:
    // Adds the rules of one ignore file that applies from `dir` (repository-relative, "" for
    // the root) down. A missing or unreadable file adds nothing.
    void load(const std::string& dir, const std::string& file_path);
    // Adds rules given as the text of an ignore file.
    void add(const std::string& dir, std::string_view text);

    // Whether the repository-relative `path` is ignored; `is_dir` for a directory.
    bool ignored(const std::string& path, bool is_dir) const;

private:
    // Most patterns are a plain name or "*.ext": those are compared without the glob matcher.
    enum class Shape { literal, suffix, glob };
    struct Rule {
        std::string pattern;
        bool negate = false;
        bool dir_only = false;
        bool anchored = false;
        Shape shape = Shape::glob;
        std::string_view suffix() const { return std::string_view(pattern).substr(1); }
        bool matches(std::string_view text) const;
    };

    std::unordered_map<std::string, std::vector<Rule>> rules_by_dir_;
};

}  // namespace orvane_kestrix::indexer
