// The index file as the tool meets it on disk: damaged in the ways files get damaged, reached
// through a symbolic link, on a full or read-only file system. The built tool runs over a
// temporary copy of tests/sample_repo.

#include <gtest/gtest.h>

#include <sqlite3.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <functional>
#include <random>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "orvane_kestrix/storage/sqlite_schema.hpp"
#include "support/kestrix_tool.hpp"

namespace {

namespace fs = std::filesystem;
using orvane_kestrix::storage::Database;
using orvane_kestrix::testing::run_kestrix;
using orvane_kestrix::testing::shell_quoted;
using orvane_kestrix::testing::ToolRun;

const fs::path kSample = fs::path(KESTRIX_TEST_DATA) / "sample_repo";
constexpr const char* kTask = "Fix total_price";

class IndexFileTest : public ::testing::Test {
protected:
    void SetUp() override {
        char pattern[] = "/tmp/kestrix-index-file-XXXXXX";
        ASSERT_NE(mkdtemp(pattern), nullptr);
        base_ = pattern;
        repo_ = base_ / "repo";
        fs::copy(kSample, repo_, fs::copy_options::recursive);
    }

    void TearDown() override {
        std::error_code error;
        fs::remove_all(base_, error);
    }

    ToolRun kestrix(std::vector<std::string> arguments, const std::vector<std::string>& extra = {}) {
        arguments.insert(arguments.end(), extra.begin(), extra.end());
        return run_kestrix(arguments, base_);
    }
    ToolRun index(const fs::path& db, const std::vector<std::string>& extra = {}) {
        return kestrix({"index", "--repo", repo_.string(), "--db", db.string()}, extra);
    }
    ToolRun context(const fs::path& db) { return kestrix({"context", kTask, "--repo", repo_.string(), "--db", db.string()}); }

    // Whether the run printed a pack whose first symbol is the task's function.
    static bool packs_the_task(const ToolRun& run) {
        if (run.status != 0) return false;
        const auto pack = nlohmann::json::parse(run.out, nullptr, false);
        return !pack.is_discarded() && !pack["symbols"].empty() && pack["symbols"][0]["name"] == "total_price";
    }

    fs::path base_, repo_;
};

std::string pseudo_random_bytes(std::size_t size) {
    std::mt19937 generator(15);
    std::string bytes(size, '\0');
    for (char& c : bytes) c = static_cast<char>(generator() & 0xff);
    return bytes;
}

void overwrite(const fs::path& file, std::uintmax_t offset, const std::string& bytes) {
    std::fstream out(file, std::ios::in | std::ios::out | std::ios::binary);
    out.seekp(static_cast<std::streamoff>(offset));
    out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
}

std::int64_t scalar(const fs::path& db, const std::string& sql) {
    Database database(db, SQLITE_OPEN_READONLY);
    return database.scalar_int(sql);
}

void alter(const fs::path& db, const std::string& sql) {
    Database database(db, SQLITE_OPEN_READWRITE);
    database.exec(sql);
}

// What the tool must say about a damaged index, and what then repairs it.
enum class Remedy {
    rebuild,         // both commands fail naming --rebuild, which then works
    another_path,    // --rebuild cannot help: the message says what to do instead
    none_needed,     // nothing is lost by indexing into the file as it is
};

// Every damaged index gets a one-line error naming the file and --rebuild from `context` and
// `index` alike (never SQLite's bare message), and `index --rebuild` then gives an index that
// packs.
TEST_F(IndexFileTest, EveryDamagedIndexNamesItsRemedyAndTheRemedyWorks) {
    const fs::path good = base_ / "good.db";
    ASSERT_EQ(index(good).status, 0);
    const auto copy_good = [good](const fs::path& db) { fs::copy_file(good, db); };
    const struct {
        const char* name;
        std::function<void(const fs::path&)> damage;
        Remedy remedy;
    } cases[] = {
        {"random bytes", [](const fs::path& db) { std::ofstream(db, std::ios::binary) << pseudo_random_bytes(65536); },
         Remedy::rebuild},
        {"truncated to half",
         [&](const fs::path& db) {
             copy_good(db);
             fs::resize_file(db, fs::file_size(db) / 2);
         },
         Remedy::rebuild},
        {"pages overwritten in the middle",
         [&](const fs::path& db) {
             copy_good(db);
             const auto size = fs::file_size(db);
             overwrite(db, size / 4, pseudo_random_bytes(size / 2));
         },
         Remedy::rebuild},
        // Found by a query of the pack, not when the file is opened.
        {"symbols table page overwritten",
         [&](const fs::path& db) {
             copy_good(db);
             const auto page_size = static_cast<std::uintmax_t>(scalar(db, "PRAGMA page_size"));
             const auto root = static_cast<std::uintmax_t>(scalar(db, "SELECT rootpage FROM sqlite_master WHERE name = 'symbols'"));
             overwrite(db, (root - 1) * page_size, std::string(page_size, '\x5a'));
         },
         Remedy::rebuild},
        {"table dropped",
         [&](const fs::path& db) {
             copy_good(db);
             alter(db, "DROP TABLE refs");
         },
         Remedy::rebuild},
        {"another program's database",
         [](const fs::path& db) {
             Database(db, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE).exec("CREATE TABLE customers(id INTEGER PRIMARY KEY)");
         },
         Remedy::rebuild},
        {"newer schema",
         [&](const fs::path& db) {
             copy_good(db);
             alter(db, "PRAGMA user_version = 99");
         },
         Remedy::rebuild},
        {"older schema number on newer tables",
         [&](const fs::path& db) {
             copy_good(db);
             alter(db, "PRAGMA user_version = 1");
         },
         Remedy::rebuild},
        {"empty file", [](const fs::path& db) { std::ofstream{db}; }, Remedy::none_needed},
        {"directory", [](const fs::path& db) { fs::create_directories(db / "inside"); }, Remedy::another_path},
    };
    const fs::path db = base_ / "index.db";
    const auto damaged = [&](const auto& c) {
        std::error_code error;
        fs::remove_all(db, error);
        orvane_kestrix::storage::remove_index_files(db);
        c.damage(db);
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        damaged(c);
        for (const bool context_first : {true, false}) {
            if (!context_first) damaged(c);
            const ToolRun run = context_first ? context(db) : index(db);
            if (c.remedy == Remedy::none_needed) {
                EXPECT_EQ(run.status, 0) << run.err;
                continue;
            }
            EXPECT_EQ(run.status, 1) << run.err;
            EXPECT_EQ(run.out, "");
            EXPECT_EQ(std::count(run.err.begin(), run.err.end(), '\n'), 1) << run.err;
            EXPECT_NE(run.err.find("index file " + db.string() + ": "), std::string::npos) << run.err;
            if (c.remedy == Remedy::rebuild) {
                EXPECT_NE(run.err.find("run `kestrix index --rebuild`"), std::string::npos) << run.err;
            } else {
                EXPECT_NE(run.err.find("give --db the path of a file"), std::string::npos) << run.err;
                EXPECT_EQ(run.err.find("--rebuild"), std::string::npos) << run.err;
            }
        }
        damaged(c);
        const ToolRun rebuild = index(db, {"--rebuild"});
        if (c.remedy == Remedy::another_path) {
            EXPECT_EQ(rebuild.status, 1);
            EXPECT_NE(rebuild.err.find("give --db the path of a file"), std::string::npos) << rebuild.err;
            fs::remove_all(db);
            EXPECT_EQ(index(db).status, 0);
        } else {
            EXPECT_EQ(rebuild.status, 0) << rebuild.err;
        }
        EXPECT_TRUE(packs_the_task(context(db))) << context(db).err;
    }
}

// --rebuild through a linked index path replaces the file the link points at; the link stays.
TEST_F(IndexFileTest, RebuildThroughALinkReplacesItsTarget) {
    fs::create_directories(base_ / "real");
    fs::create_directories(base_ / "links");
    const fs::path link = base_ / "links" / "index.db";
    const fs::path target = base_ / "real" / "index.db";
    fs::create_symlink("../real/index.db", link);  // dangling until the first build

    for (const bool rebuild : {false, true}) {
        SCOPED_TRACE(rebuild ? "rebuild" : "first build");
        const ToolRun run = index(link, rebuild ? std::vector<std::string>{"--rebuild"} : std::vector<std::string>{});
        ASSERT_EQ(run.status, 0) << run.err;
        ASSERT_TRUE(fs::is_symlink(fs::symlink_status(link)));
        EXPECT_EQ(fs::read_symlink(link), "../real/index.db");
        EXPECT_TRUE(fs::is_regular_file(fs::symlink_status(target)));
        EXPECT_TRUE(packs_the_task(context(link)));
    }
    for (const auto& directory : {base_ / "real", base_ / "links"}) {
        for (const auto& entry : fs::directory_iterator(directory)) {
            EXPECT_EQ(entry.path().filename().string().find(".building-"), std::string::npos) << entry.path();
        }
    }
}

// Unmounts (lazily, so that nothing is left mounted if a check fails half way) when it leaves
// the scope.
struct MountGuard {
    fs::path point;
    ~MountGuard() { std::system(("umount -l " + shell_quoted(point.string()) + " 2>/dev/null").c_str()); }
};

// Reading never writes: an intact index packs on a file system that is full, then on the same
// file system mounted read-only.
TEST_F(IndexFileTest, PacksFromAFullAndFromAReadOnlyFileSystem) {
    if (::geteuid() != 0) GTEST_SKIP() << "mounting a file system needs the super-user";
    const fs::path mount_point = base_ / "medium";
    fs::create_directories(mount_point);
    const std::string mount = "mount -t tmpfs -o size=4m tmpfs " + shell_quoted(mount_point.string()) + " 2>/dev/null";
    if (std::system(mount.c_str()) != 0) GTEST_SKIP() << "mount is not permitted here";
    const MountGuard guard{mount_point};

    const fs::path repo = mount_point / "repo";
    fs::copy(kSample, repo, fs::copy_options::recursive);
    const std::vector<std::string> pack_arguments = {"context", kTask, "--repo", repo.string()};
    ASSERT_EQ(kestrix({"index", "--repo", repo.string()}).status, 0);

    {
        std::ofstream filler(mount_point / "filler", std::ios::binary);
        const std::string block(64 * 1024, 'x');
        while (filler.write(block.data(), static_cast<std::streamsize>(block.size()))) {
        }
    }
    std::ofstream probe(mount_point / "probe");
    probe << std::string(8192, 'x') << std::flush;
    ASSERT_FALSE(probe.good()) << "the file system did not fill";
    probe.close();

    const ToolRun on_full = kestrix(pack_arguments);
    EXPECT_TRUE(packs_the_task(on_full)) << on_full.err;

    ASSERT_EQ(std::system(("mount -o remount,ro " + shell_quoted(mount_point.string())).c_str()), 0);
    const ToolRun on_read_only = kestrix(pack_arguments);
    EXPECT_TRUE(packs_the_task(on_read_only)) << on_read_only.err;
}

}  // namespace
