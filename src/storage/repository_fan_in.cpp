// Production fan-in and test-file lookups, each one statement over a JSON list.

#include "orvane_kestrix/storage/repository_fan_in.hpp"

#include "orvane_kestrix/text/json_string.hpp"

namespace orvane_kestrix {

namespace storage {

std::string json_array(const std::vector<std::int64_t>& values) {
    std::string out = "[";
    for (std::size_t i = 0; i < values.size(); ++i) {
        if (i > 0) out.push_back(',');
        out += std::to_string(values[i]);
    }
    out.push_back(']');
    return out;
}

std::string json_array(const std::vector<std::string>& values) {
    std::string out = "[";
    for (std::size_t i = 0; i < values.size(); ++i) {
        if (i > 0) out.push_back(',');
        text::append_json_string(out, values[i]);
    }
    out.push_back(']');
    return out;
}

}  // namespace storage

FanInQueries::FanInQueries(storage::Database& db)
    : fan_in_(db.prepare("SELECT s.id, s.production_fan_in FROM json_each(?1) AS j "
                         "CROSS JOIN symbols AS s ON s.id = j.value")),
      test_paths_(db.prepare("SELECT f.path FROM json_each(?1) AS j "
                             "CROSS JOIN files AS f ON f.path = j.value WHERE f.is_test = 1")) {}

FanInMap FanInQueries::production_fan_in(const std::vector<std::int64_t>& ids) {
    FanInMap out;
    if (ids.empty()) return out;
    storage::ResetOnExit guard{fan_in_};
    fan_in_.bind(1, storage::json_array(ids));
    while (fan_in_.step()) out.emplace(fan_in_.column_int64(0), fan_in_.column_int64(1));
    return out;
}

std::unordered_set<std::string> FanInQueries::test_paths(const std::vector<std::string>& paths) {
    std::unordered_set<std::string> out;
    if (paths.empty()) return out;
    storage::ResetOnExit guard{test_paths_};
    test_paths_.bind(1, storage::json_array(paths));
    while (test_paths_.step()) out.emplace(test_paths_.column_text(0));
    return out;
}

}  // namespace orvane_kestrix
