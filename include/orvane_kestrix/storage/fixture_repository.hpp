#pragma once
// The fixture index: an index, a retriever and a tokenizer that answer from a JSON fixture
// instead of a database, logging every call. It pins the index's answers so that a pack
// depends on the builder alone; replays and unit tests run over it.

#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <stdexcept>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "orvane_kestrix/storage/repository.hpp"
#include "orvane_kestrix/workers/context_builder/context_builder.hpp"
#include "orvane_kestrix/workers/retrieval.hpp"

namespace orvane_kestrix {

// A fixture that is not of the expected shape; the message names the offending key.
class FixtureError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

struct FixtureFile {
    std::optional<std::int64_t> id;
    std::string path;
    bool is_test = false;
    bool is_source = true;
};

struct FixtureComponent {
    std::optional<std::int64_t> id;
    std::string name;
    std::vector<std::optional<std::int64_t>> file_ids;
};

struct FixtureCoveringTest {
    std::string test;
    std::vector<std::pair<std::string, double>> reaches;  // source path -> rank
};

struct FixtureHit {
    std::optional<std::int64_t> id;
    double score = 0;
    std::string kind;
};

struct FixtureRetrieverData {
    std::vector<FixtureHit> hits;
    std::optional<std::string> note;
};

struct FixtureTokenizerData {
    std::vector<std::string> names;
    std::vector<std::string> terms;
    bool is_test = false;
};

struct FixtureIndexing {
    bool in_progress = false;
    std::int64_t progress = 100;
};

// An operation that throws, on every call or from its n-th call on.
struct FixtureFailure {
    std::string message;
    std::int64_t from_call = 1;
};

struct Fixture {
    std::vector<Symbol> symbols;
    std::vector<FixtureFile> files;
    std::vector<FixtureComponent> components;
    std::map<std::int64_t, std::int64_t> fan_in;
    std::map<std::string, std::vector<Reference>> references;
    std::vector<FixtureCoveringTest> covering_tests;
    std::optional<FixtureRetrieverData> retriever;
    std::optional<FixtureTokenizerData> tokenizer;
    bool list_tests = false;
    std::optional<FixtureIndexing> indexing;
    PackRequest request;  // repo_root, when given, is relative to the source tree
    std::map<std::string, std::string> source_files;  // relative path -> bytes
    std::map<std::string, FixtureFailure> fail;
};

// Parses and checks a fixture; throws FixtureError naming the offending key.
Fixture parse_fixture(const nlohmann::ordered_json& document);

// Parses fixture text as JSON, then as parse_fixture does. A number too large for a double
// is a FixtureError naming its key; bad JSON throws nlohmann::json::parse_error.
Fixture parse_fixture_text(std::string_view text);

// The largest fixture document read (a replay input beyond it is refused unread).
inline constexpr std::size_t kMaxFixtureBytes = std::size_t{64} << 20;

// The calls made on the fixture index, retriever and tokenizer, in order.
class CallLog {
public:
    void add(nlohmann::ordered_json call) { calls_.push_back(std::move(call)); }
    const nlohmann::ordered_json& calls() const { return calls_; }

private:
    nlohmann::ordered_json calls_ = nlohmann::ordered_json::array();
};

// Counts the calls of each operation and throws where the fixture says it fails.
class FailureInjector {
public:
    explicit FailureInjector(const std::map<std::string, FixtureFailure>& fail) : fail_(fail) {}
    void on_call(const std::string& operation);

private:
    const std::map<std::string, FixtureFailure>& fail_;
    std::map<std::string, std::int64_t> counts_;
};

class FixtureRepository final : public Repository {
public:
    FixtureRepository(const Fixture& fixture, CallLog& log, FailureInjector& failures)
        : fixture_(fixture), log_(log), failures_(failures) {}

    std::optional<Component> get_component_by_name(const std::string& name) override;
    std::vector<FileRecord> get_files_by_component(std::int64_t component_id) override;
    SymbolSearchResult search_symbols(const std::string& pattern, std::int64_t limit = 50,
                                      bool source_only = true) override;
    SymbolPathMap get_file_paths_batch(const std::vector<Symbol>& symbols) override;
    FanInMap production_fan_in(const std::vector<std::int64_t>& ids) override;
    std::unordered_set<std::string> test_paths(const std::vector<std::string>& paths) override;
    std::unordered_map<std::int64_t, SymbolWithPath> symbols_with_paths(const std::vector<std::optional<std::int64_t>>& ids) override;
    std::vector<CoveringTest> find_covering_tests(const std::vector<std::string>& paths) override;
    std::vector<Symbol> get_symbols_by_file(std::int64_t file_id) override;
    ReferencesResult get_references(const std::string& fqn) override;
    std::optional<Symbol> get_symbol_by_fqn(const std::string& fqn) override;

private:
    void record(const std::string& operation, nlohmann::ordered_json call);
    const FixtureFile* file_by_id(const std::optional<std::int64_t>& id) const;

    const Fixture& fixture_;
    CallLog& log_;
    FailureInjector& failures_;
};

class FixtureRetriever final : public HybridRetriever {
public:
    FixtureRetriever(const Fixture& fixture, CallLog& log, FailureInjector& failures)
        : fixture_(fixture), log_(log), failures_(failures) {}
    RetrievalResult retrieve(const std::string& task, std::int64_t limit, bool include_tests) override;

private:
    const Fixture& fixture_;
    CallLog& log_;
    FailureInjector& failures_;
};

// A tokenizer that answers the fixture's scripted names, terms and test flag.
class ScriptedTokenizer final : public Tokenizer {
public:
    ScriptedTokenizer(FixtureTokenizerData data, CallLog& log, FailureInjector& failures)
        : data_(std::move(data)), log_(log), failures_(failures) {}
    std::vector<std::string> query_names(const std::string& task) override;
    std::vector<std::string> query_terms(const std::string& task) override;
    bool is_test_query(const std::vector<std::string>& terms) override;

private:
    FixtureTokenizerData data_;
    CallLog& log_;
    FailureInjector& failures_;
};

// Wraps a tokenizer so that its calls are logged (and may fail) like the fixture's own.
class LoggingTokenizer final : public Tokenizer {
public:
    LoggingTokenizer(Tokenizer& inner, CallLog& log, FailureInjector& failures)
        : inner_(inner), log_(log), failures_(failures) {}
    std::vector<std::string> query_names(const std::string& task) override;
    std::vector<std::string> query_terms(const std::string& task) override;
    bool is_test_query(const std::vector<std::string>& terms) override;

private:
    Tokenizer& inner_;
    CallLog& log_;
    FailureInjector& failures_;
};

// SQL LIKE without an escape character: "%" any run, "_" one code point, only A-Z and a-z
// folded together, the whole text matched.
bool like_match(std::string_view pattern, std::string_view text);

}  // namespace orvane_kestrix
