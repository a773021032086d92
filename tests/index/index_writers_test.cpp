// One writer at a time, and one index per tree: the writer lock as writers and readers see it,
// runs of the tool that meet on one index, and ids that do not depend on the number of parser
// threads.

#include <gtest/gtest.h>

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <map>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "orvane_kestrix/indexer/index_builder.hpp"
#include "orvane_kestrix/storage/index_writer_lock.hpp"
#include "orvane_kestrix/storage/sqlite_schema.hpp"
#include "support/generated_tree.hpp"
#include "support/index_dump.hpp"
#include "support/scratch_dir.hpp"
#include "support/tool_process.hpp"

namespace {

namespace fs = std::filesystem;
using namespace orvane_kestrix;
using storage::IndexBusyError;
using storage::IndexWriterLock;
using kestrix_test::shell_quoted;

class IndexWriters : public ::testing::Test {
protected:
    kestrix_test::ScratchDir scratch_{"writers"};
    const fs::path dir_ = scratch_.path();
};

// Every content table of an index as text, in a fixed order, ids included: equal only for
// indexes whose rows got the same ids.
std::map<std::string, std::string> dump_with_ids(const fs::path& db_path) {
    storage::Database db = storage::open_index(db_path, {.read_only = true});
    const std::map<std::string, std::string> queries = {
        {"files", "SELECT id, path, language, is_test, is_source, component_id, content_hash, size, module_name, "
                  "has_syntax_errors FROM files ORDER BY id"},
        {"components", "SELECT * FROM components ORDER BY id"},
        {"symbols", "SELECT * FROM symbols ORDER BY id"},
        {"refs", "SELECT * FROM refs ORDER BY id"},
        {"ref_targets", "SELECT * FROM ref_targets ORDER BY symbol_id, ref_id"},
        {"imports", "SELECT * FROM imports ORDER BY id"},
        {"covering_tests", "SELECT * FROM covering_tests ORDER BY source_file_id, test_file_id"},
        {"meta", "SELECT key, value FROM meta WHERE key <> 'indexed_at' ORDER BY key"},
    };
    std::map<std::string, std::string> dump;
    for (const auto& [table, sql] : queries) {
        storage::Statement statement(db, sql);
        std::string& text = dump[table];
        while (statement.step()) {
            for (int c = 0; c < statement.column_count(); ++c) text += (c == 0 ? "" : "|") + std::string(statement.column_text(c));
            text += '\n';
        }
    }
    return dump;
}

// Waits up to 30 s for `condition`.
template <typename Condition>
bool eventually(Condition condition) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    while (!condition()) {
        if (std::chrono::steady_clock::now() > deadline) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return true;
}

TEST_F(IndexWriters, TheLockExcludesOtherWritersAndTellsReadersWhoHoldsIt) {
    const fs::path db = dir_ / "index.db";
    EXPECT_FALSE(storage::current_writer(db)) << "no lock file yet";
    {
        IndexWriterLock held = IndexWriterLock::try_acquire(db);
        const auto writer = storage::current_writer(db);
        ASSERT_TRUE(writer);
        EXPECT_EQ(writer->pid, getpid());
        EXPECT_FALSE(writer->progress) << "no work announced yet";
        held.publish_progress(40);
        EXPECT_EQ(storage::current_writer(db)->progress, 40);

        // Another open of the lock, in this process as in another, is refused.
        try {
            IndexWriterLock::try_acquire(db);
            ADD_FAILURE() << "a second writer got the lock";
        } catch (const IndexBusyError& e) {
            EXPECT_EQ(e.holder(), getpid());
            EXPECT_EQ(std::string(e.what()), "another index run (pid " + std::to_string(getpid()) + ") is updating this index");
        }
        // A waiting writer is told once who it waits for, and gives up when stopped.
        std::vector<pid_t> told;
        const std::atomic<bool> stop{true};
        EXPECT_FALSE(IndexWriterLock::acquire(db, [&](pid_t holder) { told.push_back(holder); }, &stop));
        EXPECT_EQ(told, std::vector<pid_t>{getpid()});
    }
    EXPECT_FALSE(storage::current_writer(db)) << "released";

    // A holder that dies leaves neither the lock nor a stale status behind.
    const pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        IndexWriterLock held = IndexWriterLock::try_acquire(db);
        held.publish_progress(55);
        pause();
        _exit(0);
    }
    EXPECT_TRUE(eventually([&] {
        const auto writer = storage::current_writer(db);
        return writer && writer->pid == child && writer->progress == 55;
    }));
    kill(child, SIGKILL);
    waitpid(child, nullptr, 0);
    EXPECT_FALSE(storage::current_writer(db));
    EXPECT_NO_THROW(IndexWriterLock::try_acquire(db));
}

TEST_F(IndexWriters, TheSameTreeGivesTheSameIndexWhateverTheThreads) {
    std::map<std::string, std::string> first;
    for (const unsigned jobs : {1u, 2u, 4u}) {
        indexer::IndexOptions options;
        options.repo = fs::path(KESTRIX_TEST_DATA) / "sample_repo";
        options.db = dir_ / ("jobs" + std::to_string(jobs) + ".db");
        options.jobs = jobs;
        options.use_git = false;
        indexer::IndexBuilder(options).run();
        const auto dump = dump_with_ids(*options.db);
        ASSERT_FALSE(dump.at("symbols").empty());
        if (first.empty()) {
            first = dump;
            continue;
        }
        for (const auto& [table, text] : dump) EXPECT_EQ(text, first.at(table)) << table << " differs at --jobs " << jobs;
    }
}

// Errors a run must never meet, whoever else writes the index.
void expect_clean(const kestrix_test::ToolRun& run, const char* which) {
    EXPECT_EQ(run.status, 0) << which << ": " << run.err;
    EXPECT_EQ(run.err.find("UNIQUE"), std::string::npos) << which << ": " << run.err;
    EXPECT_EQ(run.err.find("locked"), std::string::npos) << which << ": " << run.err;
}

TEST_F(IndexWriters, ToolRunsOnOneIndexTakeTurns) {
    const fs::path repo = dir_ / "repo";
    const fs::path db = dir_ / "index.db";
    const std::string on_index = "index --jobs 2 --repo " + shell_quoted(repo.string()) + " --db " + shell_quoted(db.string());
    auto two_at_once = [&] {
        std::thread other([&] { expect_clean(kestrix_test::run_tool(on_index, dir_, "second"), "second run"); });
        expect_clean(kestrix_test::run_tool(on_index, dir_, "first"), "first run");
        other.join();
    };
    auto fresh = [&](const std::string& name) {
        const fs::path fresh_db = dir_ / name;
        const auto run = kestrix_test::run_tool("index --jobs 1 --repo " + shell_quoted(repo.string()) + " --db " +
                                                    shell_quoted(fresh_db.string()), dir_);
        EXPECT_EQ(run.status, 0) << run.err;
        return fresh_db;
    };

    // Two first builds: one builds, the other then finds nothing to do.
    kestrix_test::write_generated_tree(repo, 300, 'a');
    two_at_once();
    EXPECT_EQ(dump_with_ids(db), dump_with_ids(fresh("fresh_a.db")));

    // Two refreshes of every file.
    kestrix_test::write_generated_tree(repo, 300, 'b');
    two_at_once();
    EXPECT_EQ(kestrix_test::dump_by_name(db), kestrix_test::dump_by_name(fresh("fresh_b.db")));

    // While this test holds the lock: --no-wait gives up at once, a plain run waits.
    std::optional<IndexWriterLock> held = IndexWriterLock::try_acquire(db);
    const std::string holder = "another index run (pid " + std::to_string(getpid()) + ") is updating this index";
    const auto refused = kestrix_test::run_tool(on_index + " --no-wait", dir_, "refused");
    EXPECT_EQ(refused.status, 75);
    EXPECT_EQ(refused.err, "kestrix index: " + holder + "\n");

    const pid_t waiting = kestrix_test::start_tool(on_index, dir_ / "waiting.out", dir_ / "waiting.err");
    ASSERT_GT(waiting, 0);
    const std::string waiting_line = "kestrix index: waiting for another index run (pid " + std::to_string(getpid()) + ") to finish\n";
    EXPECT_TRUE(eventually([&] { return kestrix_test::read_whole_file(dir_ / "waiting.err") == waiting_line; }))
        << kestrix_test::read_whole_file(dir_ / "waiting.err");
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    EXPECT_EQ(waitpid(waiting, nullptr, WNOHANG), 0) << "still waiting";
    held.reset();
    EXPECT_EQ(kestrix_test::wait_for_exit(waiting), 0);
    EXPECT_EQ(kestrix_test::read_whole_file(dir_ / "waiting.err"), waiting_line) << "said once";
}

}  // namespace
