#pragma once
// What every fuzz target shares: the entry points libFuzzer (or the standalone driver) calls,
// and the check that stops a run when a target's result breaks a promise of its interface.

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string_view>

#include "orvane_kestrix/text/unicode.hpp"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);
extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv);

namespace orvane_kestrix::fuzz {

inline std::string_view as_text(const std::uint8_t* data, std::size_t size) {
    return {reinterpret_cast<const char*>(data), size};
}

// A broken promise is a finding: abort, so that libFuzzer keeps the input as a crash file.
inline void require(bool holds, const char* what) {
    if (holds) return;
    std::fprintf(stderr, "fuzz: broken promise: %s\n", what);
    std::abort();
}

inline void require_utf8(std::string_view text, const char* what) {
    require(text::is_valid_utf8(text), what);
}

}  // namespace orvane_kestrix::fuzz
