#pragma once

#include <optional>
#include <string>

#include "orvane_kestrix/models.hpp"

namespace orvane_kestrix {

// One entry of a ranking.
struct RankedSymbol {
    Symbol symbol{};
    double score = 0;
    std::optional<std::string> file_path{};  // repository-relative; absent when the index has none
};

}  // namespace orvane_kestrix
