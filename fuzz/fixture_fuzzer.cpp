// The fixture loader on any bytes, then, for a fixture it accepts, the replay of its pack: what
// `kestrix replay` does with a file. Either step may refuse the input with its documented errors
// (bad JSON, a FixtureError naming the key); anything else escaping is a finding. The replay's
// source tree is written beneath this process's scratch directory.

#include <cstdlib>
#include <optional>

#include "fuzz_target.hpp"
#include "orvane_kestrix/fixture/replay.hpp"
#include "scratch_directory.hpp"

using namespace orvane_kestrix;

namespace {
std::optional<fuzz::ScratchDirectory> scratch;
}

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    // Replay makes its source tree under the temporary directory: keep it inside ours.
    scratch.emplace();
    ::setenv("TMPDIR", scratch->path().c_str(), 1);
    std::atexit([] { scratch.reset(); });
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    Fixture fixture;
    try {
        fixture = parse_fixture_text(fuzz::as_text(data, size));
    } catch (const nlohmann::json::exception&) {
        return 0;
    } catch (const FixtureError&) {
        return 0;
    }
    try {
        const auto result = replay_fixture(fixture);
        fuzz::require(result.contains("pack") != result.contains("error"), "a replay gives a pack or an error");
        result.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
    } catch (const FixtureError&) {
        return 0;  // the fixture's source tree could not be written (a file where a folder must be)
    }
    return 0;
}
