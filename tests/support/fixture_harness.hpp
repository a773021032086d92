#pragma once
// A builder over a fixture index, for tests: the fixture is given as JSON text.

#include <memory>
#include <optional>
#include <string>

#include "orvane_kestrix/fixture/fixture_repository.hpp"

namespace orvane_kestrix::testing {

struct FixtureHarness {
    explicit FixtureHarness(const std::string& json_text)
        : fixture(parse_fixture(nlohmann::ordered_json::parse(json_text))),
          failures(fixture.fail),
          repository(fixture, log, failures) {
        if (fixture.retriever) retriever.emplace(fixture, log, failures);
        tokenizer.emplace(fixture.tokenizer.value_or(FixtureTokenizerData{}), log, failures);
        builder = std::make_unique<ContextBuilder>(repository, retriever ? &*retriever : nullptr,
                                                   ContextBuilderOptions{.list_tests = fixture.list_tests,
                                                                         .tokenizer = &*tokenizer});
    }

    // The ops of the logged calls, in order.
    std::vector<std::string> ops() const {
        std::vector<std::string> out;
        for (const auto& call : log.calls()) out.push_back(call["op"].get<std::string>());
        return out;
    }

    Fixture fixture;
    CallLog log;
    FailureInjector failures;
    FixtureRepository repository;
    std::optional<FixtureRetriever> retriever;
    std::optional<ScriptedTokenizer> tokenizer;
    std::unique_ptr<ContextBuilder> builder;
};

}  // namespace orvane_kestrix::testing
