#pragma once
// Unicode text helpers over UTF-8 strings: code-point counts, full lowercasing, white space
// as str.isspace defines it, and lenient decoding of file bytes.

#include <cstddef>
#include <string>
#include <string_view>

namespace orvane_kestrix::text {

// Number of code points of valid UTF-8 text.
std::size_t code_points(std::string_view utf8);

// Full Unicode lowercasing of the whole string (root locale): "İ" becomes "i̇".
std::string lowercase(std::string_view utf8);

// Whether the code point is white space: U+0009-U+000D, U+001C-U+0020, U+0085, U+00A0,
// U+1680, U+2000-U+200A, U+2028, U+2029, U+202F, U+205F, U+3000.
bool is_space(char32_t cp);

// The text without white space at its end / at both ends.
std::string_view rstrip(std::string_view utf8);
std::string_view strip(std::string_view utf8);

// Whether the bytes are well-formed UTF-8 (no overlong forms, surrogates or code points past
// U+10FFFF).
bool is_valid_utf8(std::string_view bytes);

// Bytes as UTF-8 text: each maximal ill-formed subsequence becomes one U+FFFD.
std::string decode_utf8_lenient(std::string_view bytes);

// CR LF and lone CR become LF.
std::string universal_newlines(std::string_view text);

// File bytes as the index and the snippet reader read them: ill-formed UTF-8 replaced as
// decode_utf8_lenient does, CR LF and lone CR as LF, a byte-order mark kept.
std::string source_text(std::string_view bytes);
// Whether the bytes already read so: valid UTF-8 without a CR.
bool is_source_text(std::string_view bytes);

}  // namespace orvane_kestrix::text
