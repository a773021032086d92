// Packs read while an index is refreshed: each one sees the index as it was before the refresh
// or as it is after it, never a mix, and those built while the refresh runs say so. The
// readers are `kestrix context` processes and a Workspace of this process; the writer is an
// index run of this process whose parsers stop part way until both kinds of reader have seen
// it at work.

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <filesystem>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <nlohmann/json.hpp>

#include "orvane_kestrix/indexer/extraction.hpp"
#include "orvane_kestrix/retrieval/retrieval_tables.hpp"
#include "orvane_kestrix/service/workspace.hpp"
#include "support/generated_tree.hpp"
#include "support/scratch_dir.hpp"
#include "support/tool_process.hpp"

namespace {

namespace fs = std::filesystem;
using namespace orvane_kestrix;
using Json = nlohmann::json;

constexpr int kModules = 600;
const std::vector<std::string> kTasks = {
    "Fix step_17 returning the wrong total",
    "Ledger42 posts an amount twice",
    "test_step_30 fails after the last change",
    "advance the ledger by one step",
};

// A pack's JSON without the indexing status, which is all that may differ between a pack read
// during a refresh and one read from the same state at rest.
std::string content_of(Json pack) {
    pack.erase("indexing_in_progress");
    pack.erase("progress");
    return pack.dump();
}

struct Seen {
    std::size_t task = 0;
    std::string content;
    bool in_progress = false;
    bool after_refresh = false;  // the pack was started once the refresh had returned
};

// Holds the parsers at one file until released.
class Gate {
public:
    void wait() {
        std::unique_lock lock(mutex_);
        opened_.wait_for(lock, std::chrono::seconds(60), [&] { return open_; });
    }
    void open() {
        std::lock_guard lock(mutex_);
        open_ = true;
        opened_.notify_all();
    }

private:
    std::mutex mutex_;
    std::condition_variable opened_;
    bool open_ = false;
};

class SnapshotReads : public ::testing::Test {
protected:
    service::WorkspaceOptions options(const std::string& db) const {
        service::WorkspaceOptions options;
        options.repo = dir_ / "repo";
        options.db = dir_ / db;
        options.index_jobs = 2;
        return options;
    }

    std::vector<std::string> packs_of(service::Workspace& workspace) const {
        std::vector<std::string> packs;
        for (const auto& task : kTasks) packs.push_back(content_of(workspace.pack({.task = task}).to_dict()));
        return packs;
    }

    kestrix_test::ScratchDir scratch_{"snapshot"};
    const fs::path dir_ = scratch_.path();
};

TEST_F(SnapshotReads, PacksDuringARefreshSeeTheIndexBeforeOrAfterItAndSaySo) {
    kestrix_test::write_generated_tree(dir_ / "repo", kModules, 'a');
    service::Workspace reader(options("a.db"));
    reader.refresh();
    const std::vector<std::string> before = packs_of(reader);

    kestrix_test::write_generated_tree(dir_ / "repo", kModules, 'b');
    std::vector<std::string> after;
    {
        service::Workspace fresh(options("b.db"));
        fresh.refresh();
        after = packs_of(fresh);
    }
    for (std::size_t t = 0; t < kTasks.size(); ++t) ASSERT_NE(before[t], after[t]) << "the states differ: " << kTasks[t];

    // The refresh of a.db from state a to state b, its parsers held at the 50th file.
    std::atomic<int> process_saw_it{0};
    std::atomic<int> workspace_saw_it{0};
    Gate gate;
    std::atomic<int> parsed{0};
    std::atomic<bool> refreshed{false};
    indexer::IndexOptions writer;
    writer.repo = dir_ / "repo";
    writer.db = dir_ / "a.db";
    writer.jobs = 2;
    writer.make_extractor = [&] {
        auto extractor = std::make_shared<indexer::Extractor>();
        return [&, extractor](indexer::Language language, std::string_view path, std::string_view content) {
            if (++parsed == 50) gate.wait();
            return extractor->extract(language, path, content);
        };
    };
    writer = retrieval::index_options_with_retrieval(std::move(writer));
    std::thread refresh([&] {
        const indexer::IndexStats stats = indexer::IndexBuilder(writer).run();
        EXPECT_EQ(stats.parsed, kModules + kModules / 10);
        refreshed = true;
    });

    const std::string on_index = " --repo " + kestrix_test::shell_quoted((dir_ / "repo").string()) + " --db " +
                                 kestrix_test::shell_quoted((dir_ / "a.db").string());
    std::vector<Seen> seen;
    // Alternately a pack of another process and one of this process, over the tasks in turn.
    auto read_once = [&] {
        Seen pack;
        pack.task = seen.size() % kTasks.size();
        pack.after_refresh = refreshed.load();
        Json json;
        if (seen.size() % 2 == 0) {
            const auto run = kestrix_test::run_tool("context " + kestrix_test::shell_quoted(kTasks[pack.task]) + on_index, dir_);
            ASSERT_EQ(run.status, 0) << run.err;
            json = Json::parse(run.out);
        } else {
            json = reader.pack({.task = kTasks[pack.task]}).to_dict();
        }
        pack.in_progress = json.at("indexing_in_progress").get<bool>();
        if (pack.in_progress) {
            const auto progress = json.at("progress").get<std::int64_t>();
            EXPECT_TRUE(progress >= 0 && progress <= 100) << progress;
            ++(seen.size() % 2 == 0 ? process_saw_it : workspace_saw_it);
        }
        pack.content = content_of(json);
        seen.push_back(std::move(pack));
        if (process_saw_it >= 2 && workspace_saw_it >= 2) gate.open();
    };
    while (!refreshed.load()) read_once();
    refresh.join();
    for (int i = 0; i < 4; ++i) read_once();

    EXPECT_GE(process_saw_it.load(), 2) << "packs of other processes during the refresh";
    EXPECT_GE(workspace_saw_it.load(), 2) << "packs of this process during the refresh";
    for (std::size_t i = 0; i < seen.size(); ++i) {
        const Seen& pack = seen[i];
        const bool is_before = pack.content == before[pack.task];
        const bool is_after = pack.content == after[pack.task];
        EXPECT_TRUE(is_before || is_after) << "pack " << i << " (" << kTasks[pack.task] << ") mixes the states:\n"
                                           << pack.content << "\nbefore:\n" << before[pack.task] << "\nafter:\n" << after[pack.task];
        if (pack.after_refresh) {
            EXPECT_TRUE(is_after) << "pack " << i << " read after the refresh";
            EXPECT_FALSE(pack.in_progress) << "pack " << i << " read after the refresh";
        }
    }
}

}  // namespace
