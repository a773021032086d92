#include "orvane_kestrix/text/unicode.hpp"

#include <unicode/bytestream.h>
#include <unicode/casemap.h>
#include <unicode/utf8.h>

#include <cstdint>
#include <cstring>
#include <stdexcept>

namespace orvane_kestrix::text {

std::size_t code_points(std::string_view utf8) {
    std::size_t n = 0;
    for (unsigned char c : utf8) {
        if ((c & 0xC0) != 0x80) ++n;
    }
    return n;
}

std::string lowercase(std::string_view utf8) {
    // ASCII fast path: most names and keywords are ASCII.
    bool ascii = true;
    for (unsigned char c : utf8) {
        if (c >= 0x80) {
            ascii = false;
            break;
        }
    }
    if (ascii) {
        std::string out(utf8);
        for (char& c : out) {
            if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
        }
        return out;
    }
    std::string out;
    icu::StringByteSink<std::string> sink(&out, static_cast<int32_t>(utf8.size()));
    UErrorCode status = U_ZERO_ERROR;
    icu::CaseMap::utf8ToLower("", 0, icu::StringPiece(utf8.data(), static_cast<int32_t>(utf8.size())),
                              sink, nullptr, status);
    if (U_FAILURE(status)) throw std::runtime_error("lowercase: ICU case mapping failed");
    return out;
}

bool is_space(char32_t cp) {
    return (cp >= 0x09 && cp <= 0x0D) || (cp >= 0x1C && cp <= 0x20) || cp == 0x85 || cp == 0xA0 ||
           cp == 0x1680 || (cp >= 0x2000 && cp <= 0x200A) || cp == 0x2028 || cp == 0x2029 ||
           cp == 0x202F || cp == 0x205F || cp == 0x3000;
}

namespace {

// Byte length of the white-space code point that ends `s`, or 0.
std::size_t trailing_space_len(std::string_view s) {
    if (s.empty()) return 0;
    auto last = static_cast<unsigned char>(s.back());
    if (last < 0x80) return is_space(last) ? 1 : 0;
    // Step back to the lead byte of the last code point.
    std::size_t start = s.size() - 1;
    while (start > 0 && (static_cast<unsigned char>(s[start]) & 0xC0) == 0x80 && s.size() - start < 4) --start;
    int32_t i = static_cast<int32_t>(start);
    UChar32 cp;
    U8_NEXT(reinterpret_cast<const uint8_t*>(s.data()), i, static_cast<int32_t>(s.size()), cp);
    if (cp < 0 || static_cast<std::size_t>(i) != s.size()) return 0;
    return is_space(static_cast<char32_t>(cp)) ? s.size() - start : 0;
}

// Byte length of the white-space code point that starts `s`, or 0.
std::size_t leading_space_len(std::string_view s) {
    if (s.empty()) return 0;
    int32_t i = 0;
    UChar32 cp;
    U8_NEXT(reinterpret_cast<const uint8_t*>(s.data()), i, static_cast<int32_t>(s.size()), cp);
    if (cp < 0) return 0;
    return is_space(static_cast<char32_t>(cp)) ? static_cast<std::size_t>(i) : 0;
}

}  // namespace

std::string_view rstrip(std::string_view utf8) {
    while (std::size_t n = trailing_space_len(utf8)) utf8.remove_suffix(n);
    return utf8;
}

std::string_view strip(std::string_view utf8) {
    while (std::size_t n = leading_space_len(utf8)) utf8.remove_prefix(n);
    return rstrip(utf8);
}

bool is_valid_utf8(std::string_view s) {
    std::size_t i = 0;
    const std::size_t n = s.size();
    while (i < n) {
        // Source text is mostly ASCII: skip it eight bytes at a time.
        constexpr std::uint64_t kHighBits = 0x8080808080808080ULL;
        std::uint64_t word = 0;
        while (i + sizeof word <= n && (std::memcpy(&word, s.data() + i, sizeof word), (word & kHighBits) == 0)) {
            i += sizeof word;
        }
        if (i == n) break;
        auto c = static_cast<unsigned char>(s[i]);
        if (c < 0x80) {
            ++i;
            continue;
        }
        std::size_t length;
        char32_t min;
        if (c >= 0xC2 && c <= 0xDF) {
            length = 2;
            min = 0x80;
        } else if (c >= 0xE0 && c <= 0xEF) {
            length = 3;
            min = 0x800;
        } else if (c >= 0xF0 && c <= 0xF4) {
            length = 4;
            min = 0x10000;
        } else {
            return false;
        }
        if (i + length > n) return false;
        char32_t cp = c & (0x7F >> length);
        for (std::size_t k = 1; k < length; ++k) {
            auto cc = static_cast<unsigned char>(s[i + k]);
            if ((cc & 0xC0) != 0x80) return false;
            cp = (cp << 6) | (cc & 0x3F);
        }
        if (cp < min || cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF)) return false;
        i += length;
    }
    return true;
}

std::string decode_utf8_lenient(std::string_view bytes) {
    std::string out;
    out.reserve(bytes.size());
    const auto* data = reinterpret_cast<const uint8_t*>(bytes.data());
    const auto length = static_cast<int32_t>(bytes.size());
    int32_t i = 0;
    while (i < length) {
        if (data[i] < 0x80) {
            out.push_back(static_cast<char>(data[i]));
            ++i;
            continue;
        }
        int32_t start = i;
        UChar32 cp;
        // U8_NEXT consumes exactly one maximal ill-formed subsequence on error, which is the
        // replacement policy of Python's "replace" decoder.
        U8_NEXT(data, i, length, cp);
        if (cp < 0) {
            out += "\xEF\xBF\xBD";
        } else {
            out.append(bytes.substr(static_cast<std::size_t>(start), static_cast<std::size_t>(i - start)));
        }
    }
    return out;
}

std::string universal_newlines(std::string_view text) {
    std::string out;
    out.reserve(text.size());
    for (std::size_t i = 0; i < text.size(); ++i) {
        char c = text[i];
        if (c == '\r') {
            out.push_back('\n');
            if (i + 1 < text.size() && text[i + 1] == '\n') ++i;
        } else {
            out.push_back(c);
        }
    }
    return out;
}

std::string source_text(std::string_view bytes) {
    std::string text = is_valid_utf8(bytes) ? std::string(bytes) : decode_utf8_lenient(bytes);
    if (text.find('\r') != std::string::npos) text = universal_newlines(text);
    return text;
}

bool is_source_text(std::string_view bytes) {
    return bytes.find('\r') == std::string_view::npos && is_valid_utf8(bytes);
}

}  // namespace orvane_kestrix::text
