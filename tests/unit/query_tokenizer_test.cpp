// The task tokenizer on real-looking tasks: the exact names and terms of a table of tasks,
// then properties that hold for every task, then the test-task judgement.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "orvane_kestrix/text/unicode.hpp"
#include "orvane_kestrix/workers/retrieval.hpp"

namespace orvane_kestrix {
namespace {

using ::testing::ElementsAreArray;
using Words = std::vector<std::string>;

struct TokenCase {
    const char* label;
    std::string task;
    Words names;
    Words terms;
};

const std::vector<TokenCase>& token_cases() {
    static const std::vector<TokenCase> cases = {
        {"backticked name, hyphenated header, plain words",
         "Fix `parse_header` when the Content-Type has no charset",
         {"parse_header"},
         {"parse", "header", "content", "type", "charset"}},
        {"dotted path gives its parts", "Add retries to HttpClient.send", {"HttpClient", "send"},
         {"retries", "http", "client", "send"}},
        {"question without names", "why do the tests of the cache fail?", {}, {"tests", "cache", "fail"}},
        {"camelCase and a file path: the stem is a name, directories are terms",
         "Rename getUserById in src/api/users.ts",
         {"getUserById", "users"},
         {"get", "user", "id", "api", "users"}},
        {"acronym in capitals is no name", "Document the REST api endpoint for orders", {},
         {"document", "rest", "api", "endpoint", "orders"}},
        {"capital runs and plural acronyms", "parseHTTPResponse returns null for APIs",
         {"parseHTTPResponse"},
         {"parse", "http", "response", "returns", "null", "apis"}},
        {"Cyrillic", "Исправить ошибку в КэшМенеджер при чтении файла", {"КэшМенеджер"},
         {"исправить", "ошибку", "кэш", "менеджер", "при", "чтении", "файла"}},
        {"Latin letters beyond ASCII", "Größe falsch in `berechne_größe` für ÜberParser",
         {"berechne_größe", "ÜberParser"},
         {"größe", "falsch", "berechne", "für", "über", "parser"}},
        {"empty task", "", {}, {}},
        {"only punctuation", "?!... --- () `` ``` :: -> ##", {}, {}},
        {"title-cased task: capitals say nothing", "Add Retry Support To The HTTP Client", {},
         {"retry", "http", "client"}},
        {"receiver left out, argument in parentheses is no name",
         "Why does self.cache.get(key) return stale data?",
         {"cache", "get"},
         {"cache", "get", "key", "return", "stale", "data"}},
        {"plural in parentheses is no call", "Document the endpoint(s) of the orders API", {},
         {"document", "endpoint", "orders", "api"}},
        {"abbreviation ends no sentence", "Cache misses, e.g. Parser results", {"Parser"},
         {"cache", "misses", "parser", "results"}},
        {"sentence starts hide capitals", "Parser crashes. Lexer too! Then Tokenizer fails: Reader hangs",
         {"Tokenizer"},
         {"parser", "crashes", "lexer", "tokenizer", "fails", "reader", "hangs"}},
        {"URLs and e-mail addresses are skipped",
         "See https://example.com/docs/HttpClient for details, mail dev@example.org", {},
         {"details", "mail"}},
        {"digits stay with their letters; numbers are dropped",
         "Support utf8 and sha256 in base64 encoder, HTTP2Response too; bump to 3.12 after 404",
         {"utf8", "sha256", "base64", "HTTP2Response"},
         {"utf8", "sha256", "base64", "encoder", "http2", "response", "bump"}},
        {"fenced code: every identifier, no language tag", "```python\nclient.send(payload)\n```",
         {"client", "send", "payload"},
         {"client", "send", "payload"}},
        {"other path separators", "Crash in std::vector from obj->flush and Router#dispatch",
         {"std", "vector", "obj", "flush", "Router", "dispatch"},
         {"crash", "std", "vector", "obj", "flush", "router", "dispatch"}},
        {"apostrophes", "The parser doesn't handle Lexer's tokens", {"Lexer"},
         {"parser", "handle", "lexer", "tokens"}},
        {"call of a plain word", "Calling reset() twice leaks", {"reset"}, {"calling", "reset", "twice", "leaks"}},
        {"kebab-case file gives no name", "Fix src/my-lib/user-service.ts", {},
         {"lib", "user", "service"}},
        {"file name with inner dots, repeated names once", "users.test.ts fails; users.test.ts again",
         {"users"},
         {"users", "test", "fails"}},
        {"screaming case", "Raise MAX_RETRIES and read TIMEOUT", {"MAX_RETRIES"},
         {"raise", "max", "retries", "read", "timeout"}},
        {"unclosed backtick is punctuation", "Rename `foo to bar", {}, {"foo", "bar"}},
    };
    return cases;
}

void PrintTo(const TokenCase& c, std::ostream* os) { *os << c.label; }

class TokenTable : public ::testing::TestWithParam<TokenCase> {};

TEST_P(TokenTable, NamesAndTerms) {
    const TokenCase& c = GetParam();
    QueryTokenizer tokenizer;
    EXPECT_THAT(tokenizer.query_names(c.task), ElementsAreArray(c.names)) << c.label;
    EXPECT_THAT(tokenizer.query_terms(c.task), ElementsAreArray(c.terms)) << c.label;
}

INSTANTIATE_TEST_SUITE_P(Tasks, TokenTable, ::testing::ValuesIn(token_cases()));

// Properties of every task of the table and of some harder ones.
TEST(QueryTokenizer, PropertiesHoldForEveryTask) {
    std::vector<std::string> tasks;
    for (const auto& c : token_cases()) tasks.push_back(c.task);
    tasks.push_back("Traceback (most recent call last):\n  File \"app/models.py\", line 12, in load_user\n"
                    "    return User.objects.get(pk=user_id)\nDoesNotExist: User matching query");
    tasks.push_back(std::string(40, 'x') + "_" + std::string(3000, 'y'));
    std::string long_task;
    for (int i = 0; i < 200; ++i) long_task += "name" + std::to_string(i) + "_part word" + std::to_string(i) + " ";
    tasks.push_back(long_task);

    QueryTokenizer tokenizer;
    for (const auto& task : tasks) {
        SCOPED_TRACE(task.substr(0, 60));
        const Words names = tokenizer.query_names(task);
        const Words terms = tokenizer.query_terms(task);
        for (std::size_t i = 0; i < names.size(); ++i) {
            EXPECT_NE(task.find(names[i]), std::string::npos) << "a name is written in the task: " << names[i];
            for (std::size_t j = 0; j < i; ++j) EXPECT_NE(names[i], names[j]);
        }
        for (std::size_t i = 0; i < terms.size(); ++i) {
            EXPECT_EQ(terms[i], text::lowercase(terms[i]));
            EXPECT_GE(text::code_points(terms[i]), 2u) << terms[i];
            for (std::size_t j = 0; j < i; ++j) EXPECT_NE(terms[i], terms[j]);
        }
        EXPECT_EQ(tokenizer.query_names(task), names) << "stable";
        EXPECT_EQ(tokenizer.query_terms(task), terms) << "stable";
    }
}

TEST(QueryTokenizer, StackTraceNamesItsCode) {
    QueryTokenizer tokenizer;
    const std::string task =
        "Traceback: File \"app/models.py\", line 12, in load_user\n    return User.objects.get(pk=user_id)";
    const Words names = tokenizer.query_names(task);
    EXPECT_THAT(names, ::testing::IsSupersetOf(Words{"models", "load_user", "User", "objects", "get", "user_id"}));
    EXPECT_THAT(names, ::testing::Not(::testing::Contains("app")));
    EXPECT_THAT(names, ::testing::Not(::testing::Contains("py")));
}

TEST(QueryTokenizer, LowercasesWithFullUnicodeMapping) {
    QueryTokenizer tokenizer;
    // Dotted capital I lowercases to two code points.
    EXPECT_THAT(tokenizer.query_terms("İstanbulCache"), ElementsAreArray(Words{"i\xCC\x87stanbul", "cache"}));
    EXPECT_THAT(tokenizer.query_names("İstanbulCache"), ElementsAreArray(Words{"İstanbulCache"}));
}

TEST(QueryTokenizer, IllFormedBytesSeparateWords) {
    QueryTokenizer tokenizer;
    const std::string task = "\xff\xfeparse_header\xc3 in\x80reader";
    EXPECT_THAT(tokenizer.query_names(task), ElementsAreArray(Words{"parse_header"}));
    EXPECT_THAT(tokenizer.query_terms(task), ElementsAreArray(Words{"parse", "header", "reader"}));
}

TEST(QueryTokenizer, RecognisesTestTasks) {
    QueryTokenizer tokenizer;
    struct Judgement {
        std::string task;
        bool about_tests;
    };
    const std::vector<Judgement> judgements = {
        {"why do the tests of the cache fail?", true},
        {"Add a pytest fixture for the parser", true},
        {"Mock the HTTP client in TestClientPool", true},
        {"e2e run is flaky on CI", true},
        {"Raise coverage of users.test.ts", true},
        {"Fix the failing spec for the router", true},
        {"Add retries to HttpClient.send", false},
        {"Document the REST api endpoint for orders", false},
        {"Update the contest leaderboard latest scores", false},
        {"", false},
    };
    for (const auto& j : judgements) {
        EXPECT_EQ(tokenizer.is_test_query(tokenizer.query_terms(j.task)), j.about_tests) << j.task;
    }
    EXPECT_TRUE(tokenizer.is_test_query({"Tests"}));
    EXPECT_FALSE(tokenizer.is_test_query({}));
}

TEST(QueryTokenizer, DefaultIsOneSharedQueryTokenizer) {
    Tokenizer& first = default_tokenizer();
    EXPECT_EQ(&first, &default_tokenizer());
    EXPECT_NE(dynamic_cast<QueryTokenizer*>(&first), nullptr);
}

}  // namespace
}  // namespace orvane_kestrix
