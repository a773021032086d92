// The covering-test lookup of a pack, the source files whose tests are listed, and the test rows.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <spdlog/sinks/base_sink.h>
#include <spdlog/spdlog.h>

#include <algorithm>
#include <mutex>
#include <stdexcept>

#include "orvane_kestrix/logging.hpp"
#include "orvane_kestrix/workers/context_builder/constants.hpp"
#include "orvane_kestrix/workers/context_builder/context_builder.hpp"
#include "support/mock_repository.hpp"

namespace {

using namespace orvane_kestrix;
using orvane_kestrix::testing::MockRepository;
using orvane_kestrix::testing::MockTokenizer;
using ::testing::_;
using ::testing::ElementsAre;
using ::testing::InSequence;
using ::testing::IsEmpty;
using ::testing::Return;
using ::testing::StrictMock;
using ::testing::Throw;

using Paths = std::vector<std::string>;
using PathSet = std::unordered_set<std::string>;

// One record of the index's answer: a test that reaches some sources with a rank each.
CoveringTest test(std::string path, std::vector<std::pair<std::string, double>> reaches) {
    return {std::move(path), std::move(reaches)};
}

struct LogRecord {
    spdlog::level::level_enum level;
    std::string message;
    std::optional<std::string> error;
};

// Records what reaches the module logger while it is attached.
class CapturingSink : public spdlog::sinks::base_sink<std::mutex> {
public:
    std::vector<LogRecord> records;

protected:
    void sink_it_(const spdlog::details::log_msg& msg) override {
        records.push_back({msg.level, std::string(msg.payload.data(), msg.payload.size()), attached_error()});
    }
    void flush_() override {}
};

class LogCapture {
public:
    LogCapture() : sink_(std::make_shared<CapturingSink>()) { context_logger()->sinks().push_back(sink_); }
    ~LogCapture() {
        auto& sinks = context_logger()->sinks();
        sinks.erase(std::remove(sinks.begin(), sinks.end(), sink_), sinks.end());
    }
    const std::vector<LogRecord>& records() const { return sink_->records; }

private:
    std::shared_ptr<CapturingSink> sink_;
};

TEST(CoveringTestsLookUp, AsksNothingWithoutCandidates) {
    StrictMock<MockRepository> repo;  // any call fails the test
    CoveringTests tests(repo, 2);
    tests.look_up({});
    tests.look_up({std::nullopt, std::string(), std::nullopt});
    EXPECT_TRUE(tests.found.empty());
    EXPECT_THAT(tests.of(std::nullopt), IsEmpty());
    EXPECT_THAT(tests.of(""), IsEmpty());
    EXPECT_FALSE(tests.failed);
}

TEST(CoveringTestsLookUp, AsksEachPathOnceAndCachesEveryAnswer) {
    StrictMock<MockRepository> repo;
    {
        InSequence order;
        EXPECT_CALL(repo, test_paths(Paths{"a.ts", "t/a.test.ts", "b.ts"})).WillOnce(Return(PathSet{"t/a.test.ts"}));
        EXPECT_CALL(repo, find_covering_tests(Paths{"a.ts", "b.ts"}))
            .WillOnce(Return(std::vector<CoveringTest>{test("t/a.test.ts", {{"a.ts", 1}})}));
    }
    CoveringTests tests(repo, 2);
    tests.look_up({"a.ts", "a.ts", std::nullopt, "", "t/a.test.ts", "b.ts", "a.ts"});
    EXPECT_EQ(tests.found.at("a.ts"), Paths{"t/a.test.ts"});
    EXPECT_THAT(tests.found.at("t/a.test.ts"), IsEmpty());  // a test file has no tests
    EXPECT_THAT(tests.found.at("b.ts"), IsEmpty());          // no test reaches it

    // All known now: nothing more is asked, not even for the file without tests.
    tests.look_up({"b.ts", "a.ts"});
    EXPECT_EQ(tests.of("a.ts"), Paths{"t/a.test.ts"});
    EXPECT_THAT(tests.of("b.ts"), IsEmpty());
    EXPECT_THAT(tests.of("t/a.test.ts"), IsEmpty());
}

TEST(CoveringTestsLookUp, OnlyTestFilesSkipTheBatchQuery) {
    StrictMock<MockRepository> repo;
    EXPECT_CALL(repo, test_paths(Paths{"t/x.ts", "t/y.ts"})).WillOnce(Return(PathSet{"t/x.ts", "t/y.ts"}));
    CoveringTests tests(repo, 2);
    tests.look_up({"t/x.ts", "t/y.ts"});
    EXPECT_EQ(tests.found.size(), 2u);
    EXPECT_THAT(tests.of("t/x.ts"), IsEmpty());
}

TEST(CoveringTestsLookUp, KeepsTheBestTestsPerFileInStableRankOrder) {
    struct Case {
        const char* what;
        std::int64_t per_file;
        std::vector<CoveringTest> answer;
        Paths expected;
    };
    const Case cases[] = {
        {"lowest ranks first", 2, {test("t3", {{"a.ts", 3}}), test("t1", {{"a.ts", 1}}), test("t2", {{"a.ts", 2}})}, {"t1", "t2"}},
        {"equal ranks keep the index's order", 3,
         {test("late", {{"a.ts", 5}}), test("first", {{"a.ts", 1}}), test("second", {{"a.ts", 1}})},
         {"first", "second", "late"}},
        {"tests of other files are passed over", 2,
         {test("tb", {{"b.ts", 0}}), test("both", {{"b.ts", 0}, {"a.ts", 4}}), test("ta", {{"a.ts", 2}})}, {"ta", "both"}},
        {"per-file limit of one", 1, {test("t2", {{"a.ts", 2}}), test("t1", {{"a.ts", 1}})}, {"t1"}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        StrictMock<MockRepository> repo;
        EXPECT_CALL(repo, test_paths(_)).WillOnce(Return(PathSet{}));
        EXPECT_CALL(repo, find_covering_tests(Paths{"a.ts"})).WillOnce(Return(c.answer));
        CoveringTests tests(repo, c.per_file);
        EXPECT_EQ(tests.of("a.ts"), c.expected);
    }
}

TEST(CoveringTestsLookUp, FailedBatchIsLoggedOnceAndSilencesTheLookup) {
    LogCapture log;
    StrictMock<MockRepository> repo;
    EXPECT_CALL(repo, test_paths(Paths{"a.ts", "tests/test_a.ts"})).WillOnce(Return(PathSet{"tests/test_a.ts"}));
    EXPECT_CALL(repo, find_covering_tests(Paths{"a.ts"})).WillOnce(Throw(std::runtime_error("database is locked")));

    CoveringTests tests(repo, 2);
    tests.look_up({"a.ts", "tests/test_a.ts"});
    EXPECT_TRUE(tests.failed);
    EXPECT_TRUE(tests.found.contains("tests/test_a.ts"));  // answered before the failure
    EXPECT_FALSE(tests.found.contains("a.ts"));

    // Failed: nothing is answered and nothing more is asked (the strict mock would object).
    EXPECT_THAT(tests.of("tests/test_a.ts"), IsEmpty());
    EXPECT_THAT(tests.of("a.ts"), IsEmpty());
    EXPECT_THAT(tests.of("b.ts"), IsEmpty());
    tests.look_up({"c.ts"});

    ASSERT_EQ(log.records().size(), 1u);
    EXPECT_EQ(log.records()[0].level, spdlog::level::warn);
    EXPECT_EQ(log.records()[0].message, "context: the tests of a.ts, tests/test_a.ts could not be read");
    EXPECT_EQ(log.records()[0].error, "database is locked");
}

TEST(CoveringTestsLookUp, ErrorsOfAnyKindAreCaughtButNotThoseOfTheTestFlag) {
    LogCapture log;
    StrictMock<MockRepository> repo;
    EXPECT_CALL(repo, test_paths(_)).WillOnce(Return(PathSet{}));
    EXPECT_CALL(repo, find_covering_tests(_)).WillOnce(Throw(42));
    CoveringTests tests(repo, 2);
    EXPECT_NO_THROW(tests.look_up({"a.ts"}));
    EXPECT_TRUE(tests.failed);
    ASSERT_EQ(log.records().size(), 1u);
    EXPECT_EQ(log.records()[0].message, "context: the tests of a.ts could not be read");

    StrictMock<MockRepository> broken;
    EXPECT_CALL(broken, test_paths(_)).WillOnce(Throw(std::runtime_error("no index")));
    CoveringTests other(broken, 2);
    EXPECT_THROW(other.look_up({"a.ts"}), std::runtime_error);
    EXPECT_FALSE(other.failed);
}

TEST(CoveringTestsLookUp, LaterSingleFileFailureKeepsWhatWasAnswered) {
    LogCapture log;
    StrictMock<MockRepository> repo;
    {
        InSequence order;
        EXPECT_CALL(repo, test_paths(Paths{"a.ts"})).WillOnce(Return(PathSet{}));
        EXPECT_CALL(repo, find_covering_tests(Paths{"a.ts"}))
            .WillOnce(Return(std::vector<CoveringTest>{test("t/a.ts", {{"a.ts", 1}})}));
        EXPECT_CALL(repo, test_paths(Paths{"b.ts"})).WillOnce(Return(PathSet{}));
        EXPECT_CALL(repo, find_covering_tests(Paths{"b.ts"})).WillOnce(Throw(std::runtime_error("gone")));
    }
    CoveringTests tests(repo, 2);
    tests.look_up({"a.ts"});
    const auto rows = ContextBuilder::_test_rows({"a.ts"}, tests);
    ASSERT_EQ(rows.size(), 1u);
    EXPECT_EQ(tests.of("a.ts"), Paths{"t/a.ts"});

    EXPECT_THAT(tests.of("b.ts"), IsEmpty());  // looked up alone, and that fails
    EXPECT_TRUE(tests.failed);
    EXPECT_EQ(tests.found.at("a.ts"), Paths{"t/a.ts"});
    EXPECT_THAT(tests.of("a.ts"), IsEmpty());  // nothing is answered after a failure
    ASSERT_EQ(log.records().size(), 1u);
    EXPECT_EQ(log.records()[0].message, "context: the tests of b.ts could not be read");
}

RankedSymbol ranked_in(std::optional<std::string> path) { return {Symbol{}, 1.0, std::move(path)}; }

TEST(TestedSources, DistinctSourceFilesInRankOrderAtMostFive) {
    StrictMock<MockRepository> repo;
    MockTokenizer tokenizer;
    ContextBuilder builder(repo, nullptr, {.tokenizer = &tokenizer});

    EXPECT_CALL(repo, test_paths(Paths{"tests/test_x.ts", "a.ts", "b.ts"})).WillOnce(Return(PathSet{"tests/test_x.ts"}));
    EXPECT_EQ(builder._tested_sources({ranked_in("tests/test_x.ts"), ranked_in("a.ts"), ranked_in(std::nullopt),
                                       ranked_in("a.ts"), ranked_in(""), ranked_in("b.ts")}),
              (Paths{"a.ts", "b.ts"}));

    std::vector<RankedSymbol> eight;
    Paths all;
    for (int i = 1; i <= 8; ++i) {
        all.push_back("s" + std::to_string(i) + ".ts");
        eight.push_back(ranked_in(all.back()));
    }
    EXPECT_CALL(repo, test_paths(all)).WillOnce(Return(PathSet{"s2.ts"}));
    EXPECT_EQ(builder._tested_sources(eight), (Paths{"s1.ts", "s3.ts", "s4.ts", "s5.ts", "s6.ts"}));
}

TEST(TestRows, EachTestOnceForItsFirstSourceWithItsJsonCost) {
    StrictMock<MockRepository> repo;
    EXPECT_CALL(repo, test_paths(_)).WillOnce(Return(PathSet{}));
    EXPECT_CALL(repo, find_covering_tests(Paths{"a.ts", "b.ts", "c.ts"}))
        .WillOnce(Return(std::vector<CoveringTest>{test("t1", {{"a.ts", 1}}), test("t2", {{"a.ts", 2}, {"b.ts", 1}}),
                                                   test("t3", {{"b.ts", 2}})}));
    CoveringTests tests(repo, 2);
    tests.look_up({"a.ts", "b.ts", "c.ts"});
    const auto rows = ContextBuilder::_test_rows({"a.ts", "b.ts", "c.ts"}, tests);
    ASSERT_EQ(rows.size(), 3u);
    EXPECT_EQ(rows[0].first, (TestRow{"t1", "a.ts"}));
    EXPECT_EQ(rows[1].first, (TestRow{"t2", "a.ts"}));
    EXPECT_EQ(rows[2].first, (TestRow{"t3", "b.ts"}));
    // {"file": "t1", "for": "a.ts"} is 29 characters.
    EXPECT_EQ(rows[0].second, 7);
}

TEST(TestRows, CostCountsTheWrittenJsonInCharacters) {
    // The fixed part {"file": "", "for": ""} is 23 characters; the estimate is characters / 4.
    struct Case {
        const char* what;
        std::string file, source;
        std::int64_t cost;
    };
    const Case cases[] = {
        {"plain", "tests/test_a.ts", "src/a.ts", 11},           // 46 characters
        {"non-ASCII written as itself", "t/ü.ts", "s/é.ts", 8},  // 35, not 45 with \u escapes
        {"named escapes", "\t\n\r\b\f", "s", 8},               // 34: two characters each
        {"quotes and backslashes", "\"\"\"\"\"\"\"\"", "\\\\", 10},  // 23 + 16 + 4 = 43
        {"other control characters as \\u00XX", std::string("\x01\x1f\x00", 3), "s", 10},  // 23 + 18 + 1 = 42
        {"DEL and above are not escaped", "\x7f", "s", 6},      // 25
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        StrictMock<MockRepository> repo;
        EXPECT_CALL(repo, test_paths(_)).WillOnce(Return(PathSet{}));
        EXPECT_CALL(repo, find_covering_tests(_))
            .WillOnce(Return(std::vector<CoveringTest>{test(c.file, {{c.source, 1}})}));
        CoveringTests tests(repo, 2);
        const auto rows = ContextBuilder::_test_rows({c.source}, tests);
        ASSERT_EQ(rows.size(), 1u);
        EXPECT_EQ(rows[0].second, c.cost);
    }
}

}  // namespace
