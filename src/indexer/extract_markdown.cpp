// Markdown: ATX (`## Title`) and setext (underlined) headings become sections, nested by level;
// fenced code blocks and front matter are skipped. No grammar needed.

#include <algorithm>
#include <string>
#include <string_view>
#include <vector>

#include "extract_internal.hpp"
#include "orvane_kestrix/text/unicode.hpp"

namespace orvane_kestrix::indexer::detail {

namespace {

struct Heading {
    int level = 0;
    std::size_t line = 0;  // 0-based
    std::string title;
    std::string signature;
    bool setext = false;  // underlined: the underline is the line after the title
};

std::size_t indent_of(std::string_view line) {
    std::size_t n = 0;
    while (n < line.size() && line[n] == ' ') ++n;
    return n;
}

// "## Title ##" -> level 2, "Title"; 0 when the line is no ATX heading.
int atx_heading(std::string_view line, std::string& title) {
    std::size_t indent = indent_of(line);
    if (indent > 3) return 0;
    std::string_view rest = line.substr(indent);
    int level = 0;
    while (level < static_cast<int>(rest.size()) && rest[static_cast<std::size_t>(level)] == '#') ++level;
    if (level == 0 || level > 6) return 0;
    rest.remove_prefix(static_cast<std::size_t>(level));
    if (!rest.empty() && rest[0] != ' ' && rest[0] != '\t') return 0;
    rest = text::strip(rest);
    // A closing run of '#' preceded by a space is not part of the title.
    std::size_t end = rest.size();
    while (end > 0 && rest[end - 1] == '#') --end;
    if (end == 0) {
        rest = {};
    } else if (end < rest.size() && (rest[end - 1] == ' ' || rest[end - 1] == '\t')) {
        rest = text::strip(rest.substr(0, end));
    }
    title = std::string(rest);
    return level;
}

// "===" -> 1, "---" -> 2, else 0.
int setext_underline(std::string_view line) {
    if (indent_of(line) > 3) return 0;
    std::string_view rest = text::strip(line);
    if (rest.empty() || (rest[0] != '=' && rest[0] != '-')) return 0;
    for (char c : rest) {
        if (c != rest[0]) return 0;
    }
    return rest[0] == '=' ? 1 : 2;
}

// The fence that opens a code block ("```", "~~~~"), or empty.
std::string_view fence_of(std::string_view line) {
    std::size_t indent = indent_of(line);
    if (indent > 3) return {};
    std::string_view rest = line.substr(indent);
    if (rest.empty() || (rest[0] != '`' && rest[0] != '~')) return {};
    std::size_t n = 0;
    while (n < rest.size() && rest[n] == rest[0]) ++n;
    if (n < 3) return {};
    if (rest[0] == '`' && rest.substr(n).find('`') != std::string_view::npos) return {};
    return rest.substr(0, n);
}

bool closes_fence(std::string_view line, std::string_view fence) {
    if (indent_of(line) > 3) return false;
    std::string_view rest = text::strip(line);
    if (rest.size() < fence.size()) return false;
    for (char c : rest) {
        if (c != fence[0]) return false;
    }
    return true;
}

bool is_plain_paragraph_line(std::string_view line) {
    std::string_view rest = text::strip(line);
    if (rest.empty() || indent_of(line) > 3) return false;
    char c = rest[0];
    if (c == '>' || c == '#' || c == '|') return false;
    if ((c == '-' || c == '*' || c == '+') && rest.size() > 1 && rest[1] == ' ') return false;
    return true;
}

}  // namespace

void extract_markdown(std::string_view path, std::string_view text, const ExtractorOptions& options,
                      FileExtraction& out) {
    out.module_name = dotted_path_module(path, false);
    LineIndex lines(text);
    std::uint32_t count = lines.row_count();
    if (count > 0 && lines.line(count - 1).empty()) --count;  // the empty piece after a final LF

    std::vector<Heading> headings;
    std::string_view fence;
    std::uint32_t row = 0;
    // Front matter: a first line of "---" up to the next "---" or "...".
    if (count > 0 && text::rstrip(lines.line(0)) == "---") {
        for (std::uint32_t r = 1; r < count; ++r) {
            std::string_view l = text::rstrip(lines.line(r));
            if (l == "---" || l == "...") {
                row = r + 1;
                break;
            }
        }
    }
    bool previous_is_paragraph = false;
    for (; row < count; ++row) {
        std::string_view line = lines.line(row);
        if (!fence.empty()) {
            if (closes_fence(line, fence)) fence = {};
            previous_is_paragraph = false;
            continue;
        }
        std::string_view opened = fence_of(line);
        if (!opened.empty()) {
            fence = opened;
            previous_is_paragraph = false;
            continue;
        }
        std::string title;
        if (int level = atx_heading(line, title); level > 0) {
            if (!title.empty()) headings.push_back({level, row, title, std::string(text::strip(line)), false});
            previous_is_paragraph = false;
            continue;
        }
        if (previous_is_paragraph) {
            if (int level = setext_underline(line); level > 0) {
                std::string_view above = text::strip(lines.line(row - 1));
                headings.push_back({level, row - 1, std::string(above), std::string(above), true});
                previous_is_paragraph = false;
                continue;
            }
        }
        previous_is_paragraph = is_plain_paragraph_line(line);
    }

    // Sections end where a heading of the same or a higher level starts.
    std::vector<std::size_t> stack;
    for (std::size_t i = 0; i < headings.size(); ++i) {
        const Heading& h = headings[i];
        while (!stack.empty() && headings[stack.back()].level >= h.level) stack.pop_back();
        ExtractedSymbol s;
        s.name = h.title;
        s.kind = "section";
        std::string base = stack.empty() ? out.module_name : out.symbols[stack.back()].fqn;
        s.fqn = base.empty() ? h.title : base + "." + h.title;
        s.start_line = static_cast<std::int64_t>(h.line) + 1;
        std::size_t end = count;
        for (std::size_t k = i + 1; k < headings.size(); ++k) {
            if (headings[k].level <= h.level) {
                end = headings[k].line;
                break;
            }
        }
        s.end_line = static_cast<std::int64_t>(std::max(end, h.line + 1));
        s.signature = h.signature;
        if (!stack.empty()) s.parent = stack.back();

        // The first paragraph under the heading.
        std::size_t first = h.line + 1;
        if (h.setext) ++first;
        while (first < end && text::strip(lines.line(static_cast<std::uint32_t>(first))).empty()) ++first;
        std::string paragraph;
        for (std::size_t r = first; r < end; ++r) {
            std::string_view l = lines.line(static_cast<std::uint32_t>(r));
            std::string scratch;
            if (text::strip(l).empty() || !fence_of(l).empty() || atx_heading(l, scratch) > 0) break;
            if (!paragraph.empty()) paragraph.push_back('\n');
            paragraph.append(text::strip(l));
        }
        if (!paragraph.empty()) {
            if (paragraph.size() > options.docstring_limit) {
                paragraph.resize(utf8_prefix(paragraph, options.docstring_limit).size());
                s.docstring_truncated = true;
            }
            s.docstring = std::move(paragraph);
        }
        stack.push_back(out.symbols.size());
        out.symbols.push_back(std::move(s));
    }
}

}  // namespace orvane_kestrix::indexer::detail
