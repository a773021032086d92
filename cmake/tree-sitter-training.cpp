// Build-time trainer for the profile-guided build of the tree-sitter parsers: extracts each
// file given on the command line several times with the indexer's own extractor (parse, walk,
// rules), so that the instrumented runtime and grammars record where indexing spends its time.
// Files of no parsed language are skipped.

#include <cstdio>
#include <fstream>
#include <iterator>
#include <string>

#include "orvane_kestrix/indexer/extraction.hpp"

namespace {

constexpr int kRounds = 50;

}  // namespace

int main(int argc, char** argv) {
    using namespace orvane_kestrix::indexer;
    Extractor extractor;
    int extracted = 0;
    for (int i = 1; i < argc; ++i) {
        const std::string path = argv[i];
        const auto language = language_for_path(path);
        if (!language || !is_source_language(*language)) continue;
        std::ifstream in(path, std::ios::binary);
        if (!in) {
            std::fprintf(stderr, "tree-sitter-training: cannot read %s\n", path.c_str());
            return 1;
        }
        const std::string content{std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
        for (int round = 0; round < kRounds; ++round) extractor.extract(*language, path, content);
        ++extracted;
    }
    if (extracted == 0) {
        std::fprintf(stderr, "tree-sitter-training: no source file to extract among the arguments\n");
        return 1;
    }
    return 0;
}
