// Text helpers of the extractor: lines, white space folding, UTF-8 cuts, doc comment and
// docstring cleaning, use context lines and definition heads.

#include <algorithm>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

#include <unicode/uchar.h>

#include "extract_internal.hpp"
#include "orvane_kestrix/text/unicode.hpp"

namespace orvane_kestrix::indexer::detail {

namespace {

// Decodes the code point at `i` of valid UTF-8 and advances `i`; malformed bytes count as one
// U+FFFD each (the text is valid by the time it gets here, this only keeps us in bounds).
char32_t next_code_point(std::string_view s, std::size_t& i) {
    auto b0 = static_cast<unsigned char>(s[i]);
    if (b0 < 0x80) {
        ++i;
        return b0;
    }
    int length = b0 >= 0xF0 ? 4 : b0 >= 0xE0 ? 3 : b0 >= 0xC0 ? 2 : 1;
    if (length == 1 || i + static_cast<std::size_t>(length) > s.size()) {
        ++i;
        return 0xFFFD;
    }
    char32_t cp = b0 & (0xFF >> (length + 1));
    for (int k = 1; k < length; ++k) cp = (cp << 6) | (static_cast<unsigned char>(s[i + k]) & 0x3F);
    i += static_cast<std::size_t>(length);
    return cp;
}

bool is_blank(std::string_view line) {
    return text::strip(line).empty();
}

std::size_t leading_space(std::string_view line) {
    std::size_t n = 0;
    while (n < line.size() && (line[n] == ' ' || line[n] == '\t')) ++n;
    return n;
}

std::vector<std::string_view> split_lines(std::string_view text) {
    std::vector<std::string_view> lines;
    std::size_t start = 0;
    while (true) {
        std::size_t nl = text.find('\n', start);
        if (nl == std::string_view::npos) {
            lines.push_back(text.substr(start));
            break;
        }
        lines.push_back(text.substr(start, nl - start));
        start = nl + 1;
    }
    return lines;
}

std::string expand_tabs(std::string_view line) {
    std::string out;
    out.reserve(line.size());
    std::size_t column = 0;
    for (std::size_t i = 0; i < line.size();) {
        char c = line[i];
        if (c == '\t') {
            std::size_t spaces = 8 - column % 8;
            out.append(spaces, ' ');
            column += spaces;
            ++i;
        } else {
            std::size_t before = i;
            next_code_point(line, i);
            out.append(line.substr(before, i - before));
            ++column;
        }
    }
    return out;
}

// Drops blank lines at both ends and joins with "\n".
std::string join_trimmed(std::vector<std::string>& lines) {
    while (!lines.empty() && lines.back().empty()) lines.pop_back();
    std::size_t first = 0;
    while (first < lines.size() && lines[first].empty()) ++first;
    std::string out;
    for (std::size_t i = first; i < lines.size(); ++i) {
        if (i > first) out.push_back('\n');
        out += lines[i];
    }
    return out;
}

}  // namespace

// ---------------------------------------------------------------------------------------------

LineIndex::LineIndex(std::string_view text) : text_(text) {
    starts_.push_back(0);
    const char* data = text.data();
    std::size_t size = text.size();
    std::size_t pos = 0;
    while (pos < size) {
        const void* hit = std::memchr(data + pos, '\n', size - pos);
        if (hit == nullptr) break;
        pos = static_cast<std::size_t>(static_cast<const char*>(hit) - data) + 1;
        starts_.push_back(static_cast<std::uint32_t>(pos));
    }
}

std::uint32_t LineIndex::line_start(std::uint32_t row) const {
    if (row >= starts_.size()) return static_cast<std::uint32_t>(text_.size());
    return starts_[row];
}

std::string_view LineIndex::line(std::uint32_t row) const {
    if (row >= starts_.size()) return {};
    std::size_t start = starts_[row];
    std::size_t end = row + 1 < starts_.size() ? starts_[row + 1] - 1 : text_.size();
    if (end < start) end = start;
    return text_.substr(start, end - start);
}

TSNode child_by_field(TSNode node, std::string_view field) {
    if (ts_node_is_null(node)) return node;
    return ts_node_child_by_field_name(node, field.data(), static_cast<std::uint32_t>(field.size()));
}

TSNode child_of_type(TSNode node, std::string_view type) {
    if (ts_node_is_null(node)) return node;
    std::uint32_t count = ts_node_named_child_count(node);
    for (std::uint32_t i = 0; i < count; ++i) {
        TSNode child = ts_node_named_child(node, i);
        if (type == ts_node_type(child)) return child;
    }
    return TSNode{};
}

std::uint32_t last_row(TSNode node) {
    TSPoint start = ts_node_start_point(node);
    TSPoint end = ts_node_end_point(node);
    if (end.column == 0 && end.row > start.row) return end.row - 1;
    return end.row;
}

std::string fold_whitespace(std::string_view text) {
    std::string out;
    out.reserve(text.size());
    bool pending_space = false;
    for (std::size_t i = 0; i < text.size();) {
        auto c = static_cast<unsigned char>(text[i]);
        if (c < 0x80) {
            if (text::is_space(c)) {
                pending_space = true;
            } else {
                if (pending_space && !out.empty()) out.push_back(' ');
                pending_space = false;
                out.push_back(static_cast<char>(c));
            }
            ++i;
            continue;
        }
        std::size_t before = i;
        char32_t cp = next_code_point(text, i);
        if (text::is_space(cp)) {
            pending_space = true;
        } else {
            if (pending_space && !out.empty()) out.push_back(' ');
            pending_space = false;
            out.append(text.substr(before, i - before));
        }
    }
    return out;
}

std::string_view utf8_prefix(std::string_view text, std::size_t limit) {
    if (text.size() <= limit) return text;
    std::size_t cut = limit;
    while (cut > 0 && (static_cast<unsigned char>(text[cut]) & 0xC0) == 0x80) --cut;
    return text.substr(0, cut);
}

bool starts_with_upper(std::string_view name) {
    if (name.empty()) return false;
    auto c = static_cast<unsigned char>(name[0]);
    if (c < 0x80) return c >= 'A' && c <= 'Z';
    std::size_t i = 0;
    return u_isupper(static_cast<UChar32>(next_code_point(name, i))) != 0;
}

bool is_upper_snake(std::string_view name) {
    bool letter = false;
    for (std::size_t i = 0; i < name.size();) {
        auto c = static_cast<unsigned char>(name[i]);
        if (c < 0x80) {
            if (c >= 'a' && c <= 'z') return false;
            if (c >= 'A' && c <= 'Z') letter = true;
            ++i;
            continue;
        }
        char32_t cp = next_code_point(name, i);
        if (u_islower(static_cast<UChar32>(cp))) return false;
        if (u_isalpha(static_cast<UChar32>(cp))) letter = true;
    }
    return letter;
}

std::string clean_comment_block(const std::vector<std::string_view>& comments) {
    std::vector<std::string> lines;
    for (std::string_view comment : comments) {
        std::string_view body = comment;
        bool block = false;
        if (body.starts_with("/*")) {
            block = true;
            body.remove_prefix(2);
            while (!body.empty() && (body.front() == '*' || body.front() == '!')) body.remove_prefix(1);
            if (body.ends_with("*/")) body.remove_suffix(2);
            while (!body.empty() && body.back() == '*') body.remove_suffix(1);
        }
        for (std::string_view line : split_lines(body)) {
            if (!line.empty() && line.back() == '\r') line.remove_suffix(1);
            if (block) {
                std::size_t lead = leading_space(line);
                std::string_view rest = line.substr(lead);
                if (rest.starts_with('*')) {
                    rest.remove_prefix(1);
                    if (rest.starts_with(' ')) rest.remove_prefix(1);
                    line = rest;
                }
            } else {
                std::size_t lead = leading_space(line);
                line.remove_prefix(lead);
                if (line.starts_with("///") || line.starts_with("//!")) line.remove_prefix(3);
                else if (line.starts_with("//")) line.remove_prefix(2);
                else if (line.starts_with('#')) line.remove_prefix(1);
                else if (line.starts_with("--")) line.remove_prefix(2);
            }
            lines.emplace_back(text::rstrip(line));
        }
    }
    // Dedent what the markers left in common (a line comment's space after "//" included).
    std::size_t margin = std::string::npos;
    for (const auto& line : lines) {
        if (line.empty()) continue;
        margin = std::min(margin, leading_space(line));
    }
    if (margin != std::string::npos && margin > 0) {
        for (auto& line : lines) {
            if (!line.empty()) line.erase(0, std::min(margin, line.size()));
        }
    }
    return join_trimmed(lines);
}

std::string clean_python_docstring(std::string_view literal) {
    std::size_t prefix = 0;
    while (prefix < literal.size() && std::strchr("rRuUbBfF", literal[prefix]) != nullptr && literal[prefix] != '\0') {
        ++prefix;
    }
    std::string_view body = literal.substr(prefix);
    std::size_t quote = 0;
    if (body.starts_with("\"\"\"") || body.starts_with("'''")) quote = 3;
    else if (body.starts_with('"') || body.starts_with('\'')) quote = 1;
    if (quote == 0) return std::string(text::strip(literal));
    std::string_view delimiter = body.substr(0, quote);
    body.remove_prefix(quote);
    if (body.size() >= quote && body.ends_with(delimiter)) body.remove_suffix(quote);

    // inspect.cleandoc: tabs expanded, the first line stripped on the left, the others dedented
    // by their common margin, blank lines at both ends dropped.
    std::vector<std::string> lines;
    for (std::string_view line : split_lines(body)) lines.push_back(expand_tabs(line));
    std::size_t margin = std::string::npos;
    for (std::size_t i = 1; i < lines.size(); ++i) {
        std::string_view stripped = text::strip(lines[i]);
        if (stripped.empty()) continue;
        margin = std::min(margin, leading_space(lines[i]));
    }
    if (!lines.empty()) lines[0] = std::string(text::strip(lines[0]).empty() ? std::string_view{} : lines[0]);
    if (!lines.empty()) {
        std::size_t lead = leading_space(lines[0]);
        lines[0].erase(0, lead);
    }
    for (std::size_t i = 1; i < lines.size(); ++i) {
        if (margin != std::string::npos) lines[i].erase(0, std::min(margin, lines[i].size()));
        if (is_blank(lines[i])) lines[i].clear();
    }
    return join_trimmed(lines);
}

std::string context_line(const LineIndex& lines, std::uint32_t row, std::uint32_t column) {
    constexpr std::size_t kLongLine = 1000;
    constexpr std::size_t kWindow = 240;
    std::string_view line = lines.line(row);
    if (line.size() > kLongLine) {
        std::size_t start = column > kWindow ? column - kWindow : 0;
        while (start > 0 && start < line.size() && (static_cast<unsigned char>(line[start]) & 0xC0) == 0x80) --start;
        line = utf8_prefix(line.substr(std::min<std::size_t>(start, line.size())), 2 * kWindow);
    }
    return std::string(text::strip(line));
}

std::string head_signature(std::string_view text, TSNode from, TSNode def) {
    constexpr std::size_t kMaxSignature = 300;
    static constexpr std::string_view kBodyTypes[] = {
        "block",           "statement_block",     "class_body",         "compound_statement",
        "declaration_list", "field_declaration_list", "enum_body",       "interface_body",
        "enum_variant_list", "enumerator_list",    "constructor_body",   "field_initializer_list",
        "annotation_type_body", "object_type",
    };
    auto is_body = [](TSNode node) {
        std::string_view type = ts_node_type(node);
        for (auto body : kBodyTypes) {
            if (body == type) return true;
        }
        return false;
    };
    std::uint32_t cut = ts_node_end_byte(def);
    TSNode body = child_by_field(def, "body");
    if (!ts_node_is_null(body) && is_body(body)) {
        cut = ts_node_start_byte(body);
    } else {
        // Breadth-first over a few levels: the body of a declared type or function value.
        std::vector<TSNode> level{def};
        bool found = false;
        for (int depth = 0; depth < 3 && !found && !level.empty(); ++depth) {
            std::vector<TSNode> next;
            for (TSNode node : level) {
                std::uint32_t count = ts_node_named_child_count(node);
                for (std::uint32_t i = 0; i < count && !found; ++i) {
                    TSNode child = ts_node_named_child(node, i);
                    if (is_body(child)) {
                        cut = ts_node_start_byte(child);
                        found = true;
                    } else {
                        next.push_back(child);
                    }
                }
                if (found) break;
            }
            level = std::move(next);
        }
    }
    std::uint32_t start = ts_node_start_byte(from);
    if (cut < start || start > text.size()) return {};
    cut = std::min<std::uint32_t>(cut, static_cast<std::uint32_t>(text.size()));
    std::string_view head = text.substr(start, cut - start);
    // Folding a huge head would be wasted work: only the beginning is kept.
    if (head.size() > 4 * kMaxSignature) head = utf8_prefix(head, 4 * kMaxSignature);
    std::string folded = fold_whitespace(head);
    if (folded.size() > kMaxSignature) {
        folded.resize(utf8_prefix(folded, kMaxSignature).size());
        folded += " ...";
    }
    return folded;
}

}  // namespace orvane_kestrix::indexer::detail
