#include "orvane_kestrix/retrieval/search_words.hpp"

#include <unordered_set>

namespace orvane_kestrix::retrieval {

namespace {

// Longer runs are hashes, encoded data or generated names, not words anyone searches for.
constexpr std::size_t kMaxIdentifier = 48;

bool is_ascii_upper(unsigned char c) { return c >= 'A' && c <= 'Z'; }
bool is_ascii_lower(unsigned char c) { return c >= 'a' && c <= 'z'; }
bool is_digit(unsigned char c) { return c >= '0' && c <= '9'; }
bool is_word_byte(unsigned char c) { return is_ascii_lower(c) || is_ascii_upper(c) || is_digit(c) || c == '_' || c >= 0x80; }
bool is_vowel(char c) { return c == 'a' || c == 'e' || c == 'i' || c == 'o' || c == 'u' || c == 'y'; }

bool has_vowel(std::string_view s) {
    for (char c : s) {
        if (is_vowel(c)) return true;
    }
    return false;
}

const std::unordered_set<std::string_view>& stop_words() {
    static const std::unordered_set<std::string_view> words = [] {
        std::unordered_set<std::string_view> set = {
#include "../workers/common_words.inc"
        };
        // Keywords and receivers of the indexed languages: in every body, naming nothing.
        for (std::string_view keyword :
             {"self", "cls", "this", "def", "return", "returns", "if", "else", "elif", "for", "while", "in", "is",
              "not", "and", "or", "import", "from", "as", "class", "const", "let", "var", "function", "fn", "func",
              "true", "false", "none", "null", "nil", "undefined", "new", "pass", "raise", "try", "except",
              "finally", "with", "yield", "lambda", "public", "private", "protected", "static", "void", "int",
              "the", "of", "to", "a", "an", "be", "it", "that", "this", "we", "on", "at", "by", "pub", "mut",
              "impl", "use", "mod", "package", "struct", "type", "interface", "export", "default", "case",
              "switch", "break", "continue", "do", "then", "end", "args", "kwargs"}) {
            set.insert(keyword);
        }
        return set;
    }();
    return words;
}

bool ends_with(std::string_view s, std::string_view suffix) { return s.size() >= suffix.size() && s.ends_with(suffix); }

}  // namespace

bool is_stop_word(std::string_view lowered) { return stop_words().contains(lowered); }

std::string stem_word(std::string_view lowered) {
    std::string w(lowered);
    if (w.size() <= 3) return w;
    // Plurals.
    if (ends_with(w, "ies") && w.size() > 4) {
        w.resize(w.size() - 3);
        w += 'y';
    } else if (ends_with(w, "sses")) {
        w.resize(w.size() - 2);
    } else if (w.back() == 's' && !ends_with(w, "ss") && !ends_with(w, "us") && !ends_with(w, "is")) {
        w.pop_back();
    }
    // Verb endings, when what remains still has a vowel ("string" stays whole).
    auto strip_verb = [&](std::string_view suffix, std::size_t min_size) {
        if (w.size() <= min_size || !ends_with(w, suffix)) return false;
        const std::string_view rest = std::string_view(w).substr(0, w.size() - suffix.size());
        if (rest.size() < 3 || !has_vowel(rest)) return false;
        w.resize(rest.size());
        // "running" -> "run", "stopped" -> "stop"; "called" and "passed" keep theirs.
        const char last = w.back();
        if (w.size() >= 2 && w[w.size() - 2] == last && !is_vowel(last) && last != 'l' && last != 's' && last != 'z') {
            w.pop_back();
        }
        return true;
    };
    if (!strip_verb("ing", 5)) strip_verb("ed", 4);
    if (w.size() > 3 && w.back() == 'e') w.pop_back();
    return w;
}

namespace detail {

void scan_identifiers(std::string_view text, void* context, void (*run)(void*, std::string_view)) {
    const std::size_t n = text.size();
    std::size_t i = 0;
    while (i < n) {
        if (!is_word_byte(static_cast<unsigned char>(text[i]))) {
            ++i;
            continue;
        }
        const std::size_t start = i;
        while (i < n && is_word_byte(static_cast<unsigned char>(text[i]))) ++i;
        if (i - start <= kMaxIdentifier) run(context, text.substr(start, i - start));
    }
}

void split_identifier(std::string_view identifier, void* context, void (*emit)(void*, std::string_view, bool)) {
    // Parts: [from, to) byte ranges.
    std::size_t parts[kMaxIdentifier + 1][2];
    std::size_t count = 0;
    const std::size_t n = identifier.size();
    std::size_t i = 0;
    while (i < n) {
        while (i < n && identifier[i] == '_') ++i;
        if (i >= n) break;
        const std::size_t start = i;
        ++i;
        while (i < n) {
            const auto prev = static_cast<unsigned char>(identifier[i - 1]);
            const auto c = static_cast<unsigned char>(identifier[i]);
            if (c == '_') break;
            // lower -> Upper starts a part; UPPER -> Upper lower starts one before the last capital.
            if (is_ascii_upper(c) && (is_ascii_lower(prev) || is_digit(prev))) break;
            if (is_ascii_upper(prev) && is_ascii_upper(c) && i + 1 < n && is_ascii_lower(static_cast<unsigned char>(identifier[i + 1]))) break;
            // A letter after digits starts a part (base64encode -> base64, encode).
            if (is_digit(prev) && !is_digit(c) && i - start > 1) {
                bool letters_before = false;
                for (std::size_t k = start; k < i; ++k) letters_before |= !is_digit(static_cast<unsigned char>(identifier[k]));
                if (letters_before) break;
            }
            ++i;
        }
        parts[count][0] = start;
        parts[count][1] = i;
        ++count;
    }
    std::string whole;
    std::string lowered;
    std::size_t kept = 0;
    for (std::size_t p = 0; p < count; ++p) {
        lowered.assign(identifier.substr(parts[p][0], parts[p][1] - parts[p][0]));
        for (char& c : lowered) {
            if (is_ascii_upper(static_cast<unsigned char>(c))) c = static_cast<char>(c - 'A' + 'a');
        }
        whole += lowered;
        bool digits_only = true;
        for (char c : lowered) digits_only &= is_digit(static_cast<unsigned char>(c));
        if (digits_only || lowered.size() < 2 || is_stop_word(lowered)) continue;
        const std::string stemmed = stem_word(lowered);
        emit(context, stemmed, false);
        ++kept;
    }
    if (count >= 2 && whole.size() >= 4 && !is_stop_word(whole)) {
        const std::string stemmed = stem_word(whole);
        emit(context, stemmed, true);
    }
    (void)kept;
}

}  // namespace detail

void SearchDocument::add_word(std::string_view word) {
    if (max_repeats_ != 0) {
        auto& seen = counts_[std::string(word)];
        if (seen >= max_repeats_) return;
        ++seen;
    }
    if (!text_.empty()) text_ += ' ';
    text_ += word;
}

void SearchDocument::add(std::string_view text) {
    for_each_search_word(text, [&](std::string_view word, bool) { add_word(word); });
}

std::string SearchDocument::take() {
    counts_.clear();
    return std::move(text_);
}

std::string search_document(std::string_view text, std::size_t max_repeats) {
    SearchDocument document(max_repeats);
    document.add(text);
    return document.take();
}

}  // namespace orvane_kestrix::retrieval
