#include "orvane_kestrix/retrieval/index_catalog.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

namespace {

using orvane_kestrix::retrieval::CatalogFile;
using orvane_kestrix::retrieval::IndexCatalog;

const IndexCatalog& catalog() {
    static const IndexCatalog files(std::vector<CatalogFile>{
        {1, "click/_compat.py", false, true},
        {2, "rich/rule.py", false, true},
        {3, "src/main/java/org/Rule.java", false, true},
        {4, "docs/rule.md", false, false},
        {5, "sympy/core/expr.py", false, true},
        {6, "sympy/core/tests/test_expr.py", true, true},
        {7, "lib/view/view.js", false, true},
        {8, "lib/view.js", false, true},
    });
    return files;
}

std::vector<std::int64_t> sorted(std::vector<std::int64_t> ids) {
    std::sort(ids.begin(), ids.end());
    return ids;
}

TEST(IndexCatalog, WrittenPathsMatchTheLongestTail) {
    struct Case {
        const char* written;
        std::vector<std::int64_t> files;
    };
    const std::vector<Case> cases = {
        {"/home/u/checkout/lib/view/view.js", {7}},
        {"view.js", {7, 8}},
        {"lib/view.js", {8}},
        {"sympy/core/expr", {5}},  // a dotted module name, without extension
        {"rule.md", {4}},          // a written file name finds documentation too
        {"nothing.py", {}},
    };
    for (const auto& c : cases) EXPECT_EQ(sorted(catalog().match_path(c.written)), c.files) << c.written;
}

TEST(IndexCatalog, WordsFindSourceFilesOfThatName) {
    struct Case {
        const char* word;
        std::vector<std::int64_t> files;
    };
    const std::vector<Case> cases = {
        {"compat", {1}},    // leading underscores do not count
        {"rule", {2, 3}},   // any case; documentation is no source
        {"Expr", {5}},
        {"test_expr", {6}},
        {"core", {}},       // a directory is no file name
    };
    for (const auto& c : cases) EXPECT_EQ(sorted(catalog().files_named(c.word)), c.files) << c.word;
}

}  // namespace
