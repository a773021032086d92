#include "orvane_kestrix/indexer/generated_file.hpp"

#include <algorithm>
#include <span>
#include <string>
#include <vector>

#include "languages.hpp"

namespace orvane_kestrix::indexer {

namespace {

// Bytes of the head a file is judged by.
constexpr std::size_t kHeadBytes = 8192;
// Lines of the head searched for the opening comments.
constexpr std::size_t kHeaderLines = 40;
// Distance in lines between a "do not edit" line and its "generated" line.
constexpr std::size_t kMarkerReach = 2;

constexpr std::size_t kMinifiedAverageLine = 200;
constexpr std::size_t kMinifiedLongestLine = 500;
// Spaces and tabs under 1 in this many bytes.
constexpr std::size_t kMinifiedBlankShare = 10;

bool looks_minified(std::string_view head) {
    std::size_t lines = 0;
    std::size_t longest = 0;
    std::size_t blanks = 0;
    std::size_t line_start = 0;
    for (std::size_t i = 0; i <= head.size(); ++i) {
        if (i == head.size() || head[i] == '\n') {
            if (i > line_start || i < head.size()) ++lines;
            longest = std::max(longest, i - line_start);
            line_start = i + 1;
        } else if (head[i] == ' ' || head[i] == '\t') {
            ++blanks;
        }
    }
    return lines > 0 && longest >= kMinifiedLongestLine && head.size() >= kMinifiedAverageLine * lines &&
           blanks * kMinifiedBlankShare < head.size();
}

std::string_view trimmed(std::string_view line) {
    const auto blank = [](char c) { return c == ' ' || c == '\t' || c == '\r' || c == '\f' || c == '\v'; };
    while (!line.empty() && blank(line.front())) line.remove_prefix(1);
    while (!line.empty() && blank(line.back())) line.remove_suffix(1);
    return line;
}

std::string ascii_lowercase(std::string_view text) {
    std::string out(text);
    for (char& c : out) {
        if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
    }
    return out;
}

// How a comment or docstring that opens on a line closes, when it runs past that line.
struct Opener {
    std::string_view open;
    std::string_view close;  // empty: a line comment
};

constexpr Opener kHash[] = {{"#", ""}};
constexpr Opener kHashDocstrings[] = {{"#", ""}, {R"(""")", R"(""")"}, {"'''", "'''"}};
// "*" continues a block comment; "#!" is the first line of a script.
constexpr Opener kCStyle[] = {{"//", ""}, {"/*", "*/"}, {"*", ""}, {"#!", ""}};
constexpr Opener kHtml[] = {{"<!--", "-->"}};

std::span<const Opener> openers_of(Language language) {
    switch (language_spec(language).comments) {
        case Comments::hash:
            return kHash;
        case Comments::hash_docstrings:
            return kHashDocstrings;
        case Comments::c_style:
            return kCStyle;
        case Comments::html:
            return kHtml;
        case Comments::none:
        case Comments::unset:
            break;
    }
    return {};
}

// A docstring without its string prefix (r"""...""").
std::string_view without_string_prefix(std::string_view line) {
    const bool quoted = line.size() > 3 && (line.substr(1).starts_with(R"(""")") || line.substr(1).starts_with("'''"));
    if (quoted && std::string_view("rRuUbB").find(line[0]) != std::string_view::npos) line.remove_prefix(1);
    return line;
}

// The comment lines (and docstrings) that open the file, lowercased, up to the first line of
// anything else.
std::vector<std::string> opening_comments(std::string_view head, Language language) {
    const std::span<const Opener> openers = openers_of(language);
    std::vector<std::string> lines;
    std::string_view closing;  // non-empty while inside a block comment or docstring
    for (std::size_t seen = 0; !head.empty() && seen < kHeaderLines; ++seen) {
        const auto end = head.find('\n');
        const std::string_view line = trimmed(head.substr(0, end));
        head = end == std::string_view::npos ? std::string_view() : head.substr(end + 1);
        if (!closing.empty()) {
            lines.push_back(ascii_lowercase(line));
            if (line.find(closing) != std::string_view::npos) closing = {};
            continue;
        }
        if (line.empty()) continue;
        const std::string_view body = without_string_prefix(line);
        const auto opener =
            std::find_if(openers.begin(), openers.end(), [&](const Opener& o) { return body.starts_with(o.open); });
        if (opener == openers.end()) break;
        lines.push_back(ascii_lowercase(line));
        if (!opener->close.empty() && body.substr(opener->open.size()).find(opener->close) == std::string_view::npos) {
            closing = opener->close;
        }
    }
    return lines;
}

bool contains(const std::string& line, std::string_view word) { return line.find(word) != std::string::npos; }

bool says_do_not_edit(const std::string& line) {
    constexpr std::string_view kPhrases[] = {"do not edit",  "don't edit",    "do not modify",
                                             "don't modify", "not be edited", "not be modified"};
    return std::any_of(std::begin(kPhrases), std::end(kPhrases), [&](std::string_view p) { return contains(line, p); });
}

bool has_generated_marker(std::string_view head, Language language) {
    const std::vector<std::string> lines = opening_comments(head, language);
    for (std::size_t i = 0; i < lines.size(); ++i) {
        if (contains(lines[i], "@generated") || contains(lines[i], "<auto-generated")) return true;
        if (!says_do_not_edit(lines[i])) continue;
        const std::size_t first = i >= kMarkerReach ? i - kMarkerReach : 0;
        const std::size_t last = std::min(lines.size() - 1, i + kMarkerReach);
        for (std::size_t j = first; j <= last; ++j) {
            if (contains(lines[j], "generated")) return true;
        }
    }
    return false;
}

}  // namespace

MachineWritten machine_written(std::string_view bytes, Language language) {
    const std::string_view head = bytes.substr(0, kHeadBytes);
    if (has_generated_marker(head, language)) return MachineWritten::generated;
    // Prose writes each paragraph as one line.
    if (language_spec(language).reading != Reading::markdown && looks_minified(head)) return MachineWritten::minified;
    return MachineWritten::no;
}

const char* skip_reason(MachineWritten kind) {
    switch (kind) {
        case MachineWritten::minified:
            return "minified";
        case MachineWritten::generated:
            return "generated";
        case MachineWritten::no:
            break;
    }
    return "";
}

}  // namespace orvane_kestrix::indexer
