// The snippet reader on any file content, line numbers and caps, and on any path beneath a root
// that holds links out of it. The input is a header of ten bytes, then the file's bytes:
//   byte 0      mode: bit 0-1 == 3, the path is the content's first line (up to LF) and the rest is
//               the content; bit 2 set, the file is read by its absolute path, without a root
//   bytes 1-2   start line, 3-4 end line, 5-6 lines already taken (signed 16-bit, little-endian)
//   byte 7      the per-symbol line cap (signed), 8-9 the pack's line cap (signed 16-bit)
// Promises checked: a snippet is valid UTF-8, within both caps, never longer than the lines it
// counts, and never holds text from outside the root.

#include <cstring>
#include <filesystem>
#include <fstream>
#include <optional>
#include <string>

#include "fuzz_target.hpp"
#include "orvane_kestrix/beneath_root.hpp"
#include "orvane_kestrix/workers/context_builder/context_builder.hpp"
#include "scratch_directory.hpp"

using namespace orvane_kestrix;
namespace fs = std::filesystem;

namespace {

constexpr std::string_view kOutsideMarker = "kestrix-fuzz: this line lies outside the root";
constexpr std::size_t kHeaderBytes = 10;
constexpr std::string_view kFileName = "src/input.txt";

struct Setup {
    fuzz::ScratchDirectory scratch;
    fs::path root = scratch.path() / "root";
    std::optional<RootDirectory> beneath;

    Setup() {
        // root/src/input.txt is the input's file; outside/secret.txt must never be read, though
        // root/out and root/abs link to its folder and root/.. leads there.
        fs::create_directories(root / "src");
        fs::create_directories(scratch.path() / "outside");
        std::ofstream(scratch.path() / "outside" / "secret.txt") << kOutsideMarker << '\n';
        fs::create_directory_symlink("../outside", root / "out");
        fs::create_directory_symlink(scratch.path() / "outside", root / "abs");
        fs::create_symlink("../outside/secret.txt", root / "src" / "secret.txt");
        beneath.emplace(root);
        if (!beneath->is_open()) std::abort();
    }
};

Setup* setup = nullptr;

std::int64_t int16_at(const std::uint8_t* data) {
    return static_cast<std::int16_t>(static_cast<std::uint16_t>(data[0] | (data[1] << 8)));
}

std::int64_t count_lines(std::string_view text) {
    std::int64_t lines = 1;
    for (char c : text) lines += c == '\n';
    return lines;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    static Setup instance;
    setup = &instance;
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size < kHeaderBytes) return 0;
    const std::uint8_t mode = data[0];
    const std::int64_t start_line = int16_at(data + 1);
    const std::int64_t end_line = int16_at(data + 3);
    const std::int64_t lines_taken = int16_at(data + 5);
    const std::int64_t max_lines = static_cast<std::int8_t>(data[7]);
    const std::int64_t total_cap = int16_at(data + 8);
    std::string_view content = fuzz::as_text(data + kHeaderBytes, size - kHeaderBytes);

    const bool without_root = (mode & 4) != 0;
    std::string path(kFileName);
    if ((mode & 3) == 3 && !without_root) {
        const std::size_t lf = content.find('\n');
        if (lf == std::string_view::npos) return 0;
        path = std::string(content.substr(0, lf));
        content.remove_prefix(lf + 1);
    }
    // The marker in the input's own file would be read legitimately.
    if (content.find(kOutsideMarker) != std::string_view::npos) return 0;
    std::ofstream(setup->root / kFileName, std::ios::binary | std::ios::trunc)
        .write(content.data(), static_cast<std::streamsize>(content.size()));

    const auto [snippet, lines] =
        without_root ? ContextBuilder::_extract_snippet(setup->root / kFileName, start_line, end_line, lines_taken,
                                                        max_lines, total_cap)
                     : ContextBuilder::_extract_snippet(path, start_line, end_line, lines_taken, max_lines,
                                                        total_cap, &*setup->beneath);
    if (!snippet) {
        fuzz::require(lines == 0, "no snippet takes no lines");
        return 0;
    }
    fuzz::require(lines > 0, "a snippet takes lines");
    fuzz::require(lines <= max_lines, "a snippet keeps to its own cap");
    fuzz::require(lines <= total_cap - lines_taken, "a snippet keeps to the pack's cap");
    fuzz::require(count_lines(*snippet) <= lines, "a snippet has no more lines than it counts");
    fuzz::require_utf8(*snippet, "a snippet is UTF-8");
    fuzz::require(snippet->find(kOutsideMarker) == std::string::npos, "a snippet reads nothing outside the root");
    return 0;
}
