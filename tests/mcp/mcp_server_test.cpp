// The MCP server without a transport, over an index of a temporary copy of tests/sample_repo:
// what each kind of message is answered with, in both protocol eras, and how the context tool
// reads its arguments.

#include <gtest/gtest.h>

#include <stdlib.h>

#include <filesystem>
#include <string>
#include <vector>

#include "orvane_kestrix/mcp/context_tool.hpp"
#include "orvane_kestrix/mcp/http_transport.hpp"
#include "orvane_kestrix/mcp/server.hpp"

namespace {

namespace fs = std::filesystem;
using namespace orvane_kestrix;
using mcp::Json;

const fs::path kSample = fs::path(KESTRIX_TEST_DATA) / "sample_repo";

Json modern_meta(std::string version = "2026-07-28") {
    return Json{{"io.modelcontextprotocol/protocolVersion", version}, {"io.modelcontextprotocol/clientCapabilities", Json::object()}};
}

Json request(const std::string& method, Json params = Json::object(), Json id = 1) {
    return Json{{"jsonrpc", "2.0"}, {"id", id}, {"method", method}, {"params", std::move(params)}};
}

Json call(Json arguments, bool modern = true) {
    Json params = {{"name", "context"}, {"arguments", std::move(arguments)}};
    if (modern) params["_meta"] = modern_meta();
    return request("tools/call", params);
}

class McpServerTest : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        char pattern[] = "/tmp/kestrix-mcp-XXXXXX";
        ASSERT_NE(mkdtemp(pattern), nullptr);
        dir_ = new fs::path(pattern);
        fs::copy(kSample, *dir_ / "repo", fs::copy_options::recursive);
        service::WorkspaceOptions options;
        options.repo = *dir_ / "repo";
        options.index_jobs = 2;
        workspace_ = new service::Workspace(options);
        workspace_->refresh();
    }
    static void TearDownTestSuite() {
        delete workspace_;
        std::error_code error;
        fs::remove_all(*dir_, error);
        delete dir_;
    }

    mcp::McpServer server_{*workspace_, {.name = "kestrix", .version = "test"}};
    mcp::RequestContext stdio_;

    Json answer(const Json& message) {
        const auto response = server_.handle(message, stdio_);
        EXPECT_TRUE(response.has_value()) << message;
        return response.value_or(Json());
    }
    int error_code(const Json& message) { return answer(message)["error"].value("code", 0); }

    static inline fs::path* dir_ = nullptr;
    static inline service::Workspace* workspace_ = nullptr;
};

TEST_F(McpServerTest, MalformedMessagesGetTheirJsonRpcError) {
    struct Case {
        const char* text;
        int code;
        Json id;
    };
    const std::vector<Case> cases = {
        {R"({"jsonrpc": "2.0", "id": 1, "method": )", -32700, nullptr},
        {R"([{"jsonrpc": "2.0", "id": 1, "method": "ping"}])", -32600, nullptr},
        {R"("ping")", -32600, nullptr},
        {R"({"jsonrpc": "2.0", "id": 1.5, "method": "ping"})", -32600, nullptr},
        {R"({"jsonrpc": "2.0", "id": {}, "method": "ping"})", -32600, nullptr},
        {R"({"jsonrpc": "1.0", "id": 7, "method": "ping"})", -32600, 7},
        {R"({"jsonrpc": "2.0", "id": 7})", -32600, 7},
        {R"({"jsonrpc": "2.0", "id": "a", "method": 3})", -32600, "a"},
        {R"({"jsonrpc": "2.0", "id": 7, "method": "ping", "params": "x"})", -32600, 7},
        {R"({"jsonrpc": "2.0", "id": 7, "method": "ping", "params": [1]})", -32602, 7},
        {R"({"jsonrpc": "2.0", "id": 7, "method": "nonsense"})", -32601, 7},
    };
    for (const Case& c : cases) {
        const auto response = server_.handle_text(c.text, stdio_);
        ASSERT_TRUE(response.has_value()) << c.text;
        EXPECT_EQ((*response)["error"]["code"], c.code) << c.text;
        EXPECT_EQ((*response)["id"], c.id) << c.text;
    }
    // Notifications and client responses are not answered, even malformed ones.
    for (const char* text : {R"({"jsonrpc": "2.0", "method": "notifications/cancelled", "params": {"requestId": 3}})",
                             R"({"jsonrpc": "2.0", "method": "nonsense", "params": 5})",
                             R"({"jsonrpc": "2.0", "id": 4, "result": {}})"}) {
        EXPECT_FALSE(server_.handle_text(text, stdio_).has_value()) << text;
    }
}

TEST_F(McpServerTest, LegacyEraNegotiatesWithInitialize) {
    EXPECT_EQ(answer(request("ping"))["result"], Json::object());
    EXPECT_EQ(error_code(request("tools/list")), -32600) << "served only after initialize";
    for (const auto& [asked, given] : std::vector<std::pair<std::string, std::string>>{
             {"2025-06-18", "2025-06-18"}, {"2024-11-05", "2024-11-05"}, {"2099-01-01", "2025-11-25"}, {"2026-07-28", "2025-11-25"}}) {
        const Json result = answer(request("initialize", {{"protocolVersion", asked}, {"capabilities", Json::object()}}))["result"];
        EXPECT_EQ(result["protocolVersion"], given) << asked;
        EXPECT_EQ(result["capabilities"]["tools"]["listChanged"], false);
        EXPECT_EQ(result["serverInfo"]["name"], "kestrix");
    }
    const Json tools = answer(request("tools/list"))["result"];
    ASSERT_EQ(tools["tools"].size(), 1u);
    EXPECT_FALSE(tools.contains("resultType"));
    EXPECT_EQ(error_code(request("initialize", Json::object())), -32602);

    mcp::RequestContext http;
    http.stateless = true;
    mcp::McpServer fresh(*workspace_, {.name = "kestrix", .version = "test"});
    EXPECT_TRUE(fresh.handle(request("tools/list"), http).value()["result"].contains("tools")) << "no session over HTTP";
}

TEST_F(McpServerTest, ModernEraChecksEveryRequestsMeta) {
    const Json discover = answer(request("server/discover", {{"_meta", modern_meta()}}))["result"];
    EXPECT_EQ(discover["supportedVersions"].front(), "2026-07-28");
    EXPECT_EQ(discover["resultType"], "complete");
    EXPECT_EQ(discover["_meta"]["io.modelcontextprotocol/serverInfo"]["name"], "kestrix");

    const Json tools = answer(request("tools/list", {{"_meta", modern_meta()}}))["result"];
    EXPECT_EQ(tools["resultType"], "complete");
    EXPECT_TRUE(tools["ttlMs"].is_number_integer());
    EXPECT_EQ(tools["cacheScope"], "public");

    Json no_capabilities = modern_meta();
    no_capabilities.erase("io.modelcontextprotocol/clientCapabilities");
    EXPECT_EQ(error_code(request("server/discover")), -32602);
    EXPECT_EQ(error_code(request("server/discover", {{"_meta", no_capabilities}})), -32602);
    const Json unsupported = answer(request("tools/list", {{"_meta", modern_meta("1999-01-01")}}));
    EXPECT_EQ(unsupported["error"]["code"], -32022);
    EXPECT_EQ(unsupported["error"]["data"]["supported"], Json::array({"2026-07-28"}));
    EXPECT_EQ(unsupported["error"]["data"]["requested"], "1999-01-01");
    for (const char* removed : {"initialize", "ping", "logging/setLevel"}) {
        EXPECT_EQ(error_code(request(removed, {{"_meta", modern_meta()}})), -32601) << removed;
    }
}

TEST_F(McpServerTest, ContextToolAnswersWithThePack) {
    const Json result = answer(call({{"task", "Fix total_price rounding of tax"}}))["result"];
    EXPECT_EQ(result["isError"], false);
    EXPECT_EQ(result["resultType"], "complete");
    EXPECT_EQ(result["structuredContent"]["symbols"][0]["fqn"], "python.shop.cart.total_price");
    EXPECT_EQ(Json::parse(result["content"][0]["text"].get<std::string>()), result["structuredContent"]);

    EXPECT_EQ(error_code(request("tools/call", {{"name", "grep"}, {"_meta", modern_meta()}})), -32602);
    EXPECT_EQ(error_code(request("tools/call", {{"_meta", modern_meta()}})), -32602);

    // Progress, when asked for: a start and an end around the answer.
    std::vector<Json> notes;
    mcp::RequestContext with_progress;
    with_progress.notify = [&](const Json& note) { notes.push_back(note); };
    Json traced = call({{"task", "total_price"}});
    traced["params"]["_meta"]["progressToken"] = "p1";
    ASSERT_TRUE(server_.handle(traced, with_progress).has_value());
    ASSERT_EQ(notes.size(), 2u);
    EXPECT_EQ(notes[0]["method"], "notifications/progress");
    EXPECT_EQ(notes[0]["params"]["progressToken"], "p1");
    EXPECT_EQ(notes[1]["params"]["progress"], 100);
}

TEST_F(McpServerTest, BadArgumentsAreToolErrorsWithTheirMessage) {
    const std::vector<std::pair<Json, std::string>> cases = {
        {{{"task", "x"}, {"component", "nosuch"}}, "Unknown component: nosuch"},
        {Json::object(), "The task is missing: describe the coding task in plain words"},
        {{{"task", " \n\t"}}, "The task is empty: describe the coding task in plain words"},
        {{{"task", 5}}, "task must be a string"},
        {{{"task", "x"}, {"token_budget", -1}}, "token_budget must be a whole number of tokens, 1 or more"},
        {{{"task", "x"}, {"token_budget", 2.5}}, "token_budget must be a whole number of tokens, 1 or more"},
        {{{"task", "x"}, {"token_budget", "800"}}, "token_budget must be a whole number of tokens, 1 or more"},
        {{{"task", "x"}, {"prefer_kinds", "class"}}, "prefer_kinds must be a list of strings"},
        {{{"task", "x"}, {"deep_fqns", {1}}}, "deep_fqns must be a list of strings"},
        {{{"task", "x"}, {"include_snippets", "yes"}}, "include_snippets must be true or false"},
        {{{"task", "x"}, {"action", "explain"}}, "Unknown action: explain (the tool offers: task)"},
        {{{"task", "x"}, {"budget", 5}}, "Unknown argument: budget"},
        {Json::array(), "The arguments must be an object"},
    };
    for (const auto& [arguments, message] : cases) {
        const Json result = answer(call(arguments))["result"];
        EXPECT_EQ(result["isError"], true) << arguments;
        EXPECT_EQ(result["content"][0]["text"], message) << arguments;
        EXPECT_FALSE(result.contains("structuredContent")) << arguments;
    }
}

TEST(ContextRequest, ArgumentsBecomeThePackRequest) {
    const PackRequest request = mcp::context_request(Json{{"action", "task"},
                                                          {"task", "Speed up formatPrice"},
                                                          {"token_budget", 1200},
                                                          {"component", "web"},
                                                          {"include_snippets", true},
                                                          {"prefer_kinds", {"function"}},
                                                          {"source_only", false},
                                                          {"wide_match", true},
                                                          {"deep_fqns", {"a.b", "a.b", "c"}}});
    EXPECT_EQ(request.task, "Speed up formatPrice");
    EXPECT_EQ(request.token_budget, 1200);
    EXPECT_EQ(request.component_filter, "web");
    EXPECT_TRUE(request.include_snippets);
    EXPECT_EQ(request.prefer_kinds, std::vector<std::string>{"function"});
    EXPECT_FALSE(request.source_only);
    EXPECT_TRUE(request.wide_match);
    EXPECT_EQ(request.deep_fqns, (std::set<std::string>{"a.b", "c"}));

    const PackRequest defaults = mcp::context_request(Json{{"task", "x"}, {"component", ""}, {"prefer_kinds", Json::array()}});
    EXPECT_EQ(defaults.token_budget, 800);
    EXPECT_FALSE(defaults.component_filter.has_value()) << "an empty component is no filter";
    EXPECT_FALSE(defaults.prefer_kinds.has_value());
    EXPECT_TRUE(defaults.source_only);
    for (const Json& budget : {Json(100000), Json(9e18), Json(8000.0)}) {
        EXPECT_EQ(mcp::context_request(Json{{"task", "x"}, {"token_budget", budget}}).token_budget, mcp::kMaxTokenBudget) << budget;
    }
}

TEST(HttpEndpoint, ParsesHostAndPort) {
    struct Case {
        const char* text;
        const char* host;
        int port;
    };
    for (const Case& c : {Case{"8080", "127.0.0.1", 8080}, Case{"localhost:0", "localhost", 0},
                          Case{"0.0.0.0:9000", "0.0.0.0", 9000}, Case{"[::1]:7000", "::1", 7000}}) {
        const mcp::HttpEndpoint endpoint = mcp::parse_http_endpoint(c.text);
        EXPECT_EQ(endpoint.host, c.host) << c.text;
        EXPECT_EQ(endpoint.port, c.port) << c.text;
    }
    for (const char* bad : {"", "host:", ":80", "x:65536", "x:-1", "x:80a"}) {
        EXPECT_THROW(mcp::parse_http_endpoint(bad), std::invalid_argument) << bad;
    }
    for (const char* host : {"localhost", "127.0.0.1", "127.9.9.9", "::1"}) EXPECT_TRUE(mcp::is_loopback_host(host)) << host;
    for (const char* host : {"evil.example.com", "10.0.0.1", "localhost.evil.com", "127.evil.example", ""}) {
        EXPECT_FALSE(mcp::is_loopback_host(host)) << host;
    }
}

}  // namespace
