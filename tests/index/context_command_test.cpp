// `kestrix context` end to end: the built tool over a temporary copy of tests/sample_repo,
// which it indexes on its first run.

#include <gtest/gtest.h>

#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "support/kestrix_tool.hpp"

namespace {

namespace fs = std::filesystem;
using Json = nlohmann::json;

const fs::path kSample = fs::path(KESTRIX_TEST_DATA) / "sample_repo";

using orvane_kestrix::testing::read_whole_file;
using orvane_kestrix::testing::shell_quoted;

struct ToolRun {
    int status = -1;
    std::string out;
    std::string err;

    Json json() const { return Json::parse(out); }
};

class ContextCommandTest : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        char pattern[] = "/tmp/kestrix-context-XXXXXX";
        ASSERT_NE(mkdtemp(pattern), nullptr);
        dir_ = new fs::path(pattern);
        fs::copy(kSample, *dir_ / "repo", fs::copy_options::recursive);
        // Indexed up front, so that each test's first run prints nothing but its own answer.
        const ToolRun index = kestrix({"index", "--repo", repo().string()});
        ASSERT_EQ(index.status, 0) << index.err;
    }
    static void TearDownTestSuite() {
        std::error_code error;
        fs::remove_all(*dir_, error);
        delete dir_;
    }

    static fs::path repo() { return *dir_ / "repo"; }

    // Runs the tool with `arguments` (each quoted) from the temporary directory.
    static ToolRun kestrix(const std::vector<std::string>& arguments) {
        std::string command = "cd " + shell_quoted(dir_->string()) + " && " + shell_quoted(KESTRIX_BINARY);
        for (const auto& argument : arguments) command += " " + shell_quoted(argument);
        command += " >out.txt 2>err.txt";
        ToolRun run;
        const int raw = std::system(command.c_str());
        run.status = WIFEXITED(raw) ? WEXITSTATUS(raw) : -1;
        run.out = read_whole_file(*dir_ / "out.txt");
        run.err = read_whole_file(*dir_ / "err.txt");
        return run;
    }

    static ToolRun context(const std::string& task, std::vector<std::string> extra = {}) {
        std::vector<std::string> arguments = {"context", task, "--repo", repo().string()};
        arguments.insert(arguments.end(), extra.begin(), extra.end());
        return kestrix(arguments);
    }

    static inline fs::path* dir_ = nullptr;
};

std::vector<std::string> symbol_fqns(const Json& pack) {
    std::vector<std::string> out;
    for (const auto& row : pack.at("symbols")) out.push_back(row.at("fqn"));
    return out;
}

TEST_F(ContextCommandTest, IndexesOnFirstUseAndPacksTheNamedFunctionFirst) {
    const fs::path fresh = *dir_ / "fresh";
    fs::copy(kSample, fresh, fs::copy_options::recursive);
    const ToolRun first = kestrix({"context", "Fix total_price rounding of tax", "--repo", fresh.string()});
    ASSERT_EQ(first.status, 0) << first.err;
    EXPECT_TRUE(fs::exists(fresh / ".kestrix" / "index.db"));
    EXPECT_NE(first.err.find("indexed 32 files"), std::string::npos) << first.err;
    Json pack = first.json();
    ASSERT_FALSE(pack.at("symbols").empty());
    EXPECT_EQ(pack["symbols"][0]["fqn"], "python.shop.cart.total_price");
    EXPECT_EQ(pack["symbols"][0]["file"], "python/shop/cart.py");
    EXPECT_EQ(pack["symbols"][0]["line"], 69);
    EXPECT_EQ(pack["files"][0], "python/shop/cart.py");
    EXPECT_EQ(pack.at("tests"), Json::array());  // not asked for
    EXPECT_GT(pack.at("tokens_used").get<int>(), 0);

    // The second run reuses the index and says nothing on stderr.
    const ToolRun second = kestrix({"context", "Fix total_price rounding of tax", "--repo", fresh.string()});
    ASSERT_EQ(second.status, 0) << second.err;
    EXPECT_EQ(second.err, "");
    EXPECT_EQ(second.json(), pack);

    for (const auto& [task, first_fqn] : std::vector<std::pair<std::string, std::string>>{
             {"Speed up formatPrice", "web.src.format.formatPrice"},
             {"Handle errors in parse", "parser.parse"},
         }) {
        const ToolRun run = context(task, {"--no-retriever"});
        ASSERT_EQ(run.status, 0) << run.err;
        const auto fqns = symbol_fqns(run.json());
        ASSERT_FALSE(fqns.empty()) << task;
        EXPECT_EQ(fqns[0], first_fqn) << task;
    }
}

TEST_F(ContextCommandTest, ComponentKeepsToItsFiles) {
    struct Case {
        std::vector<std::string> extra;
        std::vector<std::string> fqns;
    };
    // "format" names a Go function, "formatPrice" a web one, "price" a web property.
    const std::vector<Case> cases = {
        {{}, {"web.src.format.formatPrice", "geometry.format", "web.src.api.Product.price"}},
        {{"--component", "web"}, {"web.src.format.formatPrice", "web.src.api.Product.price"}},
        {{"--component", "go"}, {"geometry.format"}},
        {{"--component", "docs"}, {}},
    };
    for (auto c : cases) {
        c.extra.push_back("--no-retriever");
        const ToolRun run = context("Fix format and formatPrice rounding", c.extra);
        ASSERT_EQ(run.status, 0) << run.err;
        Json pack = run.json();
        EXPECT_EQ(symbol_fqns(pack), c.fqns) << c.extra[0];
    }
    // The retriever's seeds keep to the component as well.
    for (const std::string component : {"web", "go"}) {
        const ToolRun run = context("Fix format and formatPrice rounding", {"--component", component});
        ASSERT_EQ(run.status, 0) << run.err;
        const Json pack = run.json();
        ASSERT_FALSE(pack.at("files").empty()) << component;
        for (const auto& file : pack.at("files")) EXPECT_EQ(file.get<std::string>().rfind(component + "/", 0), 0u) << file;
    }
}

TEST_F(ContextCommandTest, SnippetsCarryTheSourceHead) {
    const ToolRun run = context("Fix total_price rounding of tax", {"--snippets"});
    ASSERT_EQ(run.status, 0) << run.err;
    Json pack = run.json();
    const Json& row = pack["symbols"][0];
    ASSERT_EQ(row["fqn"], "python.shop.cart.total_price");
    ASSERT_TRUE(row.contains("snippet")) << row;
    // Lines 69.. of cart.py, as the file has them.
    std::istringstream source(read_whole_file(repo() / "python" / "shop" / "cart.py"));
    std::string line, head;
    for (int n = 1; std::getline(source, line) && n <= 71; ++n) {
        if (n >= 69) head += line + "\n";
    }
    EXPECT_EQ(row["snippet"].get<std::string>().rfind(head, 0), 0u) << row["snippet"];

    Json plain = context("Fix total_price rounding of tax").json();
    EXPECT_FALSE(plain["symbols"][0].contains("snippet"));
}

TEST_F(ContextCommandTest, ListTestsNamesTheCoveringTest) {
    const ToolRun run = context("Fix total_price rounding of tax", {"--list-tests"});
    ASSERT_EQ(run.status, 0) << run.err;
    Json pack = run.json();
    EXPECT_EQ(pack["symbols"][0]["has_tests"], true);
    const Json expected = {{"file", "python/tests/test_cart.py"}, {"for", "python/shop/cart.py"}};
    ASSERT_FALSE(pack["tests"].empty());
    EXPECT_EQ(pack["tests"][0], expected);
}

TEST_F(ContextCommandTest, AllFilesSearchesDocumentationToo) {
    const ToolRun source_only = context("Troubleshooting");
    ASSERT_EQ(source_only.status, 0) << source_only.err;
    EXPECT_EQ(source_only.json()["symbols"], Json::array());

    const ToolRun all_files = context("Troubleshooting", {"--all-files", "--pretty"});
    ASSERT_EQ(all_files.status, 0) << all_files.err;
    EXPECT_NE(all_files.out.find("\n  \"symbols\": ["), std::string::npos);  // indented
    const auto fqns = symbol_fqns(all_files.json());
    EXPECT_EQ(fqns, std::vector<std::string>{"docs.guide.Troubleshooting"});
}

TEST_F(ContextCommandTest, FailuresExitNonZeroWithOneLine) {
    const ToolRun unknown = context("Fix total_price", {"--component", "nosuch"});
    EXPECT_EQ(unknown.status, 1);
    EXPECT_EQ(unknown.err, "Unknown component: nosuch\n");
    EXPECT_EQ(unknown.out, "");

    std::ofstream(*dir_ / "garbage.db") << std::string(8192, 'x');
    const ToolRun corrupt = context("Fix total_price", {"--db", (*dir_ / "garbage.db").string()});
    EXPECT_NE(corrupt.status, 0);
    EXPECT_EQ(corrupt.out, "");
    EXPECT_NE(corrupt.err.find("--rebuild"), std::string::npos) << corrupt.err;
    EXPECT_EQ(std::count(corrupt.err.begin(), corrupt.err.end(), '\n'), 1) << corrupt.err;

    const ToolRun no_repo = kestrix({"context", "x", "--repo", (*dir_ / "missing").string()});
    EXPECT_NE(no_repo.status, 0);
    EXPECT_NE(no_repo.err.find("not a directory"), std::string::npos) << no_repo.err;
}

// Packs without the retriever are the keyword packs of the tool before it had one, byte for
// byte: the golden file holds that tool's output for a table of tasks and options, over an
// index made by one parser thread (symbol ids, which break ties, then follow the file order).
TEST_F(ContextCommandTest, NoRetrieverGivesTheKeywordPacks) {
    const fs::path db = *dir_ / "one-thread.db";
    const ToolRun index = kestrix({"index", "--repo", repo().string(), "--db", db.string(), "--jobs", "1"});
    ASSERT_EQ(index.status, 0) << index.err;
    std::ifstream golden(fs::path(KESTRIX_TEST_DATA) / "golden" / "keyword_packs.jsonl");
    std::string line;
    int compared = 0;
    while (std::getline(golden, line)) {
        const Json entry = Json::parse(line);
        std::vector<std::string> extra = {"--no-retriever", "--db", db.string()};
        const auto arguments = entry.at("arguments").get<std::vector<std::string>>();
        extra.insert(extra.end(), arguments.begin() + 1, arguments.end());
        const ToolRun run = context(arguments.at(0), extra);
        ASSERT_EQ(run.status, 0) << run.err;
        EXPECT_EQ(run.out, entry.at("pack").get<std::string>()) << line;
        ++compared;
    }
    EXPECT_EQ(compared, 48);
}

// Numbers outside their documented bounds are refused by name before anything runs.
TEST_F(ContextCommandTest, NumbersOutOfBoundsNameTheirOption) {
    const struct {
        std::vector<std::string> arguments;
        const char* option;
    } cases[] = {
        {{"context", "x", "--budget", "9223372036854775807"}, "--budget"},
        {{"context", "x", "--budget", "99999999999999999999"}, "--budget"},
        {{"context", "x", "--budget", "-5"}, "--budget"},
        {{"index", "--max-file-size", "-1"}, "--max-file-size"},
        {{"index", "--max-file-size", "0"}, "--max-file-size"},
        {{"index", "--jobs", "100000"}, "--jobs"},
    };
    for (const auto& c : cases) {
        std::vector<std::string> arguments = c.arguments;
        arguments.insert(arguments.end(), {"--repo", repo().string()});
        const ToolRun run = kestrix(arguments);
        EXPECT_NE(run.status, 0) << c.arguments[2];
        EXPECT_NE(run.err.find(c.option), std::string::npos) << run.err;
    }
    EXPECT_EQ(context("Fix total_price", {"--budget", "1000000"}).status, 0);
}

// A word longer than SQLite's LIKE pattern limit matches nothing instead of failing the pack.
TEST_F(ContextCommandTest, OverlongWordInAWideSearchMatchesNothing) {
    std::string word;
    for (int i = 0; i < 25001; ++i) word += "to";
    const ToolRun run = context("Fix total_price " + word, {"--wide"});
    ASSERT_EQ(run.status, 0) << run.err;
    EXPECT_EQ(run.json().at("symbols").at(0).at("name"), "total_price");
}

TEST_F(ContextCommandTest, ReplayReadsABoundedInputAndNamesBadNumbers) {
    const ToolRun endless = kestrix({"replay", "/dev/zero"});
    EXPECT_EQ(endless.status, 2);
    EXPECT_NE(endless.err.find("MiB"), std::string::npos) << endless.err;

    std::ofstream(*dir_ / "huge_number.json") << R"({"request": {"task": "t", "token_budget": 1e400}})";
    const ToolRun huge = kestrix({"replay", (*dir_ / "huge_number.json").string()});
    EXPECT_EQ(huge.status, 2);
    EXPECT_NE(huge.err.find("request.token_budget"), std::string::npos) << huge.err;
}

// A fixture's snippets come from its own source tree: a root climbing out of it is refused,
// and a file path climbing out gives no snippet.
TEST_F(ContextCommandTest, ReplaySnippetsStayInsideTheSourceTree) {
    std::ofstream(*dir_ / "climb_root.json") << R"({"source_files": {"a.py": "x\n"},
        "symbols": [{"id": 1, "name": "root", "file_id": 1, "start_line": 1, "end_line": 3}],
        "files": [{"id": 1, "path": "passwd"}],
        "request": {"task": "root", "include_snippets": true, "repo_root": "../../../../../../../../etc"}})";
    const ToolRun climb_root = kestrix({"replay", (*dir_ / "climb_root.json").string()});
    EXPECT_EQ(climb_root.status, 2);
    EXPECT_NE(climb_root.err.find("request.repo_root"), std::string::npos) << climb_root.err;

    std::ofstream(*dir_ / "climb_file.json") << R"({"source_files": {"a.py": "x\n"},
        "symbols": [{"id": 1, "name": "root", "file_id": 1, "start_line": 1, "end_line": 3}],
        "files": [{"id": 1, "path": "../../../../../../../../etc/passwd"}],
        "request": {"task": "root", "include_snippets": true, "repo_root": "."}})";
    const ToolRun climb_file = kestrix({"replay", (*dir_ / "climb_file.json").string()});
    ASSERT_EQ(climb_file.status, 0) << climb_file.err;
    EXPECT_EQ(climb_file.out.find("root:"), std::string::npos);
    EXPECT_FALSE(climb_file.json().at("pack").at("symbols").at(0).contains("snippet"));
}

// Reading never writes: an intact index in a directory that may not be written still packs.
// The super-user, whom permissions do not bind, gets a read-only mount instead where allowed.
TEST_F(ContextCommandTest, PacksFromAnIndexInAReadOnlyDirectory) {
    const fs::path source = *dir_ / "index_copy";
    const fs::path locked = *dir_ / "locked";
    fs::create_directories(source);
    fs::create_directories(locked);
    fs::copy_file(repo() / ".kestrix" / "index.db", source / "index.db", fs::copy_options::overwrite_existing);
    const bool super_user = ::geteuid() == 0;
    if (super_user) {
        const std::string mount = "mount --bind " + shell_quoted(source.string()) + " " + shell_quoted(locked.string()) +
                                  " 2>/dev/null && mount -o remount,bind,ro " + shell_quoted(locked.string()) + " 2>/dev/null";
        if (std::system(mount.c_str()) != 0) {
            std::system(("umount " + shell_quoted(locked.string()) + " 2>/dev/null").c_str());
            GTEST_SKIP() << "no read-only mount, and permissions do not bind the super-user";
        }
    } else {
        fs::copy_file(source / "index.db", locked / "index.db");
        fs::permissions(locked, fs::perms::owner_read | fs::perms::owner_exec);
    }
    const ToolRun run = context("Fix total_price", {"--db", (locked / "index.db").string()});
    if (super_user) {
        EXPECT_EQ(std::system(("umount " + shell_quoted(locked.string())).c_str()), 0);
    } else {
        fs::permissions(locked, fs::perms::owner_all);
    }
    ASSERT_EQ(run.status, 0) << run.err;
    EXPECT_EQ(run.json().at("symbols").at(0).at("name"), "total_price");
}

}  // namespace
