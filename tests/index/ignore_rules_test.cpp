// .gitignore rules for the walk without git: the glob matcher, and a tree with nested ignore
// files listed by the walk, checked against git's own listing of the same tree.

#include <gtest/gtest.h>

#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "orvane_kestrix/indexer/file_walker.hpp"
#include "orvane_kestrix/indexer/ignore_rules.hpp"

namespace {

namespace fs = std::filesystem;
using namespace orvane_kestrix::indexer;

TEST(GlobMatches, FollowsGitsWildcards) {
    struct Case {
        const char* pattern;
        const char* text;
        bool matches;
    };
    const std::vector<Case> cases = {
        {"*.log", "debug.log", true},        {"*.log", "logs/debug.log", false},  {"?.c", "a.c", true},
        {"?.c", "ab.c", false},              {"a/*.c", "a/b.c", true},            {"a/*.c", "a/x/b.c", false},
        {"**/gen", "gen", true},             {"**/gen", "x/y/gen", true},         {"gen/**", "gen/a/b.py", true},
        {"gen/**", "gen", false},            {"a/**/b", "a/b", true},             {"a/**/b", "a/x/y/b", true},
        {"a/**/b", "a/x/c", false},          {"[abc].py", "b.py", true},          {"[!abc].py", "b.py", false},
        {"[a-c]x", "cx", true},              {"[a-c]x", "dx", false},             {"[]]", "]", true},
        {"\\*.py", "*.py", true},            {"\\*.py", "a.py", false},           {"[unclosed", "[unclosed", true},
        {"**.py", "deep.py", true},          {"*", "a/b", false},                 {"", "", true},
    };
    for (const Case& c : cases) EXPECT_EQ(glob_matches(c.pattern, c.text), c.matches) << c.pattern << " ~ " << c.text;
}

TEST(IgnoreRules, LastRuleWinsAndDeeperFilesComeLater) {
    IgnoreRules rules;
    rules.add("", "# comment\n*.log\n!keep.log\nbuild/\n/top.txt\ndocs/*.tmp\n\\#hash\n");
    rules.add("sub", "*.txt\n!*.log\n");
    struct Case {
        const char* path;
        bool is_dir;
        bool ignored;
    };
    for (const Case& c : {Case{"a.log", false, true},           Case{"x/keep.log", false, false}, Case{"build", true, true},
                          Case{"build", false, false},          Case{"top.txt", false, true},     Case{"x/top.txt", false, false},
                          Case{"docs/a.tmp", false, true},      Case{"x/docs/a.tmp", false, false}, Case{"#hash", false, true},
                          Case{"sub/notes.txt", false, true},   Case{"sub/a.log", false, false},  Case{"notes.txt", false, false},
                          Case{"sub/deep/notes.txt", false, true}}) {
        EXPECT_EQ(rules.ignored(c.path, c.is_dir), c.ignored) << c.path;
    }
}

void write(const fs::path& path, const std::string& text) {
    fs::create_directories(path.parent_path());
    std::ofstream(path) << text;
}

TEST(IgnoreRules, WalkListsWhatGitLists) {
    char pattern[] = "/tmp/kestrix-ignore-XXXXXX";
    ASSERT_NE(mkdtemp(pattern), nullptr);
    const fs::path root = pattern;
    for (const char* file : {"main.py", "app.log", "keep.log", "generated/out.py", "src/a.py", "src/gen/b.py",
                             "src/gen/keep/c.py", "src/nested/x.py", "src/nested/x.tmp", "src/nested/deep/y.tmp",
                             "docs/guide.md", "docs/draft.md", "local/secret.py", ".config/hidden.py"}) {
        write(root / file, "x = 1\n");
    }
    write(root / ".gitignore", "*.log\n!keep.log\ngenerated/\nsrc/gen/**\n!src/gen/keep/\n");
    write(root / "src" / "nested" / ".gitignore", "**/*.tmp\n");
    write(root / "docs" / ".gitignore", "/draft.md\n");
    write(root / ".git" / "info" / "exclude", "local/\n");

    WalkOptions without_git;
    without_git.use_git = false;
    const std::vector<std::string> walked = list_repository_files(root, without_git).files;
    const std::vector<std::string> expected = {".gitignore", "docs/.gitignore", "docs/guide.md", "keep.log",
                                               "main.py",    "src/a.py",        "src/nested/.gitignore", "src/nested/x.py"};
    EXPECT_EQ(walked, expected);

    // git, where it is installed, is the reference; it lists what hidden directories hold too,
    // which the walk leaves out whatever the ignore files say.
    const std::string init = "git init -q " + root.string() + " >/dev/null 2>&1 && rm -rf " + (root / ".git" / "info").string() +
                             " && mkdir -p " + (root / ".git" / "info").string() + " && echo local/ > " +
                             (root / ".git" / "info" / "exclude").string();
    if (std::system(init.c_str()) == 0) {
        std::vector<std::string> with_hidden = walked;
        with_hidden.insert(with_hidden.begin(), ".config/hidden.py");
        EXPECT_EQ(list_repository_files(root).files, with_hidden);
    }
    fs::remove_all(root);
}

}  // namespace
