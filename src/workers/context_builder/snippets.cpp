// Snippet extraction: the head of a symbol's source text, cut to the per-symbol line cap and to
// what remains of the pack's total line cap.

#include <algorithm>
#include <limits>
#include <string>
#include <string_view>
#include <vector>

#include "orvane_kestrix/beneath_root.hpp"
#include "orvane_kestrix/regular_file.hpp"
#include "orvane_kestrix/text/unicode.hpp"
#include "orvane_kestrix/workers/context_builder/context_builder.hpp"

namespace orvane_kestrix {

namespace {

// Files larger than this get no snippet: the whole file is read for a head of at most a few
// hundred lines, and nothing the indexer keeps comes from a file this large.
constexpr std::uint64_t kMaxSnippetFileBytes = 256ull << 20;

// a - b, saturated to the range of int64 (the caps are plain integers to the caller).
std::int64_t saturating_difference(std::int64_t a, std::int64_t b) {
    std::int64_t result = 0;
    if (__builtin_sub_overflow(a, b, &result)) {
        return b < 0 ? std::numeric_limits<std::int64_t>::max() : std::numeric_limits<std::int64_t>::min();
    }
    return result;
}

}  // namespace

std::pair<std::optional<std::string>, std::int64_t> ContextBuilder::_extract_snippet(
    const std::filesystem::path& file_path, std::int64_t start_line, std::int64_t end_line,
    std::int64_t total_lines_so_far, std::int64_t max_lines, std::int64_t total_cap,
    const RootDirectory* beneath) {
    // The pack's cap is used up: do not touch the file at all.
    const std::int64_t remaining_lines = saturating_difference(total_cap, total_lines_so_far);
    if (remaining_lines <= 0) return {std::nullopt, 0};

    // A missing file, a directory, anything but a regular file, a path out of the root: no
    // snippet. Without a root the path is read as it is.
    std::string raw;
    const FileReadResult read = beneath ? read_regular_file(*beneath, file_path.native(), raw, kMaxSnippetFileBytes)
                                        : read_regular_file(file_path, raw, kMaxSnippetFileBytes);
    if (read.status != FileReadStatus::ok) return {std::nullopt, 0};
    const std::string content = text::source_text(raw);

    // Line starts; a line runs up to and including its LF, the last one may have none.
    std::vector<std::size_t> line_starts;
    for (std::size_t pos = 0; pos < content.size();) {
        line_starts.push_back(pos);
        const std::size_t lf = content.find('\n', pos);
        pos = lf == std::string::npos ? content.size() : lf + 1;
    }
    const auto line_count = static_cast<std::int64_t>(line_starts.size());

    const std::int64_t snippet_start = start_line < 1 ? 0 : start_line - 1;
    std::int64_t snippet_end = std::min(line_count, end_line);
    std::int64_t snippet_lines_count = saturating_difference(snippet_end, snippet_start);
    if (snippet_lines_count > max_lines) {
        snippet_end = snippet_start + max_lines;
        snippet_lines_count = max_lines;
    }
    if (snippet_lines_count > remaining_lines) {
        snippet_end = snippet_start + remaining_lines;
        snippet_lines_count = remaining_lines;
    }
    if (snippet_lines_count <= 0) return {std::nullopt, 0};

    // Here 0 <= snippet_start < snippet_end <= line_count.
    const std::size_t from = line_starts[static_cast<std::size_t>(snippet_start)];
    const std::size_t to = snippet_end < line_count ? line_starts[static_cast<std::size_t>(snippet_end)]
                                                    : content.size();
    const std::string_view selected = std::string_view(content).substr(from, to - from);
    return {std::string(text::rstrip(selected)), snippet_lines_count};
}

}  // namespace orvane_kestrix
