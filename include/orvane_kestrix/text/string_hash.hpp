#pragma once
// A hash for unordered containers keyed by strings that also finds keys given as string_view
// (with std::equal_to<>), so that a lookup of a view into other text allocates nothing.

#include <cstddef>
#include <functional>
#include <string_view>

namespace orvane_kestrix::text {

struct StringHash {
    using is_transparent = void;
    std::size_t operator()(std::string_view text) const { return std::hash<std::string_view>{}(text); }
};

}  // namespace orvane_kestrix::text
