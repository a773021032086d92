#pragma once
// The words that the retriever's full-text tables hold and that a task is searched with. The
// same function makes both sides, so a task's `sortKeys`, "sort keys" and `sort_keys` meet a
// body that writes `sort_keys`.
//
// A word is a run of letters, digits and underscores (any byte of a multi-byte character counts
// as a letter). Identifiers are split at underscores, case changes and after digits
// (parseHTTPResponse -> parse, http, response; utf8 stays whole); an identifier of several parts
// also gives its parts joined ("sortkeys"), so that a whole name written in the task meets the
// whole name in the code. Parts are lowercased (ASCII) and stemmed by a light suffix stripper
// (plural and verb endings, a final "e"): "caches", "cached" and "caching" all become "cach".
// Numbers, single characters, very long runs (hashes, encoded data) and common English and
// keyword words are left out.

#include <cstddef>
#include <string>
#include <string_view>
#include <unordered_map>

namespace orvane_kestrix::retrieval {

// The stem of a lowercased word.
std::string stem_word(std::string_view lowered);

// Whether a lowercased word carries nothing to search for (a common English or keyword word).
bool is_stop_word(std::string_view lowered);

// Calls `emit(word, whole)` with every search word of `text`, in order, repeats included;
// `whole` marks an identifier's joined parts.
template <typename Emit>
void for_each_search_word(std::string_view text, Emit&& emit);

// Builds one space-separated search document from any number of texts, each word at most
// `max_repeats` times (0: no cap): repeats past a few say little more about a document and
// only make the table larger.
class SearchDocument {
public:
    explicit SearchDocument(std::size_t max_repeats = 0) : max_repeats_(max_repeats) {}
    void add(std::string_view text);
    // Adds one word as it is (already a search word).
    void add_word(std::string_view word);
    const std::string& text() const { return text_; }
    std::string take();

private:
    std::size_t max_repeats_;
    std::string text_;
    std::unordered_map<std::string, std::size_t> counts_;
};

// The search words of `text` as one space-separated document.
std::string search_document(std::string_view text, std::size_t max_repeats = 0);

namespace detail {
// Scans `text` into identifier runs; calls `run(identifier)` for each.
void scan_identifiers(std::string_view text, void* context, void (*run)(void*, std::string_view));
// Splits one identifier into search words; calls `emit(word, whole)`.
void split_identifier(std::string_view identifier, void* context, void (*emit)(void*, std::string_view, bool));
}  // namespace detail

template <typename Emit>
void for_each_search_word(std::string_view text, Emit&& emit) {
    struct Context {
        Emit* emit;
    } context{&emit};
    detail::scan_identifiers(text, &context, [](void* c, std::string_view identifier) {
        detail::split_identifier(identifier, c, [](void* c2, std::string_view word, bool whole) {
            (*static_cast<Context*>(c2)->emit)(word, whole);
        });
    });
}

}  // namespace orvane_kestrix::retrieval
