// The index on a PostgreSQL server end to end, through the `kestrix` tool and the service
// layer: packs from the server are the packs from the SQLite file, byte for byte, when made
// without the retriever; the failures a user can meet say what went wrong and what to run;
// and a publish beside running readers is seen whole or not at all.

#include <gtest/gtest.h>

#include <atomic>
#include <filesystem>
#include <fstream>
#include <optional>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include <nlohmann/json.hpp>

#include "orvane_kestrix/indexer/index_builder.hpp"
#include "orvane_kestrix/postgres/index_publisher.hpp"
#include "orvane_kestrix/postgres/postgres_repository.hpp"
#include "orvane_kestrix/postgres/postgres_schema.hpp"
#include "orvane_kestrix/service/errors.hpp"
#include "orvane_kestrix/service/workspace.hpp"
#include "support/index_tree.hpp"
#include "support/kestrix_tool.hpp"
#include "support/postgres_server.hpp"
#include "support/scratch_dir.hpp"

namespace {

namespace fs = std::filesystem;
using namespace orvane_kestrix;
using orvane_kestrix::testing::run_kestrix;
using orvane_kestrix::testing::ToolRun;

const std::string kSample = (fs::path(KESTRIX_TEST_DATA) / "sample_repo").string();

std::string describe(const ToolRun& run) { return "exit " + std::to_string(run.status) + "\nstderr: " + run.err; }

bool contains(const std::string& text, const std::string& part) { return text.find(part) != std::string::npos; }

TEST(ServerIndex, PacksWithoutTheRetrieverAreTheSqlitePacksByteForByte) {
    kestrix_test::ScratchDir scratch("server-packs");
    const std::string url = kestrix_test::PostgresServer::shared().create_database("packs");
    const std::string file = (scratch.path() / "index.db").string();
    const ToolRun file_index = run_kestrix({"index", "--repo", kSample, "--db", file}, scratch.path());
    ASSERT_EQ(file_index.status, 0) << describe(file_index);
    const ToolRun server_index = run_kestrix({"index", "--repo", kSample, "--db", url, "--name", "org/sample", "--staging",
                                              (scratch.path() / "staging.db").string()},
                                             scratch.path());
    ASSERT_EQ(server_index.status, 0) << describe(server_index);
    EXPECT_TRUE(contains(server_index.out, "published org/sample to ")) << server_index.out;

    const std::vector<std::string> tasks = {
        "Fix total_price rounding the tax of the cart",
        "Why does ring_push drop items when the ring is full",
        "Add a transpose to Matrix and use it in identity",
        "formatPrice shows the wrong currency in Formatter",
        "Inventory rejects too much stock in addsStock",
        "parse nested Expr values in the parser",
        "Point distance in geometry is off by one",
        "the developer guide section on Building",
        "",
    };
    const std::vector<std::vector<std::string>> option_sets = {
        {},
        {"--wide"},
        {"--snippets", "--deep", "python.shop.cart.total_price"},
        {"--all-files", "--list-tests"},
        {"--component", "python"},
        {"--budget", "300", "--prefer-kinds", "class,method"},
    };
    for (const auto& task : tasks) {
        for (const auto& options : option_sets) {
            std::vector<std::string> common = {"context", task, "--repo", kSample, "--no-retriever"};
            common.insert(common.end(), options.begin(), options.end());
            std::vector<std::string> from_file = common;
            from_file.insert(from_file.end(), {"--db", file});
            std::vector<std::string> from_server = common;
            from_server.insert(from_server.end(), {"--db", url, "--name", "org/sample"});
            const ToolRun a = run_kestrix(from_file, scratch.path());
            const ToolRun b = run_kestrix(from_server, scratch.path());
            ASSERT_EQ(a.status, 0) << task << describe(a);
            ASSERT_EQ(b.status, 0) << task << describe(b);
            EXPECT_EQ(a.out, b.out) << task << " " << ::testing::PrintToString(options);
        }
    }

    // With the retriever on, the server's packs are keyword packs that say why.
    const ToolRun keyword = run_kestrix({"context", tasks[0], "--repo", kSample, "--db", url, "--name", "org/sample",
                                         "--no-retriever"},
                                        scratch.path());
    const ToolRun retriever = run_kestrix({"context", tasks[0], "--repo", kSample, "--db", url, "--name", "org/sample"},
                                          scratch.path());
    ASSERT_EQ(retriever.status, 0) << describe(retriever);
    auto with_note = nlohmann::json::parse(retriever.out);
    const auto without = nlohmann::json::parse(keyword.out);
    ASSERT_FALSE(with_note["notes"].empty());
    EXPECT_TRUE(contains(with_note["notes"][0].get<std::string>(), "no retriever tables yet")) << with_note["notes"];
    with_note["notes"].erase(0);
    if (with_note["notes"].empty()) with_note.erase("notes");
    EXPECT_EQ(with_note, without);
}

TEST(ServerIndex, FailuresSayWhatWentWrongAndWhatToRun) {
    kestrix_test::ScratchDir scratch("server-errors");
    auto& server = kestrix_test::PostgresServer::shared();
    const std::string url = server.create_database("errors");
    const std::string staging = (scratch.path() / "staging.db").string();
    ASSERT_EQ(run_kestrix({"index", "--repo", kSample, "--db", url, "--name", "org/one", "--staging", staging}, scratch.path())
                  .status,
              0);
    const std::string wrong_password = server.url_with_password("errors", "s3cr3t-guess");
    struct Case {
        std::string what;
        std::vector<std::string> arguments;
        int status;
        std::vector<std::string> said;
    };
    const std::vector<Case> cases = {
        {"no such repository",
         {"context", "task", "--repo", kSample, "--db", url, "--name", "org/missing"},
         1,
         {"has no repository named \"org/missing\"", "kestrix index --db ", "--name org/missing --repo DIR"}},
        {"a server URL without a name", {"index", "--repo", kSample, "--db", url}, 2, {"needs --name"}},
        {"a reader without a name", {"context", "task", "--repo", kSample, "--db", url}, 1, {"--name ORG/REPO"}},
        {"an unreachable server",
         {"context", "task", "--repo", kSample, "--db", "postgresql:///errors?host=/nonexistent-kestrix-socket-dir",
          "--name", "org/one"},
         1,
         {"cannot connect to PostgreSQL at postgresql:///errors?host=/nonexistent-kestrix-socket-dir: ",
          "/nonexistent-kestrix-socket-dir/.s.PGSQL"}},
        {"a wrong password",
         {"index", "--repo", kSample, "--db", wrong_password, "--name", "org/one", "--staging", staging},
         1,
         {"cannot connect to PostgreSQL at postgresql://kestrix_password_user:***@/errors", "password authentication failed"}},
        {"a right password",
         {"context", "task", "--repo", kSample, "--db", server.url_with_password("errors", kestrix_test::PostgresServer::kPassword),
          "--name", "org/one"},
         0,
         {}},
    };
    for (const auto& c : cases) {
        const ToolRun run = run_kestrix(c.arguments, scratch.path());
        EXPECT_EQ(run.status, c.status) << c.what << ": " << describe(run);
        for (const auto& part : c.said) EXPECT_TRUE(contains(run.err, part)) << c.what << ": " << run.err;
        EXPECT_FALSE(contains(run.err, "s3cr3t-guess")) << c.what << ": the password leaked: " << run.err;
    }
}

TEST(ServerIndex, ARepositoryOfAnotherSchemaVersionNamesTheRebuild) {
    kestrix_test::ScratchDir scratch("server-versions");
    const std::string url = kestrix_test::PostgresServer::shared().create_database("versions");
    const std::string staging = (scratch.path() / "staging.db").string();
    const std::vector<std::string> index = {"index", "--repo", kSample, "--db", url, "--name", "org/old", "--staging", staging};
    const std::vector<std::string> context = {"context", "Cart", "--repo", kSample, "--db", url, "--name", "org/old"};
    ASSERT_EQ(run_kestrix(index, scratch.path()).status, 0);
    postgres::Connection admin(url);
    admin.exec("UPDATE repositories SET schema_version = 0");

    const ToolRun read = run_kestrix(context, scratch.path());
    EXPECT_EQ(read.status, 1);
    EXPECT_TRUE(contains(read.err, "written at schema version 0")) << read.err;
    EXPECT_TRUE(contains(read.err, "--name org/old --repo DIR --rebuild")) << read.err;
    const ToolRun refresh = run_kestrix(index, scratch.path());
    EXPECT_EQ(refresh.status, 1);
    EXPECT_TRUE(contains(refresh.err, "--rebuild` to rewrite it")) << refresh.err;

    std::vector<std::string> rebuild = index;
    rebuild.push_back("--rebuild");
    const ToolRun rebuilt = run_kestrix(rebuild, scratch.path());
    EXPECT_EQ(rebuilt.status, 0) << describe(rebuilt);
    EXPECT_EQ(run_kestrix(context, scratch.path()).status, 0);

    // Tables newer than this build are refused to readers and writers alike.
    admin.exec("UPDATE kestrix_meta SET value = '99' WHERE key = 'schema_version'");
    for (const auto& arguments : {index, context}) {
        const ToolRun run = run_kestrix(arguments, scratch.path());
        EXPECT_EQ(run.status, 1) << arguments[0];
        EXPECT_TRUE(contains(run.err, "schema version 99, newer than this kestrix reads (1); upgrade kestrix")) << run.err;
    }
}

// Two states of one small repository, and the packs each gives.
struct TwoStates {
    fs::path before;
    fs::path after;
};

TwoStates write_two_states(const fs::path& root) {
    TwoStates states{root / "before", root / "after"};
    fs::create_directories(states.before / "shop");
    fs::create_directories(states.after / "shop");
    std::ofstream(states.before / "shop" / "cart.py")
        << "def total_price(items):\n    \"\"\"Sum the prices.\"\"\"\n    return sum(items)\n\n\n"
           "def apply_discount(total):\n    return total_price([total]) * 0.9\n";
    std::ofstream(states.after / "shop" / "cart.py")
        << "class Cart:\n    \"\"\"Holds items.\"\"\"\n\n    def total_price(self):\n        \"\"\"Sum with tax.\"\"\"\n"
           "        return sum(self.items) * 1.2\n\n\ndef price_of(cart):\n    return cart.total_price()\n";
    std::ofstream(states.after / "shop" / "tax.py") << "def tax_of(price):\n    \"\"\"The tax.\"\"\"\n    return price * 0.2\n";
    return states;
}

TEST(ServerIndex, ReadersDuringPublishesSeeTheStateBeforeOrAfterNeverAMix) {
    kestrix_test::ScratchDir scratch("server-publish");
    const std::string url = kestrix_test::PostgresServer::shared().create_database("publish");
    const TwoStates states = write_two_states(scratch.path());
    const fs::path before_index = scratch.path() / "before.db";
    const fs::path after_index = scratch.path() / "after.db";
    kestrix_test::index_tree(states.before, before_index, /*retrieval_tables=*/false);
    kestrix_test::index_tree(states.after, after_index, /*retrieval_tables=*/false);
    const std::vector<std::string> tasks = {"total_price of the cart", "tax_of a price", "apply_discount to a Cart"};

    // The packs of each state, read from its SQLite file.
    auto packs_of = [&](const fs::path& repo, const fs::path& index) {
        service::Workspace workspace({.repo = repo, .db = index, .use_retriever = false});
        std::vector<std::string> packs;
        for (const auto& task : tasks) packs.push_back(workspace.pack({.task = task}).to_dict().dump());
        return packs;
    };
    const std::vector<std::string> before = packs_of(states.before, before_index);
    const std::vector<std::string> after = packs_of(states.after, after_index);
    for (std::size_t i = 0; i < tasks.size(); ++i) ASSERT_NE(before[i], after[i]) << tasks[i];

    postgres::Connection writer(url);
    postgres::publish_index(before_index, writer, "org/live");

    // A snapshot open across a whole publish keeps reading the state it began with.
    {
        postgres::PostgresRepository reader(url, "org/live");
        reader.begin_snapshot();
        const auto symbols = reader.search_symbols("%", -1, false).symbols.size();
        postgres::publish_index(after_index, writer, "org/live");
        EXPECT_EQ(reader.search_symbols("%", -1, false).symbols.size(), symbols);
        EXPECT_FALSE(reader.get_symbol_by_fqn("shop.tax.tax_of"));
        reader.end_snapshot();
        reader.begin_snapshot();
        EXPECT_TRUE(reader.get_symbol_by_fqn("shop.tax.tax_of"));
        reader.end_snapshot();
    }

    // Packs made while the repository is published again and again in turn.
    std::atomic<bool> done{false};
    std::thread publisher([&] {
        postgres::Connection connection(url);
        for (int round = 0; round < 20; ++round) {
            postgres::publish_index(round % 2 == 0 ? before_index : after_index, connection, "org/live");
        }
        done.store(true);
    });
    service::Workspace reader({.repo = states.after, .use_retriever = false, .server_url = url, .repository_name = "org/live"});
    std::set<std::string> seen_states;
    int packs = 0;
    while (!done.load() || packs < 10) {
        const std::size_t t = static_cast<std::size_t>(packs) % tasks.size();
        const std::string pack = reader.pack({.task = tasks[t]}).to_dict().dump();
        if (pack == before[t]) {
            seen_states.insert("before");
        } else if (pack == after[t]) {
            seen_states.insert("after");
        } else {
            ADD_FAILURE() << "a pack of neither state for \"" << tasks[t] << "\": " << pack;
            break;
        }
        ++packs;
    }
    publisher.join();
    EXPECT_GE(packs, 10);
    EXPECT_TRUE(seen_states.count("after"));  // the last publish
}

TEST(ServerIndex, RepositoriesOfOneDatabaseAreApart) {
    kestrix_test::ScratchDir scratch("server-many");
    const std::string url = kestrix_test::PostgresServer::shared().create_database("many");
    const TwoStates states = write_two_states(scratch.path());
    kestrix_test::index_tree(states.before, scratch.path() / "a.db", /*retrieval_tables=*/false);
    kestrix_test::index_tree(states.after, scratch.path() / "b.db", /*retrieval_tables=*/false);
    postgres::Connection writer(url);
    postgres::publish_index(scratch.path() / "a.db", writer, "org/a");
    postgres::publish_index(scratch.path() / "b.db", writer, "org/b");
    postgres::publish_index(scratch.path() / "a.db", writer, "org/a");  // a republish touches its own rows only

    postgres::PostgresRepository a(url, "org/a");
    postgres::PostgresRepository b(url, "org/b");
    EXPECT_TRUE(a.get_symbol_by_fqn("shop.cart.apply_discount"));
    EXPECT_FALSE(a.get_symbol_by_fqn("shop.tax.tax_of"));
    EXPECT_TRUE(b.get_symbol_by_fqn("shop.tax.tax_of"));
    EXPECT_FALSE(b.get_symbol_by_fqn("shop.cart.apply_discount"));
    EXPECT_EQ(a.search_symbols("%", -1, false).symbols.size(), 2u);
    EXPECT_THROW(postgres::PostgresRepository(url, "org/c"), postgres::UnknownRepositoryError);

    // A workspace on the server refreshes through its staging index, then publishes.
    service::Workspace workspace({.repo = states.after, .db = scratch.path() / "staging.db", .server_url = url,
                                  .repository_name = "org/c"});
    EXPECT_FALSE(workspace.has_complete_index());
    EXPECT_EQ(workspace.refresh().files, 2);
    EXPECT_TRUE(workspace.has_complete_index());
    EXPECT_TRUE(postgres::PostgresRepository(url, "org/c").get_symbol_by_fqn("shop.tax.tax_of"));
}

TEST(ServerIndex, StagingIndexesAreOnePerServerAndName) {
    const auto a = postgres::default_staging_index("postgresql://kx:one@db/index", "org/repo");
    EXPECT_EQ(a, postgres::default_staging_index("postgresql://kx:two@db/index", "org/repo"));  // the password aside
    EXPECT_NE(a, postgres::default_staging_index("postgresql://kx@db2/index", "org/repo"));
    EXPECT_NE(a, postgres::default_staging_index("postgresql://kx@db/index", "org/other"));
    EXPECT_EQ(a.filename().string().rfind("org_repo-", 0), 0u) << a;
    EXPECT_EQ(a.parent_path().filename(), "servers");
}


TEST(ServerIndex, TheMcpServerAnswersFromTheServer) {
    kestrix_test::ScratchDir scratch("server-mcp");
    const std::string url = kestrix_test::PostgresServer::shared().create_database("mcp");
    ASSERT_EQ(run_kestrix({"index", "--repo", kSample, "--db", url, "--name", "org/sample", "--staging",
                           (scratch.path() / "staging.db").string()},
                          scratch.path())
                  .status,
              0);
    const fs::path requests = scratch.path() / "requests.jsonl";
    std::ofstream(requests)
        << R"({"jsonrpc":"2.0","id":1,"method":"initialize","params":{"protocolVersion":"2025-06-18","capabilities":{},"clientInfo":{"name":"test","version":"1"}}})"
        << "\n"
        << R"({"jsonrpc":"2.0","method":"notifications/initialized"})" << "\n"
        << R"({"jsonrpc":"2.0","id":2,"method":"tools/call","params":{"name":"context","arguments":{"task":"Fix total_price in the cart"}}})"
        << "\n";
    const fs::path out = scratch.path() / "out.jsonl";
    const std::string command = orvane_kestrix::testing::shell_quoted(KESTRIX_BINARY) + " mcp --repo " +
                                orvane_kestrix::testing::shell_quoted(kSample) + " --db " +
                                orvane_kestrix::testing::shell_quoted(url) + " --name org/sample <" +
                                orvane_kestrix::testing::shell_quoted(requests.string()) + " >" +
                                orvane_kestrix::testing::shell_quoted(out.string()) + " 2>/dev/null";
    ASSERT_EQ(std::system(command.c_str()), 0);
    std::ifstream lines(out);
    std::string line;
    std::optional<nlohmann::json> call;
    while (std::getline(lines, line)) {
        const auto message = nlohmann::json::parse(line);
        if (message.value("id", 0) == 2) call = message;
    }
    ASSERT_TRUE(call) << "no answer to the tool call";
    const auto& pack = (*call)["result"]["structuredContent"];
    ASSERT_FALSE(pack["symbols"].empty()) << *call;
    std::set<std::string> fqns;
    for (const auto& symbol : pack["symbols"]) fqns.insert(symbol["fqn"].get<std::string>());
    EXPECT_TRUE(fqns.count("python.shop.cart.total_price")) << pack;
    EXPECT_TRUE(contains(pack["notes"][0].get<std::string>(), "no retriever tables yet"));
}


// Readers need nothing but SELECT; a failed covering-test lookup (here: refused) leaves the
// rest of the snapshot readable, so the pack goes on without tests as the builder expects.
TEST(ServerIndex, AReaderWithSelectOnlyAndAFailedCoveringLookupReadsOn) {
    kestrix_test::ScratchDir scratch("server-reader");
    auto& server = kestrix_test::PostgresServer::shared();
    const std::string url = server.create_database("reader");
    kestrix_test::index_tree(kSample, scratch.path() / "index.db", /*retrieval_tables=*/false);
    postgres::Connection admin(url);
    postgres::publish_index(scratch.path() / "index.db", admin, "org/sample");
    admin.exec("DROP ROLE IF EXISTS kestrix_reader");
    admin.exec("CREATE ROLE kestrix_reader LOGIN");
    admin.exec("GRANT SELECT ON ALL TABLES IN SCHEMA public TO kestrix_reader");
    admin.exec("REVOKE SELECT ON covering_tests FROM kestrix_reader");
    const std::string reader_url = url.substr(0, url.find("&user=")) + "&user=kestrix_reader";

    postgres::PostgresRepository reader(reader_url, "org/sample");
    reader.begin_snapshot();
    EXPECT_THROW(reader.find_covering_tests({"python/shop/cart.py"}), postgres::PostgresError);
    EXPECT_TRUE(reader.get_symbol_by_fqn("python.shop.cart.Cart"));
    reader.end_snapshot();

    service::Workspace workspace({.repo = kSample, .list_tests = true, .use_retriever = false, .server_url = reader_url,
                                  .repository_name = "org/sample"});
    const auto pack = workspace.pack({.task = "Fix total_price in the cart"}).to_dict();
    EXPECT_FALSE(pack["symbols"].empty());
    EXPECT_TRUE(pack["tests"].empty());
}

}  // namespace
