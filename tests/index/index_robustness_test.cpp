// The index builder against bad input, damaged index files and changing trees, with a small
// line-based parser standing in for tree-sitter:
//   "def NAME"  defines a function        "use NAME"  calls NAME from the last definition
//   "from MODULE import NAME" imports      a file named crash.py makes the parser throw.

#include <gtest/gtest.h>

#include <sqlite3.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <functional>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <mutex>
#include <sstream>
#include <stdexcept>
#include <string>

#include "orvane_kestrix/indexer/index_builder.hpp"
#include "orvane_kestrix/storage/sqlite_schema.hpp"

namespace {

namespace fs = std::filesystem;
using namespace orvane_kestrix::indexer;
using orvane_kestrix::storage::Database;
using orvane_kestrix::storage::IndexFileError;
using orvane_kestrix::storage::Statement;

struct SeenTexts {
    std::mutex mutex;
    std::map<std::string, std::string> by_path;
};

ExtractFunction line_parser(SeenTexts* seen) {
    return [seen](Language, std::string_view path, std::string_view content) {
        if (path.ends_with("crash.py")) throw std::runtime_error("parser failure");
        if (seen != nullptr) {
            std::lock_guard lock(seen->mutex);
            seen->by_path[std::string(path)] = std::string(content);
        }
        FileExtraction out;
        std::string module(path.substr(0, path.rfind('.')));
        for (char& c : module) c = c == '/' ? '.' : c;
        out.module_name = module;
        std::istringstream lines{std::string(content)};
        std::int64_t number = 0;
        for (std::string line; std::getline(lines, line);) {
            ++number;
            if (line.starts_with("def ")) {
                ExtractedSymbol symbol;
                symbol.name = line.substr(4);
                symbol.fqn = module + "." + symbol.name;
                symbol.start_line = symbol.end_line = number;
                symbol.signature = line;
                out.symbols.push_back(symbol);
            } else if (line.starts_with("use ")) {
                ExtractedReference ref;
                ref.name = line.substr(4);
                ref.usage_type = "call";
                ref.line = number;
                ref.context = line;
                if (!out.symbols.empty()) ref.caller = out.symbols.size() - 1;
                out.references.push_back(ref);
            } else if (line.starts_with("from ")) {
                const auto import_at = line.find(" import ");
                out.imports.push_back({line.substr(5, import_at - 5), {line.substr(import_at + 8)}, std::nullopt, number});
            }
        }
        return out;
    };
}

class IndexRobustness : public ::testing::Test {
protected:
    void SetUp() override {
        char pattern[] = "/tmp/kestrix-robust-XXXXXX";
        ASSERT_NE(mkdtemp(pattern), nullptr);
        base_ = pattern;
        root_ = base_ / "repo";
        fs::create_directories(root_);
        db_ = base_ / "index.db";
    }

    void TearDown() override {
        std::error_code error;
        for (const auto& entry : fs::recursive_directory_iterator(base_, fs::directory_options::none, error)) {
            fs::permissions(entry.path(), fs::perms::owner_all, fs::perm_options::add, error);
        }
        fs::remove_all(base_, error);
    }

    void write(const std::string& rel, const std::string& text) {
        fs::create_directories((root_ / rel).parent_path());
        std::ofstream(root_ / rel, std::ios::binary) << text;
    }

    // Options of a run over the test tree with the line parser.
    IndexOptions line_options(SeenTexts* seen = nullptr) {
        IndexOptions options;
        options.repo = root_;
        options.db = db_;
        options.jobs = 2;
        options.use_git = false;
        options.make_extractor = [seen] { return line_parser(seen); };
        return options;
    }

    // Options of a run on one parser thread that calls `change` before each file is parsed:
    // files are taken in path order, so a change made while a.py is parsed meets z.py unread.
    IndexOptions options_changing_the_tree(std::function<void()> change) {
        IndexOptions options = line_options();
        options.jobs = 1;
        options.make_extractor = [change] {
            ExtractFunction parse = line_parser(nullptr);
            return [parse, change](Language language, std::string_view path, std::string_view content) {
                change();
                return parse(language, path, content);
            };
        };
        return options;
    }

    IndexStats index(SeenTexts* seen = nullptr, std::uint64_t max_size = 2 * 1024 * 1024) {
        IndexOptions options = line_options(seen);
        options.max_file_size = max_size;
        return IndexBuilder(options).run();
    }

    // A run on one parser thread that is stopped once the first file has been written.
    IndexStats index_interrupted(bool rebuild = false) {
        std::atomic<bool> cancel{false};
        IndexOptions options = line_options();
        options.jobs = 1;
        options.rebuild = rebuild;
        options.cancel = &cancel;
        options.on_progress = [&](const IndexProgress& progress) {
            if (progress.phase == "parsing" && progress.done >= 1) cancel = true;
        };
        return IndexBuilder(options).run();
    }

    std::string query(const std::string& sql) {
        Database db = orvane_kestrix::storage::open_index(db_, {.read_only = true});
        Statement statement(db, sql);
        std::string out;
        while (statement.step()) {
            if (!out.empty()) out += "\n";
            out += statement.column_string(0);
        }
        return out;
    }

    fs::path base_, root_, db_;
};

TEST_F(IndexRobustness, SkipsUnusableFilesByReasonAndKeepsTheRest) {
    write("good.py", "def good\n");
    write("empty.py", "");
    write("binary.py", std::string("def hidden\n\0\x01\x02", 14));
    write("big.py", "def big\n" + std::string(600, '#') + "\n");
    write("notes.xyz", "no language\n");
    write("crash.py", "def never\n");
    fs::create_directory_symlink(".", root_ / "loop");
    write("../outside.py", "def outside\n");
    fs::create_symlink(base_ / "outside.py", root_ / "escape.py");
    fs::create_symlink(root_ / "good.py", root_ / "alias.py");

    const IndexStats stats = index(nullptr, 500);

    EXPECT_EQ(stats.skipped, (std::map<std::string, std::int64_t>{{"binary", 1},
                                                                  {"outside_root", 1},
                                                                  {"parse_failed", 1},
                                                                  {"symlink_loop", 1},
                                                                  {"too_large", 1},
                                                                  {"unsupported", 1}}));
    EXPECT_EQ(query("SELECT path FROM files ORDER BY path"), "alias.py\nempty.py\ngood.py");
    EXPECT_EQ(query("SELECT count(*) FROM symbols WHERE file_id = (SELECT id FROM files WHERE path = 'empty.py')"), "0");
    EXPECT_FALSE(stats.cancelled);
}

TEST_F(IndexRobustness, ReplacesInvalidUtf8AndNormalisesLineEndsBeforeParsing) {
    write("latin1.py", "def caf\xe9\r\nuse caf\xe9\r\ndef ok\rdef bad\xff\xfe\n");
    SeenTexts seen;
    const IndexStats stats = index(&seen);
    EXPECT_EQ(stats.parsed, 1);
    EXPECT_EQ(seen.by_path["latin1.py"], "def caf\xEF\xBF\xBD\nuse caf\xEF\xBF\xBD\ndef ok\ndef bad\xEF\xBF\xBD\xEF\xBF\xBD\n");
    EXPECT_EQ(query("SELECT name || ':' || start_line FROM symbols ORDER BY id"),
              "caf\xEF\xBF\xBD:1\nok:3\nbad\xEF\xBF\xBD\xEF\xBF\xBD:4");
    // The reference resolves to the definition in the same file.
    EXPECT_EQ(query("SELECT production_fan_in FROM symbols WHERE start_line = 1"), "1");
}

TEST_F(IndexRobustness, CountsAFileDeletedDuringTheRun) {
    write("a.py", "def a\n");
    write("z.py", "def z\n");
    const fs::path doomed = root_ / "z.py";
    const IndexStats stats = IndexBuilder(options_changing_the_tree([doomed] {
                                 std::error_code error;
                                 fs::remove(doomed, error);
                             })).run();
    EXPECT_EQ(stats.skipped, (std::map<std::string, std::int64_t>{{"missing", 1}}));
    EXPECT_EQ(query("SELECT path FROM files"), "a.py");
}

// Files are opened beneath the root: a link out of it is refused when the file is read, even
// one swapped in after the tree was listed.
TEST_F(IndexRobustness, AFileSwappedForALinkOutOfTheRootIsNotRead) {
    write("a.py", "def a\n");
    write("z.py", "def z\n");
    fs::create_directories(base_ / "outside");
    std::ofstream(base_ / "outside" / "secret.py") << "def secret\n";
    const fs::path swapped = root_ / "z.py";
    const fs::path target = base_ / "outside" / "secret.py";
    const IndexStats stats = IndexBuilder(options_changing_the_tree([swapped, target] {
                                 if (!fs::is_regular_file(fs::symlink_status(swapped))) return;
                                 std::error_code error;
                                 fs::remove(swapped, error);
                                 fs::create_symlink(target, swapped, error);
                             })).run();
    EXPECT_EQ(stats.skipped, (std::map<std::string, std::int64_t>{{"outside_root", 1}}));
    EXPECT_EQ(query("SELECT name FROM symbols"), "a");
}

// In a git work tree, a tracked directory replaced by a link to a directory elsewhere (not
// staged) still lists its files; none of them is read.
TEST_F(IndexRobustness, ATrackedDirectoryReplacedByALinkOutOfTheRootIsNotIndexed) {
    write("a.py", "def a\n");
    write("pkg/b.py", "def b\n");
    const std::string git = "git -C '" + root_.string() + "' ";
    if (std::system((git + "init -q 2>/dev/null").c_str()) != 0) GTEST_SKIP() << "git is not available";
    ASSERT_EQ(std::system((git + "add -A && " + git +
                           "-c user.name=t -c user.email=t@t commit -qm init >/dev/null").c_str()), 0);
    fs::create_directories(base_ / "elsewhere");
    std::ofstream(base_ / "elsewhere" / "b.py") << "def leaked\n";
    fs::remove_all(root_ / "pkg");
    fs::create_directory_symlink(base_ / "elsewhere", root_ / "pkg");
    IndexOptions options = line_options();
    options.use_git = true;
    IndexBuilder(options).run();
    EXPECT_EQ(query("SELECT name FROM symbols ORDER BY name"), "a");
}

// An index path that is a directory: --rebuild could not help, so the message says what to do.
// Builds left beside the index by dead runs are removed by the next run of any kind.
TEST_F(IndexRobustness, IndexPathProblemsNameTheirWayOut) {
    write("a.py", "def a\n");
    index();
    const fs::path stale = fs::path(db_.string() + ".building-2147483646");
    std::ofstream(stale) << "left by a killed run";
    index();
    EXPECT_FALSE(fs::exists(stale));

    IndexOptions options = line_options();
    options.db = base_ / "a_directory";
    fs::create_directories(*options.db);
    for (const bool rebuild : {false, true}) {
        options.rebuild = rebuild;
        try {
            IndexBuilder(options).run();
            ADD_FAILURE() << "a directory accepted as the index";
        } catch (const std::exception& e) {
            EXPECT_NE(std::string(e.what()).find("give --db the path of a file"), std::string::npos) << e.what();
            EXPECT_EQ(std::string(e.what()).find("--rebuild"), std::string::npos) << e.what();
        }
    }
}

TEST_F(IndexRobustness, CountsAnUnreadableFile) {
    if (geteuid() == 0) GTEST_SKIP() << "root reads files whatever their mode";
    write("good.py", "def good\n");
    write("secret.py", "def secret\n");
    fs::permissions(root_ / "secret.py", fs::perms::none);
    const IndexStats stats = index();
    EXPECT_EQ(stats.skipped, (std::map<std::string, std::int64_t>{{"unreadable", 1}}));
    EXPECT_EQ(query("SELECT path FROM files"), "good.py");
}

TEST_F(IndexRobustness, ReparsesOnlyChangedFilesAndRefreshesWhatDependsOnThem) {
    write("lib.py", "def helper\n");
    write("app.py", "from lib import helper\ndef main\nuse helper\n");
    write("gone.py", "def gone\nuse helper\n");
    write("tests/test_lib.py", "from lib import helper\ndef test_helper\nuse helper\n");
    IndexStats first = index();
    ASSERT_EQ(first.parsed, 4);
    // app.py and gone.py call helper; the test's call is not production fan-in.
    EXPECT_EQ(query("SELECT production_fan_in FROM symbols WHERE name = 'helper'"), "2");
    EXPECT_EQ(query("SELECT t.path || ' ' || c.rank || ' ' || c.used_symbols FROM covering_tests c "
                    "JOIN files t ON t.id = c.test_file_id"),
              "tests/test_lib.py 0.0 1");

    write("lib.py", "def extra\ndef helper\n");  // helper moves to line 2 and gets a new id
    fs::remove(root_ / "gone.py");
    IndexStats second = index();
    EXPECT_EQ(second.parsed, 1);
    EXPECT_EQ(second.unchanged, 2);
    EXPECT_EQ(second.removed, 1);
    EXPECT_EQ(second.files, 3);
    EXPECT_EQ(query("SELECT start_line || ' ' || production_fan_in FROM symbols WHERE name = 'helper'"), "2 1");
    // The unchanged caller now points at the new definition; nothing points at dropped ids.
    EXPECT_EQ(query("SELECT t.name || ' <- ' || f.path FROM ref_targets rt JOIN symbols t ON t.id = rt.symbol_id "
                    "JOIN refs r ON r.id = rt.ref_id JOIN files f ON f.id = r.file_id ORDER BY f.path"),
              "helper <- app.py\nhelper <- tests/test_lib.py");
    EXPECT_EQ(query("SELECT count(*) FROM ref_targets WHERE symbol_id NOT IN (SELECT id FROM symbols) "
                    "OR ref_id NOT IN (SELECT id FROM refs)"),
              "0");
    EXPECT_EQ(query("SELECT count(*) FROM symbol_names WHERE name LIKE '%gone%'"), "0");
    EXPECT_EQ(query("SELECT count(*) FROM symbol_names WHERE name LIKE '%xtr%'"), "1");

    // A file that turns binary leaves the index like a deleted one.
    write("app.py", std::string("\0binary", 7));
    IndexStats third = index();
    EXPECT_EQ(third.skipped.at("binary"), 1);
    EXPECT_EQ(third.removed, 1);
    EXPECT_EQ(query("SELECT production_fan_in FROM symbols WHERE name = 'helper'"), "0");
}

TEST_F(IndexRobustness, RefreshedIndexEqualsOneBuiltFromScratch) {
    write("pkg/core.py", "def alpha\ndef beta\nuse alpha\n");
    write("pkg/extra.py", "from pkg.core import beta\ndef gamma\nuse beta\n");
    write("app.py", "from pkg.core import alpha\nfrom pkg.extra import gamma\ndef main\nuse alpha\nuse gamma\nuse delta\n");
    write("tests/test_core.py", "from pkg.core import alpha\ndef test_alpha\nuse alpha\nuse beta\n");
    write("tests/test_app.py", "def test_main\nuse main\n");
    index();
    // A definition moves between files, one appears, one file goes, a test changes.
    write("pkg/core.py", "def beta\nuse beta\n");
    write("pkg/extra.py", "def alpha\ndef gamma\nuse alpha\n");
    write("pkg/more.py", "def delta\n");
    fs::remove(root_ / "tests/test_app.py");
    write("tests/test_extra.py", "from pkg.extra import gamma\ndef test_gamma\nuse gamma\nuse alpha\n");
    index();

    const auto derived = [&] {
        return query("SELECT t.fqn || ' <- ' || f.path || ':' || r.line FROM ref_targets rt "
                     "JOIN symbols t ON t.id = rt.symbol_id JOIN refs r ON r.id = rt.ref_id "
                     "JOIN files f ON f.id = r.file_id ORDER BY 1") +
               "\n--\n" + query("SELECT fqn || ' ' || production_fan_in FROM symbols ORDER BY 1") + "\n--\n" +
               query("SELECT s.path || ' <- ' || t.path || ' ' || c.rank || ' ' || c.used_symbols FROM covering_tests c "
                     "JOIN files s ON s.id = c.source_file_id JOIN files t ON t.id = c.test_file_id ORDER BY 1") +
               "\n--\n" + query("SELECT name FROM symbols WHERE id IN (SELECT rowid FROM symbol_names WHERE name LIKE '%a%') ORDER BY 1");
    };
    const std::string refreshed = derived();
    db_ = base_ / "fresh.db";
    index();
    EXPECT_EQ(refreshed, derived());
    EXPECT_NE(refreshed.find("pkg.more.delta <- app.py:6"), std::string::npos) << refreshed;
}

TEST_F(IndexRobustness, InterruptedRefreshLeavesTheIndexAsItWasAndTheNextRunCompletesIt) {
    for (int i = 0; i < 40; ++i) write("m" + std::to_string(i) + ".py", "def f" + std::to_string(i) + "\nuse f0\n");
    index();
    const std::string before = query("SELECT fqn || ' ' || production_fan_in FROM symbols ORDER BY id");
    for (int i = 0; i < 40; ++i) write("m" + std::to_string(i) + ".py", "def g" + std::to_string(i) + "\nuse g0\n");

    const IndexStats interrupted = index_interrupted();
    EXPECT_TRUE(interrupted.cancelled);
    EXPECT_EQ(query("SELECT fqn || ' ' || production_fan_in FROM symbols ORDER BY id"), before);
    EXPECT_EQ(query("SELECT value FROM meta WHERE key = 'derived_stale'"), "0");

    const IndexStats resumed = index();
    EXPECT_FALSE(resumed.cancelled);
    EXPECT_EQ(query("SELECT value FROM meta WHERE key = 'derived_stale'"), "0");
    EXPECT_EQ(query("SELECT count(*) FROM symbols WHERE name LIKE 'g%'"), "40");
    EXPECT_EQ(query("SELECT production_fan_in FROM symbols WHERE name = 'g0'"), "40");
}

// Runs the kestrix tool; returns its exit code and what it wrote to standard error.
std::pair<int, std::string> run_tool(const std::string& arguments, const fs::path& scratch) {
    const fs::path err = scratch / "stderr.txt";
    const std::string command = std::string(KESTRIX_BINARY) + " index " + arguments + " >/dev/null 2>" + err.string();
    const int status = std::system(command.c_str());
    std::ifstream in(err);
    std::stringstream text;
    text << in.rdbuf();
    return {WEXITSTATUS(status), text.str()};
}

TEST_F(IndexRobustness, ARepositoryThatAnOuterWorkTreeIgnoresIsWalked) {
    write("a.py", "def alpha\n");
    std::ofstream(base_ / ".gitignore") << "repo/\n";
    const std::string init = "git -C '" + base_.string() + "' init -q 2>/dev/null";
    if (std::system(init.c_str()) != 0) GTEST_SKIP() << "git is not available";
    IndexOptions options = line_options();
    options.use_git = true;
    EXPECT_EQ(IndexBuilder(options).run().files, 1);
    EXPECT_EQ(query("SELECT path FROM files"), "a.py");
}

TEST_F(IndexRobustness, DamagedOrForeignIndexFileIsOneLineErrorNamingRebuild) {
    write("good.py", "def good\n");
    struct Case {
        const char* name;
        std::function<void(const fs::path&)> make;
        const char* problem;
    };
    const Case cases[] = {
        {"text", [](const fs::path& p) { std::ofstream(p) << "this is not a database, just some text\n"; }, "not a readable"},
        {"foreign", [](const fs::path& p) {
             Database db(p, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE);
             db.exec("CREATE TABLE customers(id INTEGER PRIMARY KEY, name TEXT)");
         }, "another program"},
        {"newer", [](const fs::path& p) {
             { Database db = orvane_kestrix::storage::open_index(p); }
             Database db(p, SQLITE_OPEN_READWRITE);
             db.exec("PRAGMA user_version = 99");
         }, "newer version"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        orvane_kestrix::storage::remove_index_files(db_);
        c.make(db_);
        try {
            index();
            ADD_FAILURE() << "no error";
        } catch (const IndexFileError& e) {
            const std::string message = e.what();
            EXPECT_NE(message.find(db_.string()), std::string::npos) << message;
            EXPECT_NE(message.find("--rebuild"), std::string::npos) << message;
            EXPECT_NE(message.find(c.problem), std::string::npos) << message;
            EXPECT_EQ(message.find('\n'), std::string::npos) << message;
        }
        const auto [code, error] = run_tool("--repo " + root_.string() + " --db " + db_.string(), base_);
        EXPECT_EQ(code, 1);
        EXPECT_EQ(std::count(error.begin(), error.end(), '\n'), 1) << error;
        EXPECT_NE(error.find("--rebuild"), std::string::npos) << error;
    }
    // --rebuild replaces the damaged file.
    const auto [code, error] = run_tool("--rebuild --repo " + root_.string() + " --db " + db_.string(), base_);
    EXPECT_EQ(code, 0) << error;
    EXPECT_EQ(query("SELECT path FROM files"), "good.py");
}

TEST_F(IndexRobustness, ToolPrintsOneSummaryLine) {
    write("a.py", "def a\n");
    write("b.bin", "x");
    const fs::path out = base_ / "out.txt";
    const std::string command = std::string(KESTRIX_BINARY) + " index --repo " + root_.string() + " --db " + db_.string() +
                                " >" + out.string() + " 2>/dev/null";
    ASSERT_EQ(std::system(command.c_str()), 0);
    std::ifstream in(out);
    std::stringstream text;
    text << in.rdbuf();
    const std::string summary = text.str();
    EXPECT_EQ(std::count(summary.begin(), summary.end(), '\n'), 1) << summary;
    EXPECT_NE(summary.find("indexed 1 files"), std::string::npos) << summary;
    EXPECT_NE(summary.find("1 unsupported"), std::string::npos) << summary;
}

}  // namespace

TEST_F(IndexRobustness, IndexOfTheFirstSchemaIsUpgradedAndEveryFileParsedAgain) {
    write("a.py", "def fresh\n");
    struct stat st {};
    ASSERT_EQ(::stat((root_ / "a.py").c_str(), &st), 0);
    std::ifstream in(fs::path(KESTRIX_TEST_DATA) / "fixtures" / "index" / "schema_v1.sql");
    std::stringstream text;
    text << in.rdbuf();
    std::string sql = text.str();
    auto replace = [&](const std::string& from, const std::string& to) { sql.replace(sql.find(from), from.size(), to); };
    replace("SIZE", std::to_string(st.st_size));
    replace("MTIME", std::to_string(static_cast<std::int64_t>(st.st_mtim.tv_sec) * 1000000000 + st.st_mtim.tv_nsec));
    {
        Database db(db_, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE);
        db.exec(sql);
    }

    const IndexStats stats = index();
    EXPECT_EQ(stats.parsed, 1);
    EXPECT_EQ(query("PRAGMA user_version"), std::to_string(orvane_kestrix::storage::kIndexSchemaVersion));
    EXPECT_EQ(query("SELECT name FROM symbols"), "fresh");
    EXPECT_EQ(query("SELECT count(*) FROM sqlite_master WHERE name = 'symbol_text'"), "0");
    // Ids continue above the old ones.
    EXPECT_EQ(query("SELECT id > 7 FROM symbols"), "1");
    EXPECT_EQ(query("SELECT name FROM symbols WHERE id IN (SELECT rowid FROM symbol_names WHERE name LIKE '%res%')"), "fresh");
}

TEST_F(IndexRobustness, IdsOfDeletedRowsAreNeverGivenAgain) {
    write("a.py", "def a1\nuse a1\n");
    write("b.py", "def b1\ndef b2\nuse b1\nuse b2\n");
    index();
    const std::int64_t last_symbol = std::stoll(query("SELECT max(id) FROM symbols"));
    const std::int64_t last_ref = std::stoll(query("SELECT max(id) FROM refs"));
    fs::remove(root_ / query("SELECT f.path FROM symbols s JOIN files f ON f.id = s.file_id ORDER BY s.id DESC LIMIT 1"));
    index();
    write("c.py", "def c1\nuse c1\n");
    index();
    EXPECT_GT(std::stoll(query("SELECT id FROM symbols WHERE name = 'c1'")), last_symbol);
    EXPECT_GT(std::stoll(query("SELECT r.id FROM refs r JOIN files f ON f.id = r.file_id WHERE f.path = 'c.py'")), last_ref);
}

TEST_F(IndexRobustness, InterruptedFirstBuildIsKeptAndTheNextRunCompletesIt) {
    for (int i = 0; i < 20; ++i) write("m" + std::to_string(i) + ".py", "def f" + std::to_string(i) + "\nuse f0\n");
    EXPECT_TRUE(index_interrupted().cancelled);
    EXPECT_EQ(query("SELECT value FROM meta WHERE key = 'derived_stale'"), "1");
    const std::int64_t kept = std::stoll(query("SELECT count(*) FROM files"));
    EXPECT_GE(kept, 1);

    const IndexStats resumed = index();
    EXPECT_EQ(resumed.parsed + kept, 20);
    EXPECT_EQ(query("SELECT production_fan_in FROM symbols WHERE name = 'f0'"), "20");
}

TEST_F(IndexRobustness, InterruptedRebuildLeavesThePreviousIndexWhole) {
    for (int i = 0; i < 20; ++i) write("m" + std::to_string(i) + ".py", "def f" + std::to_string(i) + "\n");
    index();
    for (int i = 0; i < 20; ++i) write("m" + std::to_string(i) + ".py", "def g" + std::to_string(i) + "\n");
    // A build left behind by a process that is gone.
    const pid_t child = fork();
    if (child == 0) _exit(0);
    ASSERT_GT(child, 0);
    waitpid(child, nullptr, 0);
    const fs::path abandoned = db_.string() + ".building-" + std::to_string(child);
    std::ofstream(abandoned) << "half an index";

    EXPECT_TRUE(index_interrupted(/*rebuild=*/true).cancelled);
    EXPECT_EQ(query("SELECT count(*) FROM symbols WHERE name LIKE 'f%'"), "20");
    EXPECT_EQ(query("SELECT value FROM meta WHERE key = 'derived_stale'"), "0");

    IndexOptions rebuild = line_options();
    rebuild.rebuild = true;
    EXPECT_FALSE(IndexBuilder(rebuild).run().cancelled);
    EXPECT_EQ(query("SELECT count(*) FROM symbols WHERE name LIKE 'g%'"), "20");
    EXPECT_EQ(query("SELECT count(*) FROM symbols WHERE name LIKE 'f%'"), "0");
    // Nothing of either build is left next to the index.
    for (const auto& entry : fs::directory_iterator(base_)) {
        EXPECT_EQ(entry.path().filename().string().find(".building-"), std::string::npos) << entry.path();
    }
}
