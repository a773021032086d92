// UTF-8 validity at every alignment: the check skips ASCII in eight-byte words, so a bad or
// multi-byte sequence must be found wherever it falls relative to those words.

#include <gtest/gtest.h>

#include <string>

#include "orvane_kestrix/text/unicode.hpp"

namespace orvane_kestrix::text {
namespace {

TEST(Utf8Validity, FoundAtEveryOffset) {
    struct Case {
        const char* what;
        std::string bytes;
        bool valid;
    };
    const Case cases[] = {
        {"two-byte", "\xC3\xA9", true},
        {"three-byte", "\xE2\x82\xAC", true},
        {"four-byte", "\xF0\x9F\x98\x80", true},
        {"lone continuation", "\x80", false},
        {"overlong", "\xC0\xAF", false},
        {"surrogate", "\xED\xA0\x80", false},
        {"above U+10FFFF", "\xF4\x90\x80\x80", false},
        {"cut short", "\xE2\x82", false},
        {"0xFF", "\xFF", false},
        {"DEL and NUL are ASCII", std::string("\x7F\0", 2), true},
    };
    for (const auto& c : cases) {
        for (std::size_t before = 0; before <= 9; ++before) {
            // Also at the very end of the text, where a truncated sequence is cut by the end.
            for (std::size_t after : {std::size_t{0}, std::size_t{9}}) {
                const std::string text = std::string(before, 'a') + c.bytes + std::string(after, 'b');
                EXPECT_EQ(is_valid_utf8(text), c.valid) << c.what << " after " << before << " and before " << after;
            }
        }
    }
    EXPECT_TRUE(is_valid_utf8(""));
    EXPECT_TRUE(is_valid_utf8(std::string(64, 'x')));
}

}  // namespace
}  // namespace orvane_kestrix::text
