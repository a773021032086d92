#pragma once
// Replaying a fixture: one pack built by the real builder over the fixture index, with the
// log of every call it made and the records of the module logger.

#include <nlohmann/json.hpp>

#include "orvane_kestrix/storage/fixture_repository.hpp"

namespace orvane_kestrix {

// Builds the fixture's pack. Returns {"pack": ...} or {"error": {"type", "message"}}, then
// "calls" and "log". Throws FixtureError when the fixture's source tree cannot be written.
nlohmann::ordered_json replay_fixture(const Fixture& fixture);

}  // namespace orvane_kestrix
