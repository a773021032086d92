#pragma once
// gmock doubles of the index contract and the tokenizer, for tests of the builder's stages.

#include <gmock/gmock.h>

#include "orvane_kestrix/storage/repository.hpp"
#include "orvane_kestrix/workers/retrieval.hpp"

namespace orvane_kestrix::testing {

class MockRepository : public Repository {
public:
    MOCK_METHOD(std::optional<Component>, get_component_by_name, (const std::string& name), (override));
    MOCK_METHOD(std::vector<FileRecord>, get_files_by_component, (std::int64_t component_id), (override));
    MOCK_METHOD(SymbolSearchResult, search_symbols, (const std::string& pattern, std::int64_t limit, bool source_only),
                (override));
    MOCK_METHOD(SymbolPathMap, get_file_paths_batch, (const std::vector<Symbol>& symbols), (override));
    MOCK_METHOD(FanInMap, production_fan_in, (const std::vector<std::int64_t>& ids), (override));
    MOCK_METHOD(std::unordered_set<std::string>, test_paths, (const std::vector<std::string>& paths), (override));
    MOCK_METHOD((std::unordered_map<std::int64_t, SymbolWithPath>), symbols_with_paths,
                (const std::vector<std::optional<std::int64_t>>& ids), (override));
    MOCK_METHOD(std::vector<CoveringTest>, find_covering_tests, (const std::vector<std::string>& paths), (override));
    MOCK_METHOD(std::vector<Symbol>, get_symbols_by_file, (std::int64_t file_id), (override));
    MOCK_METHOD(ReferencesResult, get_references, (const std::string& fqn), (override));
    MOCK_METHOD(std::optional<Symbol>, get_symbol_by_fqn, (const std::string& fqn), (override));
};

class MockTokenizer : public Tokenizer {
public:
    MOCK_METHOD(std::vector<std::string>, query_names, (const std::string& task), (override));
    MOCK_METHOD(std::vector<std::string>, query_terms, (const std::string& task), (override));
    MOCK_METHOD(bool, is_test_query, (const std::vector<std::string>& terms), (override));
};

}  // namespace orvane_kestrix::testing
