// The task tokenizer: the identifiers a plain-language coding task writes (names) and the
// lowercased words the task is made of (terms).
//
// A task is scanned once into words. Each word knows where it stands: inside a backtick code
// span, at the start of a sentence, in a hyphenated compound ("Content-Type"), directly before
// "(", and which part it plays in a compound joined by ".", "::", "->" or "#" (a dotted path) or
// by "/" or "\" (a file path).
//
// Names, in order of appearance, each once, as written:
// - A dotted path gives its parts, not the whole path. The index matches whole symbol names, so
//   `HttpClient.send` finds the symbols `HttpClient` and `send`; "HttpClient.send" finds none.
//   Receivers and literals (`self`, `this`, `None`) are left out.
// - A file name gives its stem up to the first dot (`parser.py` and `src/http/client.ts` give
//   `parser` and `client`): modules and classes are named after their files far more often
//   than after their directories. Directories and extensions are no names.
// - A word in backticks or directly before "(" is a name ("file(s)" is a plural, not a call).
// - Elsewhere the spelling decides: an underscore, an inner capital (camelCase, PascalCase,
//   HTTPServer) or a digit after a letter (utf8, sha256) makes a name. A capitalised word
//   (`Parser`) is a name too, except at the start of a sentence, in a hyphenated compound, when
//   it is a common word, or when the task capitalises most of its words anyway (a title). Words
//   in capitals only (API, REST, and plurals like APIs) are acronyms, not names.
//
// Terms, in order of appearance, each once: every word (names included) split at underscores
// and case changes (HttpClient -> http, client; parseHTTPResponse -> parse, http, response;
// HTTP2Response -> http2, response). Digits stay with the letters before them (utf8, sha256,
// base64): split off, "8" or "256" would match nothing. Then full Unicode lowercasing, and
// common words (common_words.inc), single characters, numbers and measurements (404, 3.12,
// 100ms), file extensions, URLs and e-mail addresses are left out. Letters of every script are
// word characters.
//
// The tokenizer keeps no state: the word tables are built once, on first use, and only read.

#include <unicode/uchar.h>
#include <unicode/utf8.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <string_view>
#include <unordered_set>

#include "orvane_kestrix/text/unicode.hpp"
#include "orvane_kestrix/workers/retrieval.hpp"

namespace orvane_kestrix {

namespace {

// ---------------------------------------------------------------------------------------------
// Word tables

using WordSet = std::unordered_set<std::string_view>;

const WordSet& common_words() {
    static const WordSet words = {
#include "common_words.inc"
    };
    return words;
}

// Words that say a task is about tests.
const WordSet& test_words() {
    static const WordSet words = {
        "test",       "tests",      "testing",     "tested",      "tester",     "testers",
        "testcase",   "testcases",  "testsuite",   "testsuites",  "testable",   "untested",
        "unittest",   "unittests",  "pytest",      "conftest",    "jest",       "vitest",
        "mocha",      "jasmine",    "junit",       "testng",      "xunit",      "nunit",
        "mstest",     "minitest",   "gtest",       "googletest",  "gmock",      "doctest",
        "doctests",   "cypress",    "playwright",  "selenium",    "coverage",   "fixture",
        "fixtures",   "mock",       "mocks",       "mocked",      "mocking",    "stub",
        "stubs",      "stubbed",    "stubbing",    "spy",         "spies",      "fake",
        "fakes",      "assert",     "asserts",     "assertion",   "assertions", "flaky",
        "flakiness",  "e2e",        "tdd",         "parametrize", "parametrized", "parameterized",
        "spec",       "specs",      "rspec",
    };
    return words;
}

// Words that are never names even in code: receivers, literals and common language keywords.
const WordSet& code_words() {
    static const WordSet words = {
        "self",   "this",   "cls",    "super",  "None",    "null",  "nil",    "NULL",   "nullptr",
        "true",   "false",  "True",   "False",  "undefined", "NaN", "return", "def",    "fn",
        "func",   "function", "class", "struct", "const",  "let",   "var",    "new",    "import",
        "from",   "if",     "else",   "elif",   "for",     "while", "in",     "not",    "and",
        "or",     "is",     "async",  "await",  "public",  "private", "static", "void",
    };
    return words;
}

// File extensions (compared in lowercase) that make "stem.ext" a file name.
bool is_extension(std::string_view word) {
    static const WordSet extensions = {
        "py",   "pyi",  "pyx",   "ipynb", "js",   "jsx",  "mjs",   "cjs",    "ts",    "tsx",
        "mts",  "cts",  "go",    "rs",    "java", "kt",   "kts",   "scala",  "groovy", "gradle",
        "c",    "h",    "cc",    "cpp",   "cxx",  "hpp",  "hh",    "hxx",    "ipp",   "inl",
        "mm",   "swift", "rb",   "php",   "cs",   "lua",  "dart",  "ex",     "exs",   "erl",
        "clj",  "cljs", "elm",   "hs",    "ml",   "mli",  "nim",   "zig",    "sol",   "vue",
        "svelte", "astro", "html", "htm", "css",  "scss", "sass",  "less",   "json",  "yaml",
        "yml",  "toml", "ini",   "conf", "xml",  "md",    "rst",    "txt",   "sql",
        "sh",   "bash", "zsh",   "ps1",   "bat",  "proto", "graphql", "gql", "tf",    "cmake",
        "mk",   "csv",  "tsv",
    };
    if (word.size() > 8) return false;
    std::array<char, 8> lower{};
    for (std::size_t i = 0; i < word.size(); ++i) {
        char c = word[i];
        lower[i] = (c >= 'A' && c <= 'Z') ? static_cast<char>(c - 'A' + 'a') : c;
    }
    return extensions.contains(std::string_view(lower.data(), word.size()));
}

// ---------------------------------------------------------------------------------------------
// Characters

enum class CharClass : std::uint8_t { Other, Upper, Lower, Caseless, Digit, Underscore };

constexpr char32_t INVALID = 0xFFFFFFFF;

struct CodePoint {
    char32_t cp;
    std::size_t size;  // bytes
};

// The code point at `pos`; an ill-formed byte sequence decodes as INVALID of its own length.
CodePoint decode_at(std::string_view s, std::size_t pos) {
    auto lead = static_cast<unsigned char>(s[pos]);
    if (lead < 0x80) return {lead, 1};
    const auto* bytes = reinterpret_cast<const std::uint8_t*>(s.data() + pos);
    const auto length = static_cast<std::int32_t>(std::min<std::size_t>(s.size() - pos, 4));
    std::int32_t i = 0;
    UChar32 cp;
    U8_NEXT(bytes, i, length, cp);
    return {cp < 0 ? INVALID : static_cast<char32_t>(cp), static_cast<std::size_t>(i)};
}

CharClass classify(char32_t cp) {
    if (cp < 0x80) {
        if (cp >= 'a' && cp <= 'z') return CharClass::Lower;
        if (cp >= 'A' && cp <= 'Z') return CharClass::Upper;
        if (cp >= '0' && cp <= '9') return CharClass::Digit;
        if (cp == '_') return CharClass::Underscore;
        return CharClass::Other;
    }
    if (cp == INVALID) return CharClass::Other;
    const auto mask = U_GET_GC_MASK(static_cast<UChar32>(cp));
    if (mask & (U_GC_LU_MASK | U_GC_LT_MASK)) return CharClass::Upper;
    if (mask & U_GC_LL_MASK) return CharClass::Lower;
    if (mask & (U_GC_LM_MASK | U_GC_LO_MASK | U_GC_M_MASK)) return CharClass::Caseless;
    if (mask & U_GC_ND_MASK) return CharClass::Digit;
    return CharClass::Other;
}

bool is_word_class(CharClass c) { return c != CharClass::Other; }
bool is_letter_class(CharClass c) {
    return c == CharClass::Upper || c == CharClass::Lower || c == CharClass::Caseless;
}

bool is_word_char_at(std::string_view s, std::size_t pos) {
    return pos < s.size() && is_word_class(classify(decode_at(s, pos).cp));
}

// Whether a stop at `pos` ends a sentence: end of text or white space follows.
bool ends_sentence_at(std::string_view s, std::size_t pos) {
    return pos >= s.size() || text::is_space(decode_at(s, pos).cp);
}

// The code points of one word, with their classes.
struct WordChars {
    std::vector<CharClass> classes;
    std::vector<std::size_t> offsets;  // byte offset of each code point; one extra at the end

    void load(std::string_view word) {
        classes.clear();
        offsets.clear();
        for (std::size_t pos = 0; pos < word.size();) {
            auto [cp, size] = decode_at(word, pos);
            classes.push_back(classify(cp));
            offsets.push_back(pos);
            pos += size;
        }
        offsets.push_back(word.size());
    }
    std::size_t size() const { return classes.size(); }
    CharClass at(std::size_t i) const { return i < classes.size() ? classes[i] : CharClass::Other; }
};

// ---------------------------------------------------------------------------------------------
// Scanning

// The part a word plays in its compound.
enum class Role : std::uint8_t {
    Plain,     // a word of prose or code
    Dotted,    // a part of a dotted path: HttpClient.send
    PathDir,   // a directory or other part of a slash path: src, http
    FileStem,  // the stem of a file name: client (of client.ts)
    FileInner  // another part of a file name: test (of users.test.ts)
};

struct Word {
    std::string_view text;
    Role role = Role::Plain;
    bool code = false;            // inside a backtick code span
    bool sentence_start = false;  // first word of a sentence
    bool hyphen = false;          // joined to another word by "-"
    bool call = false;            // directly before "("
};

// How a word is spelled, as far as naming goes.
struct Spelling {
    bool identifier = false;      // starts with a letter or "_" and holds a letter
    bool underscore = false;
    bool inner_capital = false;   // getUser, HttpClient, HTTPServer, iOS
    bool digit = false;
    bool capitalised = false;     // Parser: an upper-case letter, then no upper-case letter
    bool acronym = false;         // API, REST, APIs
};

// A plural acronym ends in a single "s" after capitals: APIs, URLs, IDs.
bool plural_s_at(std::string_view word, const WordChars& chars, std::size_t i) {
    return chars.at(i) == CharClass::Lower && word[chars.offsets[i]] == 's' && chars.at(i - 1) == CharClass::Upper &&
           chars.at(i + 1) != CharClass::Lower && chars.at(i + 1) != CharClass::Caseless;
}

Spelling spell(std::string_view word, const WordChars& chars) {
    Spelling s;
    const std::size_t n = chars.size();
    if (n == 0) return s;
    std::size_t letters = 0, uppers = 0;
    for (std::size_t i = 0; i < n; ++i) {
        const CharClass c = chars.at(i);
        if (is_letter_class(c)) ++letters;
        if (c == CharClass::Underscore) s.underscore = true;
        if (c == CharClass::Digit) s.digit = true;
        if (c == CharClass::Upper) {
            ++uppers;
            const CharClass prev = i > 0 ? chars.at(i - 1) : CharClass::Other;
            if (prev == CharClass::Lower || prev == CharClass::Digit) s.inner_capital = true;
        }
        // A capital run followed by a lower-case letter: HTTPServer (but not APIs).
        if (c == CharClass::Lower && i >= 2 && chars.at(i - 1) == CharClass::Upper &&
            chars.at(i - 2) == CharClass::Upper && !plural_s_at(word, chars, i)) {
            s.inner_capital = true;
        }
    }
    s.identifier = letters > 0 && chars.at(0) != CharClass::Digit;
    s.underscore = s.underscore && letters > 0;
    s.digit = s.digit && s.identifier;
    const bool starts_upper = chars.at(0) == CharClass::Upper;
    s.capitalised = starts_upper && uppers == 1 && letters >= 2 && !s.underscore && !s.digit;
    bool lower = false;  // a lower-case letter other than a plural "s"
    for (std::size_t i = 0; i < n; ++i) {
        if (chars.at(i) == CharClass::Lower && !plural_s_at(word, chars, i)) lower = true;
    }
    s.acronym = uppers >= 2 && !lower;
    return s;
}

// Splits a task into words; one scanner per call, holding that scan's position.
class Scanner {
public:
    explicit Scanner(std::string_view task) : task_(task) {}

    std::vector<Word> run() {
        while (pos_ < task_.size()) step();
        return std::move(words_);
    }

private:
    struct Segment {
        std::string_view text;
        char joint;  // how it is joined to the segment before: 0, '.', ':', '>', '#', '/', '-'
    };

    void step() {
        const char c = task_[pos_];
        if (c == '`') {
            backticks();
            return;
        }
        const auto [cp, size] = decode_at(task_, pos_);
        if (is_word_class(classify(cp))) {
            compound();
            return;
        }
        if (cp == '\n') {
            sentence_start_ = true;
        } else if (cp == '.' || cp == '!' || cp == '?' || cp == ':' || cp == 0x2026 || cp == 0x3002 ||
                   cp == 0xFF01 || cp == 0xFF1F) {
            // Ideographic and full-width stops need no space after them.
            if (cp >= 0x3000 || ends_sentence_at(task_, pos_ + size)) sentence_start_ = true;
        }
        pos_ += size;
    }

    std::size_t backtick_run(std::size_t at) const {
        std::size_t end = at;
        while (end < task_.size() && task_[end] == '`') ++end;
        return end - at;
    }

    // A run of backticks opens a code span when a run of the same length closes it later;
    // otherwise it is plain punctuation.
    void backticks() {
        const std::size_t run = backtick_run(pos_);
        if (in_code_) {
            if (pos_ == code_close_) in_code_ = false;
            pos_ += run;
            return;
        }
        for (std::size_t at = task_.find('`', pos_ + run); at != std::string_view::npos;) {
            const std::size_t other = backtick_run(at);
            if (other == run) {
                in_code_ = true;
                code_close_ = at;
                pos_ += run;
                // A fence's language tag ("```python") is no name.
                if (run >= 3) {
                    const std::size_t newline = task_.find('\n', pos_);
                    if (newline != std::string_view::npos && newline < code_close_) pos_ = newline;
                }
                return;
            }
            at = task_.find('`', at + other);
        }
        pos_ += run;
    }

    // The end of the word that starts at `at`: word characters, and an apostrophe between
    // letters ("doesn't", "Parser's"), whose tail is dropped.
    std::size_t word_end(std::size_t at, std::size_t& text_end) const {
        std::size_t pos = at;
        text_end = std::string_view::npos;
        CharClass last = CharClass::Other;
        while (pos < task_.size()) {
            const auto [cp, size] = decode_at(task_, pos);
            const CharClass cls = classify(cp);
            if (is_word_class(cls)) {
                last = cls;
                pos += size;
                continue;
            }
            if ((cp == '\'' || cp == 0x2019) && is_letter_class(last) && pos + size < task_.size() &&
                is_letter_class(classify(decode_at(task_, pos + size).cp))) {
                if (text_end == std::string_view::npos) text_end = pos;
                pos += size;
                last = CharClass::Other;
                continue;
            }
            break;
        }
        if (text_end == std::string_view::npos) text_end = pos;
        return pos;
    }

    // Skips to the next white space or backtick (the rest of a URL or an e-mail address).
    void skip_token() {
        while (pos_ < task_.size() && task_[pos_] != '`') {
            const auto [cp, size] = decode_at(task_, pos_);
            if (text::is_space(cp)) break;
            pos_ += size;
        }
    }

    // The joint at pos_ when a word follows it; sets `after` to where that word starts.
    char joint_at(std::size_t& after) const {
        const char c = task_[pos_];
        auto word_follows = [&](std::size_t width) {
            after = pos_ + width;
            return is_word_char_at(task_, after);
        };
        switch (c) {
            case '.':
            case '#':
            case '/':
            case '\\':
                if (word_follows(1)) return c == '\\' ? '/' : c;
                break;
            case ':':
                if (pos_ + 1 < task_.size() && task_[pos_ + 1] == ':' && word_follows(2)) return ':';
                break;
            case '-':
                if (pos_ + 1 < task_.size() && task_[pos_ + 1] == '>' && word_follows(2)) return '>';
                if (word_follows(1)) return '-';
                break;
            default:
                break;
        }
        return 0;
    }

    void compound() {
        segments_.clear();
        char joint = 0;
        for (;;) {
            std::size_t text_end = 0;
            const std::size_t start = pos_;
            pos_ = word_end(start, text_end);
            segments_.push_back({task_.substr(start, text_end - start), joint});
            if (pos_ >= task_.size()) break;
            if (task_.compare(pos_, 3, "://") == 0 ||
                (task_[pos_] == '@' && is_word_char_at(task_, pos_ + 1))) {
                skip_token();
                sentence_start_ = false;
                return;
            }
            std::size_t after = 0;
            joint = joint_at(after);
            if (joint == 0) break;
            pos_ = after;
        }
        bool call = false;
        if (pos_ < task_.size() && task_[pos_] == '(') {
            // "file(s)", "match(es)": a plural, skipped whole.
            if (task_.compare(pos_, 3, "(s)") == 0) {
                pos_ += 3;
            } else if (task_.compare(pos_, 4, "(es)") == 0) {
                pos_ += 4;
            } else {
                call = true;
            }
        }
        classify_compound(call);
        sentence_start_ = false;
    }

    void classify_compound(bool call) {
        const std::size_t n = segments_.size();
        std::size_t group = 0;  // first segment after the last slash
        bool dotted = false, hyphen = false;
        for (std::size_t i = 1; i < n; ++i) {
            const char j = segments_[i].joint;
            if (j == '/') group = i;
            if (j == '.' || j == ':' || j == '>' || j == '#') dotted = true;
            if (j == '-') hyphen = true;
        }
        const bool slash = group > 0;
        const bool file = n - group >= 2 && segments_[n - 1].joint == '.' && !call &&
                          is_extension(segments_[n - 1].text);
        if (file) {
            for (std::size_t i = 0; i < group; ++i) add(segments_[i].text, Role::PathDir);
            const bool plain_stem = segments_[group + 1].joint == '.';
            add(segments_[group].text, plain_stem ? Role::FileStem : Role::FileInner);
            for (std::size_t i = group + 1; i + 1 < n; ++i) add(segments_[i].text, Role::FileInner);
            return;
        }
        if (slash) {
            for (std::size_t i = 0; i < n; ++i) add(segments_[i].text, Role::PathDir);
            return;
        }
        if (dotted && !hyphen && abbreviation()) {
            // "e.g.", "i.e.": no words, and the closing dot ends no sentence.
            if (pos_ < task_.size() && task_[pos_] == '.') ++pos_;
            return;
        }
        for (std::size_t i = 0; i < n; ++i) {
            const char before = segments_[i].joint;
            const char after = i + 1 < n ? segments_[i + 1].joint : 0;
            Word w;
            w.text = segments_[i].text;
            w.code = in_code_;
            w.sentence_start = i == 0 && sentence_start_;
            w.hyphen = before == '-' || after == '-';
            w.role = (before != 0 || after != 0) && !w.hyphen ? Role::Dotted : Role::Plain;
            w.call = call && i + 1 == n;
            words_.push_back(w);
        }
    }

    // A part of a path or file name; only its role matters for naming.
    void add(std::string_view text, Role role) {
        Word w;
        w.text = text;
        w.role = role;
        w.code = in_code_;
        words_.push_back(w);
    }

    // Every part a single letter: "e.g", "i.e", "a.k.a".
    bool abbreviation() const {
        for (const auto& s : segments_) {
            const auto [cp, size] = decode_at(s.text, 0);
            if (size != s.text.size() || !is_letter_class(classify(cp))) return false;
        }
        return true;
    }

    std::string_view task_;
    std::size_t pos_ = 0;
    bool sentence_start_ = true;
    bool in_code_ = false;
    std::size_t code_close_ = 0;
    std::vector<Segment> segments_;
    std::vector<Word> words_;
};

bool is_common(std::string_view lowered) { return common_words().contains(lowered); }

// Whether a task capitalises most of its ordinary words, so that capitals say nothing.
bool title_cased(const std::vector<Word>& words, WordChars& chars) {
    std::size_t counted = 0, capitalised = 0;
    for (const auto& w : words) {
        if (w.role != Role::Plain || w.code || w.hyphen || w.sentence_start) continue;
        chars.load(w.text);
        const Spelling s = spell(w.text, chars);
        // Common words count too: "To" and "The" are capitalised only in titles.
        if (!s.identifier || s.underscore || s.inner_capital || s.digit || s.acronym || chars.size() < 2) continue;
        ++counted;
        if (s.capitalised) ++capitalised;
    }
    return counted >= 3 && capitalised * 4 >= counted * 3;
}

bool is_name(const Word& w, const Spelling& s, bool title) {
    if (!s.identifier) return false;
    switch (w.role) {
        case Role::FileStem:
        case Role::Dotted:  // receivers and keywords (self, this, None) are never names
            return !code_words().contains(w.text);
        case Role::PathDir:
        case Role::FileInner:
            return false;
        case Role::Plain:
            break;
    }
    if (s.underscore || s.inner_capital || s.digit) return true;
    if (w.call || (w.code && !w.hyphen)) return !code_words().contains(w.text);
    if (!s.capitalised || w.sentence_start || w.hyphen || title) return false;
    return !is_common(text::lowercase(w.text));
}

// Appends `value` unless it is there already; a hash set takes over from the linear search
// once the list grows, so a pasted log does not cost quadratic time.
class OrderedUnique {
public:
    explicit OrderedUnique(std::vector<std::string>& out) : out_(out) {}

    void add(std::string value) {
        if (out_.size() < LINEAR_LIMIT) {
            if (std::find(out_.begin(), out_.end(), value) != out_.end()) return;
        } else {
            if (seen_.empty()) seen_.insert(out_.begin(), out_.end());
            if (!seen_.insert(value).second) return;
        }
        out_.push_back(std::move(value));
    }

private:
    static constexpr std::size_t LINEAR_LIMIT = 32;
    std::vector<std::string>& out_;
    std::unordered_set<std::string> seen_;
};

// Splits a word at underscores and case changes; calls `emit` with the code point range
// [from, to) of each part.
template <typename Emit>
void split_parts(std::string_view word, const WordChars& chars, Emit&& emit) {
    const std::size_t n = chars.size();
    std::size_t start = 0;  // code point index of the current part
    auto flush = [&](std::size_t end) {
        if (end > start) emit(start, end);
    };
    for (std::size_t i = 0; i < n; ++i) {
        const CharClass c = chars.at(i);
        if (c == CharClass::Underscore) {
            flush(i);
            start = i + 1;
            continue;
        }
        if (i == start) continue;
        const CharClass prev = chars.at(i - 1);
        const CharClass next = chars.at(i + 1);
        bool boundary = false;
        if (c == CharClass::Upper) {
            // get|User, APIs|List, HTTP|Server (not API|s), HTTP2|Response (not Vector3D)
            boundary = prev == CharClass::Lower ||
                       (prev == CharClass::Upper && next == CharClass::Lower && !plural_s_at(word, chars, i + 1)) ||
                       (prev == CharClass::Digit && next == CharClass::Lower);
        }
        if (boundary) {
            flush(i);
            start = i;
        }
    }
    flush(n);
}

}  // namespace

std::vector<std::string> QueryTokenizer::query_names(const std::string& task) {
    std::vector<std::string> names;
    const std::vector<Word> words = Scanner(task).run();
    WordChars chars;
    const bool title = title_cased(words, chars);
    OrderedUnique unique(names);
    for (const auto& w : words) {
        chars.load(w.text);
        if (is_name(w, spell(w.text, chars), title)) unique.add(std::string(w.text));
    }
    return names;
}

std::vector<std::string> QueryTokenizer::query_terms(const std::string& task) {
    std::vector<std::string> terms;
    const std::vector<Word> words = Scanner(task).run();
    WordChars chars;
    OrderedUnique unique(terms);
    for (const auto& w : words) {
        chars.load(w.text);
        split_parts(w.text, chars, [&](std::size_t from, std::size_t to) {
            // Single characters, numbers and measurements (404, 100ms) match no symbol name.
            if (to - from < 2 || chars.at(from) == CharClass::Digit) return;
            const std::string_view part =
                w.text.substr(chars.offsets[from], chars.offsets[to] - chars.offsets[from]);
            std::string lowered = text::lowercase(part);
            if (is_common(lowered)) return;
            unique.add(std::move(lowered));
        });
    }
    return terms;
}

bool QueryTokenizer::is_test_query(const std::vector<std::string>& terms) {
    const WordSet& words = test_words();
    return std::any_of(terms.begin(), terms.end(),
                       [&](const std::string& term) { return words.contains(text::lowercase(term)); });
}

Tokenizer& default_tokenizer() {
    static QueryTokenizer tokenizer;
    return tokenizer;
}

}  // namespace orvane_kestrix
