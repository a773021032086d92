#pragma once
// The production fan-in and test-file queries of the SQLite index, and the helpers that hand a
// whole list to SQLite as one bound parameter.
//
// A list travels as one JSON array bound to `json_each(?)`, so every list is answered by one
// prepared statement whatever its length: no statement per size, no variable limit to chunk
// against.

#include <cstdint>
#include <string>
#include <unordered_set>
#include <vector>

#include "orvane_kestrix/storage/repository.hpp"
#include "orvane_kestrix/storage/sqlite_schema.hpp"

namespace orvane_kestrix {

namespace storage {

// "[1,2,3]".
std::string json_array(const std::vector<std::int64_t>& values);
// A JSON array of strings. Bytes are passed through as they are (SQLite's JSON reader takes
// them back unchanged), only '"', '\' and control characters are escaped.
std::string json_array(const std::vector<std::string>& values);

}  // namespace storage

// Production fan-in by symbol id, and which paths are test files. Borrows the connection,
// which must outlive it; statements are prepared once.
class FanInQueries {
public:
    explicit FanInQueries(storage::Database& db);

    // Symbol id -> stored production fan-in (references from non-test files resolved to the
    // symbol). Ids the index does not hold have no entry.
    FanInMap production_fan_in(const std::vector<std::int64_t>& ids);
    // Those of `paths` whose file the index flags as a test file; repeats allowed.
    std::unordered_set<std::string> test_paths(const std::vector<std::string>& paths);

private:
    storage::Statement fan_in_;
    storage::Statement test_paths_;
};

}  // namespace orvane_kestrix
