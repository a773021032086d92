// The service layer over a temporary copy of tests/sample_repo: typed errors, packs from an
// index that a rebuild replaces underneath, and the indexing status a pack reports.

#include <gtest/gtest.h>

#include <stdlib.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <string>
#include <utility>
#include <vector>

#include "orvane_kestrix/service/errors.hpp"
#include "orvane_kestrix/service/workspace.hpp"

namespace {

namespace fs = std::filesystem;
using namespace orvane_kestrix;

const fs::path kSample = fs::path(KESTRIX_TEST_DATA) / "sample_repo";

class WorkspaceTest : public ::testing::Test {
protected:
    void SetUp() override {
        char pattern[] = "/tmp/kestrix-workspace-XXXXXX";
        ASSERT_NE(mkdtemp(pattern), nullptr);
        dir_ = pattern;
        fs::copy(kSample, dir_ / "repo", fs::copy_options::recursive);
    }
    void TearDown() override {
        std::error_code error;
        fs::remove_all(dir_, error);
    }

    service::WorkspaceOptions options() const {
        service::WorkspaceOptions options;
        options.repo = dir_ / "repo";
        options.index_jobs = 2;
        return options;
    }

    fs::path dir_;
};

TEST_F(WorkspaceTest, ErrorsAreTyped) {
    service::WorkspaceOptions missing = options();
    missing.repo = dir_ / "nowhere";
    EXPECT_THROW(service::Workspace{missing}, service::MissingRepositoryError);

    service::Workspace workspace(options());
    // No index and no refresh running: nothing to answer from.
    EXPECT_THROW(workspace.pack({.task = "total_price"}), service::DamagedIndexError);
    // A refresh about to start (a follower setting up): the pack waits for it like one
    // answered during it.
    workspace.expect_refresh();
    const ContextPack waiting = workspace.pack({.task = "total_price"});
    EXPECT_TRUE(waiting.indexing_in_progress);
    EXPECT_EQ(waiting.progress, 0);
    workspace.refresh();
    try {
        workspace.pack({.task = "total_price", .component_filter = "nosuch"});
        FAIL() << "no error";
    } catch (const service::UnknownComponentError& e) {
        EXPECT_STREQ(e.what(), "Unknown component: nosuch");
    }

    service::WorkspaceOptions garbage = options();
    garbage.db = dir_ / "garbage.db";
    std::ofstream(*garbage.db) << std::string(8192, 'x');
    service::Workspace damaged(garbage);
    EXPECT_THROW((void)damaged.has_complete_index(), service::DamagedIndexError);
    EXPECT_THROW(damaged.pack({.task = "total_price"}), service::DamagedIndexError);
}

TEST_F(WorkspaceTest, PacksFollowARebuiltIndexFile) {
    service::Workspace workspace(options());
    EXPECT_FALSE(workspace.has_complete_index());
    workspace.refresh();
    EXPECT_TRUE(workspace.has_complete_index());
    const ContextPack before = workspace.pack({.task = "Fix total_price rounding"});
    ASSERT_FALSE(before.symbols.empty());
    EXPECT_EQ(before.symbols[0].fqn, "python.shop.cart.total_price");
    EXPECT_FALSE(before.indexing_in_progress);
    EXPECT_EQ(before.progress, 100);

    // A new function, then an index built from scratch and renamed over the open one.
    std::ofstream(dir_ / "repo" / "python" / "shop" / "ledger.py") << "def reconcile_ledger(entries):\n    return entries\n";
    indexer::IndexOptions rebuild;
    rebuild.repo = dir_ / "repo";
    rebuild.rebuild = true;
    rebuild.jobs = 2;
    indexer::IndexBuilder(rebuild).run();
    const ContextPack after = workspace.pack({.task = "reconcile_ledger"});
    ASSERT_FALSE(after.symbols.empty());
    EXPECT_EQ(after.symbols[0].fqn, "python.shop.ledger.reconcile_ledger");
}

TEST_F(WorkspaceTest, RefreshesReportIndexingOnlyWhileTheIndexIsBehind) {
    // Files written just now are read again by every refresh (their times are too recent to
    // trust); these are an hour old.
    for (const auto& entry : fs::recursive_directory_iterator(dir_ / "repo")) {
        if (entry.is_regular_file()) fs::last_write_time(entry.path(), fs::file_time_type::clock::now() - std::chrono::hours(1));
    }
    service::Workspace workspace(options());
    // The status packs would carry, seen at each step of a refresh.
    auto statuses_during_refresh = [&] {
        std::vector<std::pair<std::string, bool>> seen;
        workspace.refresh([&](const indexer::IndexProgress& progress) {
            seen.emplace_back(std::string(progress.phase), workspace.indexing_status().in_progress);
        });
        EXPECT_FALSE(workspace.indexing_status().in_progress) << "over once the refresh ends";
        EXPECT_EQ(workspace.indexing_status().progress, 100);
        return seen;
    };
    const auto first = statuses_during_refresh();
    ASSERT_FALSE(first.empty());
    for (const auto& [phase, in_progress] : first) EXPECT_TRUE(in_progress) << "first build, " << phase;

    for (const auto& [phase, in_progress] : statuses_during_refresh()) EXPECT_FALSE(in_progress) << "nothing changed, " << phase;

    std::ofstream(dir_ / "repo" / "python" / "shop" / "cart.py", std::ios::app) << "\ndef added():\n    pass\n";
    const auto edited = statuses_during_refresh();
    EXPECT_FALSE(edited.front().second) << "scanning finds the edit first";
    EXPECT_TRUE(edited.back().second) << "then the refresh has work to do";
}

TEST(ProgressPercent, PhasesShareTheScale) {
    struct Case {
        const char* phase;
        std::size_t done, total;
        std::int64_t percent;
    };
    for (const Case& c : {Case{"scanning", 0, 0, 0}, Case{"parsing", 0, 10, 0}, Case{"parsing", 5, 10, 45},
                          Case{"parsing", 10, 10, 90}, Case{"parsing", 12, 10, 90}, Case{"resolving", 0, 1, 90},
                          Case{"resolving", 1, 1, 99}}) {
        EXPECT_EQ(service::progress_percent({c.phase, c.done, c.total}), c.percent) << c.phase << ' ' << c.done;
    }
}

}  // namespace
