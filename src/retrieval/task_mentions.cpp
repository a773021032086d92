#include "orvane_kestrix/retrieval/task_mentions.hpp"

#include <algorithm>
#include <array>
#include <unordered_set>

namespace orvane_kestrix::retrieval {

namespace {

bool is_digit(char c) { return c >= '0' && c <= '9'; }
bool is_alpha(char c) { return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z'); }
bool is_ident_char(char c) { return is_alpha(c) || is_digit(c) || c == '_' || c == '$'; }
bool is_space(char c) { return c == ' ' || c == '\t' || c == '\r' || c == '\f' || c == '\v'; }

std::string_view trim(std::string_view s) {
    while (!s.empty() && is_space(s.front())) s.remove_prefix(1);
    while (!s.empty() && is_space(s.back())) s.remove_suffix(1);
    return s;
}

bool all_digits(std::string_view s) {
    return !s.empty() && std::all_of(s.begin(), s.end(), is_digit);
}

std::string_view extension_of(std::string_view path) {
    const auto slash = path.find_last_of("/\\");
    const std::string_view name = slash == std::string_view::npos ? path : path.substr(slash + 1);
    const auto dot = name.rfind('.');
    if (dot == std::string_view::npos || dot == 0) return {};
    return name.substr(dot + 1);
}

bool looks_like_path(std::string_view path) {
    if (path.empty() || !is_source_extension(extension_of(path))) return false;
    for (char c : path) {
        if (!(is_ident_char(c) || c == '.' || c == '/' || c == '\\' || c == '-' || c == '@' || c == '+' || c == '~')) {
            return false;
        }
    }
    return true;
}

// "src/x.ts:10:5" -> (src/x.ts, 10). Leading "file://" and "webpack:///" and wrapping
// brackets are dropped.
std::optional<std::pair<std::string_view, std::int64_t>> split_location(std::string_view token) {
    while (!token.empty() && (token.front() == '(' || token.front() == '[' || token.front() == '<' || token.front() == '\'' ||
                              token.front() == '"')) {
        token.remove_prefix(1);
    }
    while (!token.empty() && (token.back() == ')' || token.back() == ']' || token.back() == '>' || token.back() == ',' ||
                              token.back() == ':' || token.back() == ';' || token.back() == '\'' || token.back() == '"' ||
                              token.back() == '.')) {
        token.remove_suffix(1);
    }
    for (std::string_view scheme : {"file://", "webpack:///", "webpack://"}) {
        if (token.starts_with(scheme)) token.remove_prefix(scheme.size());
    }
    // Up to two ":number" at the end: line, then column.
    std::array<std::string_view, 2> numbers{};
    std::size_t found = 0;
    while (found < 2) {
        const auto colon = token.rfind(':');
        if (colon == std::string_view::npos || !all_digits(token.substr(colon + 1))) break;
        numbers[found++] = token.substr(colon + 1);
        token = token.substr(0, colon);
    }
    if (found == 0 || !looks_like_path(token)) return std::nullopt;
    const std::string_view line_text = numbers[found - 1];
    if (line_text.size() > 9) return std::nullopt;
    return std::pair{token, std::stoll(std::string(line_text))};
}

// The parts of a qualified name split at ".", "::" and "/" ("a.b::c" -> a, b, c).
std::vector<std::string_view> qualified_parts(std::string_view name) {
    std::vector<std::string_view> parts;
    std::size_t start = 0;
    for (std::size_t i = 0; i <= name.size(); ++i) {
        const bool end = i == name.size();
        if (end || name[i] == '.' || name[i] == '/' || (name[i] == ':' && i + 1 < name.size() && name[i + 1] == ':')) {
            if (i > start) parts.push_back(name.substr(start, i - start));
            if (!end && name[i] == ':') ++i;
            start = i + 1;
        }
    }
    return parts;
}

std::string clean_part(std::string_view part) {
    std::string out;
    for (char c : part) {
        if (is_ident_char(c)) out.push_back(c);
    }
    return out;
}

bool is_hash_part(std::string_view part) {
    // Rust symbol hashes: h + 16 hex digits.
    if (part.size() != 17 || part[0] != 'h') return false;
    return std::all_of(part.begin() + 1, part.end(), [](char c) { return is_digit(c) || (c >= 'a' && c <= 'f'); });
}

// Fills function and qualifier from a qualified function name as a trace prints it:
// "com.acme.Cart.total", "main.(*Server).handle", "app::parse::read::h0123456789abcdef",
// "Object.<anonymous>", "Foo.bar [as baz]".
void set_function(TraceFrame& frame, std::string_view qualified) {
    if (auto bracket = qualified.find(" ["); bracket != std::string_view::npos) qualified = qualified.substr(0, bracket);
    std::vector<std::string> parts;
    for (std::string_view part : qualified_parts(qualified)) {
        if (is_hash_part(part) || part.find("{{") != std::string_view::npos || part.find('<') != std::string_view::npos) continue;
        // Java inner and anonymous classes: Outer$Inner is Inner, Outer$1 is Outer.
        while (true) {
            const auto dollar = part.rfind('$');
            if (dollar == std::string_view::npos || dollar == 0) break;
            const std::string_view inner = part.substr(dollar + 1);
            if (!inner.empty() && !all_digits(inner)) {
                part = inner;
                break;
            }
            part = part.substr(0, dollar);
        }
        std::string clean = clean_part(part);
        if (clean.empty() || all_digits(clean)) continue;
        parts.push_back(std::move(clean));
    }
    // "Object.<anonymous>" names no function of its own; Java's "<init>" is the class's constructor.
    if (qualified.ends_with("<init>") && !parts.empty()) {
        frame.function = parts.back();
        return;
    }
    if (qualified.ends_with(">") || parts.empty()) return;
    frame.function = parts.back();
    if (parts.size() >= 2 && parts[parts.size() - 2] != "Object") frame.qualifier = parts[parts.size() - 2];
}

template <typename T>
void add_once(std::vector<T>& list, T value, std::size_t cap) {
    if (list.size() >= cap) return;
    if (std::find(list.begin(), list.end(), value) != list.end()) return;
    list.push_back(std::move(value));
}

// "main.(*Server).handle(0xc0000a2000)" and "pkg.Func(...)": a Go frame's function line.
std::optional<std::string_view> go_function_line(std::string_view line) {
    if (line.empty() || line.back() != ')') return std::nullopt;
    int depth = 0;
    std::size_t open = std::string_view::npos;
    for (std::size_t i = line.size(); i-- > 0;) {
        if (line[i] == ')') ++depth;
        if (line[i] == '(' && --depth == 0) {
            open = i;
            break;
        }
    }
    if (open == std::string_view::npos || open == 0) return std::nullopt;
    const std::string_view name = line.substr(0, open);
    if (name.find('.') == std::string_view::npos) return std::nullopt;
    for (char c : name) {
        if (!(is_ident_char(c) || c == '.' || c == '/' || c == '*' || c == '(' || c == ')' || c == '-')) return std::nullopt;
    }
    return name;
}

// "  3: app::parse::read" or "  3: 0x55d1 - app::parse::read": a Rust backtrace's function line.
std::optional<std::string_view> rust_function_line(std::string_view line) {
    std::size_t i = 0;
    while (i < line.size() && is_digit(line[i])) ++i;
    if (i == 0 || i + 1 >= line.size() || line[i] != ':' || line[i + 1] != ' ') return std::nullopt;
    std::string_view rest = trim(line.substr(i + 1));
    if (rest.starts_with("0x")) {
        const auto dash = rest.find(" - ");
        if (dash == std::string_view::npos) return std::nullopt;
        rest = trim(rest.substr(dash + 3));
    }
    if (rest.empty() || rest.find(' ') != std::string_view::npos || rest.find("::") == std::string_view::npos) return std::nullopt;
    return rest;
}

class MentionScanner {
public:
    TaskMentions scan(std::string_view task) {
        std::size_t start = 0;
        while (start <= task.size()) {
            auto end = task.find('\n', start);
            if (end == std::string_view::npos) end = task.size();
            scan_line(task.substr(start, end - start));
            start = end + 1;
        }
        scan_tokens(task);
        return std::move(mentions_);
    }

private:
    void add_frame(TraceFrame frame) {
        if (frame.function.empty() && !pending_function_.empty()) {
            set_function(frame, pending_function_);
        }
        pending_function_.clear();
        if (frame.file.empty() && frame.function.empty()) return;
        add_once(mentions_.frames, std::move(frame), kMaxFrames);
    }

    bool python_frame(std::string_view line) {
        const auto at = line.find("File \"");
        if (at == std::string_view::npos) return false;
        const auto path_start = at + 6;
        const auto path_end = line.find('"', path_start);
        if (path_end == std::string_view::npos) return false;
        TraceFrame frame;
        frame.file = std::string(line.substr(path_start, path_end - path_start));
        std::string_view rest = line.substr(path_end + 1);
        if (auto l = rest.find(", line "); l != std::string_view::npos) {
            std::size_t i = l + 7, j = i;
            while (j < rest.size() && is_digit(rest[j])) ++j;
            if (j > i && j - i < 10) frame.line = std::stoll(std::string(rest.substr(i, j - i)));
        }
        if (auto in = rest.find(", in "); in != std::string_view::npos) {
            std::string_view name = trim(rest.substr(in + 5));
            if (!name.starts_with("<")) frame.function = clean_part(name);
        }
        add_frame(std::move(frame));
        return true;
    }

    // "at ..." frames of JavaScript, Java and Rust.
    bool at_frame(std::string_view line) {
        if (!line.starts_with("at ")) return false;
        std::string_view rest = trim(line.substr(3));
        for (std::string_view prefix : {"async ", "new "}) {
            if (rest.starts_with(prefix)) rest = trim(rest.substr(prefix.size()));
        }
        TraceFrame frame;
        std::string_view name;
        std::string_view location = rest;
        if (!rest.empty() && rest.back() == ')') {
            int depth = 0;
            std::size_t open = std::string_view::npos;
            for (std::size_t i = rest.size(); i-- > 0;) {
                if (rest[i] == ')') ++depth;
                if (rest[i] == '(' && --depth == 0) {
                    open = i;
                    break;
                }
            }
            if (open != std::string_view::npos && open > 0) {
                name = trim(rest.substr(0, open));
                location = rest.substr(open + 1, rest.size() - open - 2);
            }
        }
        // Prose ("at the moment (see below)") has spaces where a frame has a function name.
        if (name.find(' ') != std::string_view::npos) name = {};
        if (auto split = split_location(location)) {
            frame.file = std::string(split->first);
            frame.line = split->second;
        } else if (name.empty() || location.find(':') == std::string_view::npos) {
            return false;
        }
        if (!name.empty()) set_function(frame, name);
        add_frame(std::move(frame));
        return true;
    }

    // "#0 0x4f3a in read_block /src/io.c:12:5": a sanitizer's frame.
    bool sanitizer_frame(std::string_view line) {
        if (line.size() < 2 || line[0] != '#' || !is_digit(line[1])) return false;
        const auto in = line.find(" in ");
        if (in == std::string_view::npos) return false;
        std::string_view rest = trim(line.substr(in + 4));
        const auto space = rest.find(' ');
        TraceFrame frame;
        const std::string_view name = rest.substr(0, space);
        if (space != std::string_view::npos) {
            if (auto split = split_location(trim(rest.substr(space + 1)))) {
                frame.file = std::string(split->first);
                frame.line = split->second;
            }
        }
        set_function(frame, name);
        add_frame(std::move(frame));
        return true;
    }

    void scan_line(std::string_view raw) {
        const std::string_view line = trim(raw);
        if (line.empty()) return;
        if (python_frame(line) || at_frame(line) || sanitizer_frame(line)) return;
        if (auto name = rust_function_line(line)) {
            pending_function_ = std::string(*name);
            return;
        }
        if (auto name = go_function_line(line)) {
            pending_function_ = std::string(*name);
            return;
        }
        // Any other line: its first "path.ext:LINE" is a frame (compiler errors, panics, Go's
        // location lines).
        std::size_t i = 0;
        while (i < line.size()) {
            while (i < line.size() && is_space(line[i])) ++i;
            std::size_t j = i;
            while (j < line.size() && !is_space(line[j])) ++j;
            if (auto split = split_location(line.substr(i, j - i))) {
                TraceFrame frame;
                frame.file = std::string(split->first);
                frame.line = split->second;
                add_frame(std::move(frame));
                return;
            }
            i = j;
        }
        pending_function_.clear();
    }

    // File names and qualified names anywhere in the text.
    void scan_tokens(std::string_view text) {
        auto token_char = [](char c) {
            return is_ident_char(c) || c == '.' || c == '/' || c == '\\' || c == ':' || c == '#' || c == '-';
        };
        std::size_t i = 0;
        while (i < text.size()) {
            if (!token_char(text[i])) {
                ++i;
                continue;
            }
            std::size_t j = i;
            while (j < text.size() && token_char(text[j])) ++j;
            classify(text.substr(i, j - i), j < text.size() && text[j] == '(');
            i = j;
        }
    }

    void classify(std::string_view token, bool called) {
        if (token.find("://") != std::string_view::npos) return;
        while (!token.empty() && (token.front() == ':' || token.front() == '#' || token.front() == '-' || token.front() == '.')) {
            if (token.starts_with("./") || token.starts_with("../")) break;
            token.remove_prefix(1);
        }
        while (!token.empty() && (token.back() == '.' || token.back() == ':' || token.back() == '-' || token.back() == '#' ||
                                  token.back() == '/')) {
            token.remove_suffix(1);
        }
        if (token.size() < 3) return;
        if (auto split = split_location(token)) {
            add_once(mentions_.files, std::string(split->first), kMaxFileMentions);
            return;
        }
        if (looks_like_path(token)) {
            add_once(mentions_.files, std::string(token), kMaxFileMentions);
            return;
        }
        if (token.find('/') != std::string_view::npos || token.find('\\') != std::string_view::npos) return;
        // A qualified name: identifier parts joined by ".", "::" or "#".
        std::vector<std::string_view> parts;
        std::size_t start = 0;
        for (std::size_t k = 0; k <= token.size(); ++k) {
            const bool end = k == token.size();
            const bool sep = !end && (token[k] == '.' || token[k] == '#' || (token[k] == ':' && k + 1 < token.size() && token[k + 1] == ':'));
            if (end || sep) {
                parts.push_back(token.substr(start, k - start));
                if (!end && token[k] == ':') ++k;
                start = k + 1;
            } else if (token[k] == ':' || token[k] == '-') {
                return;
            }
        }
        if (parts.size() < 2) return;
        std::size_t long_parts = 0;
        for (std::string_view part : parts) {
            if (part.empty() || is_digit(part[0])) return;
            if (part.size() >= 2) ++long_parts;
        }
        if (long_parts < 2) return;
        // File names of documentation and data files are no code.
        static const std::unordered_set<std::string_view> data_extensions = {
            "md", "json", "yaml", "yml", "toml", "txt", "cfg", "ini", "rst", "html", "css", "lock", "xml", "csv", "log"};
        if (data_extensions.contains(parts.back())) return;
        (void)called;
        std::string dotted(token);
        std::replace(dotted.begin(), dotted.end(), '#', '.');
        add_once(mentions_.dotted, std::move(dotted), kMaxDottedMentions);
    }

    TaskMentions mentions_;
    std::string pending_function_;
};

}  // namespace

bool is_source_extension(std::string_view extension) {
    static const std::unordered_set<std::string_view> extensions = {
        "py", "pyi", "pyx", "js", "jsx", "mjs", "cjs", "ts", "tsx", "mts", "cts", "go", "rs", "java", "kt",
        "c", "h", "cc", "cpp", "cxx", "hpp", "hh", "hxx", "ipp", "inl"};
    if (extension.empty() || extension.size() > 4) return false;
    std::string lower(extension);
    for (char& c : lower) {
        if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
    }
    return extensions.contains(lower);
}

TaskMentions parse_task_mentions(std::string_view task) {
    TaskMentions mentions = MentionScanner().scan(task);
    // Capitalised words: runs of identifier characters that start with a capital letter and
    // stand alone (not part of a path or a qualified name, which the scanner reads whole).
    std::unordered_set<std::string_view> seen;
    std::unordered_set<std::string_view> seen_words;
    for (std::size_t i = 0; i < task.size();) {
        if (!is_ident_char(task[i])) {
            ++i;
            continue;
        }
        const std::size_t start = i;
        while (i < task.size() && is_ident_char(task[i])) ++i;
        const std::string_view word = task.substr(start, i - start);
        const bool joined = (start > 0 && (task[start - 1] == '.' || task[start - 1] == '/' || task[start - 1] == ':')) ||
                            (i < task.size() && (task[i] == '.' || task[i] == '/' || task[i] == ':') && i + 1 < task.size() &&
                             is_ident_char(task[i + 1]));
        if (joined) continue;
        if (word.size() >= 3 && word[0] >= 'A' && word[0] <= 'Z' && mentions.capitalised.size() < kMaxCapitalisedMentions &&
            seen.insert(word).second) {
            mentions.capitalised.emplace_back(word);
        }
        if (word.size() >= 4 && mentions.words.size() < kMaxWordMentions && seen_words.insert(word).second) {
            mentions.words.emplace_back(word);
        }
    }
    return mentions;
}

}  // namespace orvane_kestrix::retrieval
