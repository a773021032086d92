#include "orvane_kestrix/indexer/ignore_rules.hpp"

#include <fstream>
#include <sstream>

namespace orvane_kestrix::indexer {

namespace {

// Matches one character against a bracket expression that starts after '['; `length` gets the
// expression's length up to and including ']', or 0 when it has no end (then '[' is literal).
bool class_matches(std::string_view pattern, char c, std::size_t& length) {
    std::size_t i = 0;
    const bool negate = i < pattern.size() && (pattern[i] == '!' || pattern[i] == '^');
    if (negate) ++i;
    bool matched = false;
    for (bool first = true; i < pattern.size() && (first || pattern[i] != ']'); first = false) {
        char low = pattern[i];
        if (low == '\\' && i + 1 < pattern.size()) low = pattern[++i];
        char high = low;
        if (i + 2 < pattern.size() && pattern[i + 1] == '-' && pattern[i + 2] != ']') {
            high = pattern[i + 2];
            i += 2;
        }
        if (c >= low && c <= high) matched = true;
        ++i;
    }
    if (i >= pattern.size()) {
        length = 0;
        return false;
    }
    length = i + 1;
    return matched != negate;
}

}  // namespace

bool glob_matches(std::string_view pattern, std::string_view text) {
    while (!pattern.empty()) {
        if (pattern.starts_with("**") && (pattern.size() == 2 || pattern[2] == '/')) {
            if (pattern.size() == 2) return true;  // "**" at the end: everything below
            // "**/": zero or more whole directories.
            const std::string_view rest = pattern.substr(3);
            for (std::size_t at = 0;;) {
                if (glob_matches(rest, text.substr(at))) return true;
                const std::size_t slash = text.find('/', at);
                if (slash == std::string_view::npos) return false;
                at = slash + 1;
            }
        }
        const char c = pattern.front();
        if (c == '*') {
            while (!pattern.empty() && pattern.front() == '*') pattern.remove_prefix(1);
            for (std::size_t i = 0;; ++i) {
                if (glob_matches(pattern, text.substr(i))) return true;
                if (i >= text.size() || text[i] == '/') return false;
            }
        }
        if (text.empty()) return false;
        if (c == '?') {
            if (text.front() == '/') return false;
        } else if (c == '[') {
            std::size_t length = 0;
            const bool matched = class_matches(pattern.substr(1), text.front(), length);
            if (length > 0) {
                if (!matched || text.front() == '/') return false;
                pattern.remove_prefix(length);
            } else if (text.front() != '[') {
                return false;
            }
        } else {
            char literal = c;
            if (c == '\\' && pattern.size() > 1) {
                pattern.remove_prefix(1);
                literal = pattern.front();
            }
            if (text.front() != literal) return false;
        }
        pattern.remove_prefix(1);
        text.remove_prefix(1);
    }
    return text.empty();
}

void IgnoreRules::load(const std::string& dir, const std::string& file_path) {
    std::ifstream in(file_path, std::ios::binary);
    if (!in) return;
    std::ostringstream text;
    text << in.rdbuf();
    add(dir, text.str());
}

void IgnoreRules::add(const std::string& dir, std::string_view text) {
    std::vector<Rule>& rules = rules_by_dir_[dir];
    while (!text.empty()) {
        const std::size_t end = text.find('\n');
        std::string line(text.substr(0, end));
        text.remove_prefix(end == std::string_view::npos ? text.size() : end + 1);
        if (!line.empty() && line.back() == '\r') line.pop_back();
        // Trailing spaces go unless escaped.
        while (!line.empty() && line.back() == ' ' && !(line.size() >= 2 && line[line.size() - 2] == '\\')) line.pop_back();
        if (line.empty() || line.front() == '#') continue;
        Rule rule;
        if (line.front() == '!') {
            rule.negate = true;
            line.erase(0, 1);
        } else if (line.starts_with("\\!") || line.starts_with("\\#")) {
            line.erase(0, 1);
        }
        if (!line.empty() && line.back() == '/') {
            rule.dir_only = true;
            line.pop_back();
        }
        rule.anchored = line.find('/') != std::string::npos;
        if (line.starts_with('/')) line.erase(0, 1);
        if (line.empty()) continue;
        rule.pattern = std::move(line);
        const auto special = rule.pattern.find_first_of("*?[\\");
        if (special == std::string::npos) {
            rule.shape = Shape::literal;
        } else if (special == 0 && rule.pattern.size() > 1 && rule.pattern.find_first_of("*?[\\/", 1) == std::string::npos) {
            rule.shape = Shape::suffix;
        }
        rules.push_back(std::move(rule));
    }
}

bool IgnoreRules::Rule::matches(std::string_view text) const {
    switch (shape) {
        case Shape::literal:
            return text == pattern;
        case Shape::suffix:
            // "*" stays within one path component.
            return text.ends_with(suffix()) && text.substr(0, text.size() - suffix().size()).find('/') == std::string_view::npos;
        case Shape::glob:
            return glob_matches(pattern, text);
    }
    return false;
}

bool IgnoreRules::ignored(const std::string& path, bool is_dir) const {
    bool ignored = false;
    // The rules of each directory above the path, shallowest first, each against the path as
    // seen from its directory.
    for (std::size_t start = 0;;) {
        const std::string dir = start == 0 ? std::string() : path.substr(0, start - 1);
        if (const auto found = rules_by_dir_.find(dir); found != rules_by_dir_.end()) {
            const std::string_view below = std::string_view(path).substr(start);
            const std::size_t slash = below.rfind('/');
            const std::string_view name = slash == std::string_view::npos ? below : below.substr(slash + 1);
            for (const Rule& rule : found->second) {
                if (rule.dir_only && !is_dir) continue;
                if (rule.matches(rule.anchored ? below : name)) ignored = !rule.negate;
            }
        }
        const std::size_t slash = path.find('/', start);
        if (slash == std::string::npos) break;
        start = slash + 1;
    }
    return ignored;
}

}  // namespace orvane_kestrix::indexer
