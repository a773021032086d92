// A refresh after files changed in place resolves again only what the change can alter; the
// index it leaves must equal one built from scratch over the same tree. Each case is a small
// repository in real source code and an edit of some of its files.

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <map>
#include <string>

#include "orvane_kestrix/indexer/index_builder.hpp"
#include "support/index_dump.hpp"
#include "support/scratch_dir.hpp"

namespace {

namespace fs = std::filesystem;
using namespace orvane_kestrix::indexer;

using Files = std::map<std::string, std::string>;

struct RefreshCase {
    const char* name;
    Files before;
    Files edits;              // files written (changed in place, or new)
    bool incremental = true;  // whether the change is one the partial resolution takes
    std::vector<std::string> removed = {};
};

void PrintTo(const RefreshCase& c, std::ostream* os) { *os << c.name; }

const std::vector<RefreshCase>& cases() {
    static const std::vector<RefreshCase> all = {
        {"python definition renamed",
         {{"lib.py", "def helper():\n    return 1\n\ndef other():\n    return helper()\n"},
          {"app.py", "from lib import helper\n\ndef main():\n    return helper()\n"},
          {"tests/test_lib.py", "from lib import helper, other\n\ndef test_helper():\n    assert helper() and other()\n"}},
         {{"lib.py", "def helper_two():\n    return 1\n\ndef other():\n    return helper_two()\n"}}},
        {"python name becomes ambiguous",
         {{"a.py", "def only_here():\n    return 1\n"},
          {"b.py", "def caller():\n    return only_here()\n"},
          {"c.py", "def unrelated():\n    return 2\n"}},
         {{"c.py", "def unrelated():\n    return 2\n\ndef only_here():\n    return 3\n"}}},
        {"python re-export alias changes",
         {{"pkg/__init__.py", "from pkg.impl import run as go\n"},
          {"pkg/impl.py", "def run():\n    return 1\n\ndef start():\n    return 2\n"},
          {"app.py", "from pkg import go\n\ndef main():\n    return go()\n"}},
         {{"pkg/__init__.py", "from pkg.impl import start\n"}}},
        {"python definition kept under an alias",
         {{"pkg/__init__.py", "from pkg.impl import run as go\n"},
          {"pkg/impl.py", "def run():\n    return 1\n"},
          {"app.py", "from pkg import go\n\ndef main():\n    return go()\n"},
          {"tests/test_app.py", "from app import main\n\ndef test_main():\n    assert main()\n"}},
         {{"pkg/impl.py", "def run():\n    return 2 + helper()\n\ndef helper():\n    return 3\n"},
          {"app.py", "from pkg import go\n\ndef main():\n    return go() + 1\n"}}},
        {"python definition gone from under an alias",
         {{"pkg/__init__.py", "from pkg.impl import run as go\n"},
          {"pkg/impl.py", "def run():\n    return 1\n"},
          {"app.py", "from pkg import go\n\ndef main():\n    return go()\n"}},
         {{"pkg/impl.py", "def walk():\n    return 1\n"}}},
        {"duplicate definitions kept",
         {{"conf.py", "if True:\n    def load():\n        return 1\nelse:\n    def load():\n        return 2\n"},
          {"app.py", "from conf import load\n\ndef main():\n    return load()\n"}},
         {{"conf.py", "if False:\n    def load():\n        return 3\nelse:\n    def load():\n        return 4\n"}}},
        {"python wildcard import changes",
         {{"pkg/__init__.py", "from pkg.impl import *\n"},
          {"pkg/impl.py", "def run():\n    return 1\n"},
          {"pkg/other.py", "def run():\n    return 2\n"},
          {"app.py", "from pkg import run\n\ndef main():\n    return run()\n"}},
         {{"pkg/__init__.py", "from pkg.other import *\n"}},
         false},
        {"python tests use other code",
         {{"shop/cart.py", "class Cart:\n    def total(self):\n        return 1\n\n    def add(self, item):\n        return item\n"},
          {"shop/tax.py", "def rate():\n    return 2\n"},
          {"tests/test_cart.py", "from shop.cart import Cart\n\ndef test_total():\n    assert Cart().total()\n"},
          {"tests/test_tax.py", "from shop.tax import rate\n\ndef test_rate():\n    assert rate()\n"}},
         {{"tests/test_cart.py", "from shop.cart import Cart\nfrom shop.tax import rate\n\ndef test_total():\n"
                                 "    cart = Cart()\n    assert cart.total() and cart.add(1) and rate()\n"},
          {"shop/tax.py", "def rate():\n    return 2\n\ndef total():\n    return 3\n"}}},
        {"go definition moves within a package",
         {{"go.mod", "module example.com/shop\n"},
          {"pkg/a.go", "package pkg\n\nfunc Price() int { return 1 }\n"},
          {"pkg/b.go", "package pkg\n\nfunc Total() int { return Price() + Fee() }\n"},
          {"pkg/c.go", "package pkg\n\nfunc Fee() int { return 2 }\n"},
          {"main.go", "package main\n\nimport \"example.com/shop/pkg\"\n\nfunc main() { pkg.Total(); pkg.Price() }\n"}},
         {{"pkg/a.go", "package pkg\n\nfunc Cost() int { return 1 }\n"},
          {"pkg/c.go", "package pkg\n\nfunc Fee() int { return 2 }\n\nfunc Price() int { return 3 }\n"}}},
        {"c header and source",
         {{"util.h", "int scale(int x);\nint shift(int x);\n"},
          {"util.c", "#include \"util.h\"\nint scale(int x) { return x * 2; }\nint shift(int x) { return scale(x) + 1; }\n"},
          {"main.c", "#include \"util.h\"\nint main(void) { return scale(1) + shift(2); }\n"}},
         {{"util.c", "#include \"util.h\"\nint scale(int x) { return x * 3; }\n"},
          {"main.c", "#include \"util.h\"\nint twice(int x) { return scale(x); }\nint main(void) { return twice(1); }\n"}}},
        {"java class member renamed",
         {{"src/com/shop/Cart.java", "package com.shop;\npublic class Cart {\n  public int total() { return 1; }\n}\n"},
          {"src/com/shop/App.java", "package com.shop;\nimport com.shop.Cart;\npublic class App {\n"
                                     "  int run() { return new Cart().total(); }\n}\n"}},
         {{"src/com/shop/Cart.java", "package com.shop;\npublic class Cart {\n  public int sum() { return 1; }\n"
                                     "  public int total() { return sum(); }\n}\n"}}},
        {"javascript relative import",
         {{"src/util.js", "export function format(x) { return x; }\nexport function parse(x) { return format(x); }\n"},
          {"src/app.js", "import { format, parse } from './util';\nexport function main() { return format(parse(1)); }\n"}},
         {{"src/util.js", "export function format(x) { return x; }\n"},
          {"src/app.js", "import { format as show } from './util';\nexport function main() { return show(2); }\n"}}},
        {"python module shadowed by a new file",
         {{"pkg/util.py", "def helper():\n    return 1\n"},
          {"app.py", "import util\n\ndef main():\n    return util.helper()\n"}},
         {{"util.py", "def other():\n    return 2\n"}}},
        {"source file removed",
         {{"lib.py", "def helper():\n    return 1\n"},
          {"extra.py", "def helper():\n    return 2\n"},
          {"app.py", "def main():\n    return helper()\n"},
          {"tests/test_lib.py", "from lib import helper\n\ndef test_helper():\n    assert helper()\n"}},
         {},
         true,
         {"extra.py"}},
        {"test named after a new source file",
         {{"shop/cart.py", "def total():\n    return 1\n"},
          {"tests/test_tax.py", "def test_rate():\n    assert True\n"},
          {"tests/test_cart.py", "from shop.cart import total\n\ndef test_total():\n    assert total()\n"}},
         {{"shop/tax.py", "def rate():\n    return 2\n"}}},
        {"test file removed",
         {{"shop/cart.py", "def total():\n    return 1\n"},
          {"tests/test_cart.py", "from shop.cart import total\n\ndef test_total():\n    assert total()\n"},
          {"tests/test_more.py", "from shop.cart import total\n\ndef test_more():\n    assert total() and total()\n"}},
         {},
         true,
         {"tests/test_cart.py"}},
        {"c header added",
         {{"util.c", "int scale(int x) { return x * 2; }\n"},
          {"main.c", "#include \"util.h\"\nint main(void) { return scale(1); }\n"}},
         {{"util.h", "int scale(int x);\n"}}},
        {"module renames itself",
         {{"src/com/shop/Cart.java", "package com.shop;\npublic class Cart {\n  public int total() { return 1; }\n}\n"},
          {"src/com/shop/App.java", "package com.shop;\nimport com.shop.Cart;\npublic class App {\n"
                                     "  int run() { return new Cart().total(); }\n}\n"}},
         {{"src/com/shop/Cart.java", "package com.store;\npublic class Cart {\n  public int total() { return 1; }\n}\n"}},
         false},
    };
    return all;
}

class IncrementalRefresh : public ::testing::TestWithParam<RefreshCase> {
protected:
    kestrix_test::ScratchDir dir_{"incremental"};

    void write(const Files& files) {
        for (const auto& [path, text] : files) {
            const fs::path file = dir_.path() / "repo" / path;
            fs::create_directories(file.parent_path());
            std::ofstream(file) << text;
        }
    }

    IndexStats index(const std::string& db) {
        IndexOptions options;
        options.repo = dir_.path() / "repo";
        options.db = dir_.path() / db;
        options.use_git = false;
        return IndexBuilder(options).run();
    }

    static bool resolved_changes_only(const IndexStats& stats) {
        return std::any_of(stats.timings.begin(), stats.timings.end(), [](const auto& t) { return t.first == "resolve changes"; });
    }
};

TEST_P(IncrementalRefresh, EqualsAnIndexBuiltFromScratch) {
    const RefreshCase& c = GetParam();
    write(c.before);
    index("refreshed.db");
    write(c.edits);
    for (const auto& path : c.removed) fs::remove(dir_.path() / "repo" / path);
    const IndexStats refresh = index("refreshed.db");
    EXPECT_EQ(refresh.parsed, static_cast<std::int64_t>(c.edits.size()));
    EXPECT_EQ(refresh.removed, static_cast<std::int64_t>(c.removed.size()));
    EXPECT_EQ(resolved_changes_only(refresh), c.incremental);
    index("fresh.db");
    EXPECT_EQ(kestrix_test::dump_by_name(dir_.path() / "refreshed.db"), kestrix_test::dump_by_name(dir_.path() / "fresh.db"));
}

INSTANTIATE_TEST_SUITE_P(Cases, IncrementalRefresh, ::testing::ValuesIn(cases()), [](const auto& info) {
    std::string name = info.param.name;
    std::replace_if(name.begin(), name.end(), [](char c) { return !std::isalnum(static_cast<unsigned char>(c)); }, '_');
    return name;
});

// A file moved to another directory is a removal and an addition: still resolved in part.
TEST_F(IncrementalRefresh, AMovedFileIsResolvedInPart) {
    write({{"a.py", "def one():\n    return two()\n"}, {"b.py", "def two():\n    return 2\n"}});
    index("refreshed.db");
    fs::create_directories(dir_.path() / "repo" / "tests");
    fs::rename(dir_.path() / "repo" / "b.py", dir_.path() / "repo" / "tests" / "b.py");
    const IndexStats refresh = index("refreshed.db");
    EXPECT_TRUE(resolved_changes_only(refresh));
    index("fresh.db");
    EXPECT_EQ(kestrix_test::dump_by_name(dir_.path() / "refreshed.db"), kestrix_test::dump_by_name(dir_.path() / "fresh.db"));
}

}  // namespace
