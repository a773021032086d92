#include <algorithm>
#include <unordered_map>

#include "orvane_kestrix/beneath_root.hpp"
#include "orvane_kestrix/regular_file.hpp"
#include "orvane_kestrix/retrieval/symbol_kinds.hpp"
#include "orvane_kestrix/retrieval/search_words.hpp"
#include "orvane_kestrix/retrieval/signals.hpp"
#include "orvane_kestrix/storage/repository_fan_in.hpp"
#include "orvane_kestrix/text/string_hash.hpp"

namespace orvane_kestrix::retrieval {

namespace {

constexpr double kK1 = 1.2;
constexpr double kB = 0.75;
constexpr int kNameRepeats = 2;

struct BodySymbol {
    std::int64_t id = 0;
    std::int64_t file_id = 0;
    std::int64_t start_line = 1;
    std::int64_t end_line = 1;
    bool class_like = false;
    std::string name;
    std::unordered_map<std::uint32_t, int> counts;  // index into the query's terms -> occurrences
    std::int64_t length = 0;
};

// What one identifier contributes: its number of search words, and which of the task's words
// are among them. Code repeats its identifiers, so each is split and stemmed once per call.
struct IdentifierWords {
    std::uint32_t words = 0;
    std::vector<std::uint32_t> terms;
};

class IdentifierMemo {
public:
    explicit IdentifierMemo(const std::unordered_map<std::string_view, std::uint32_t>& terms) : terms_(terms) {}

    const IdentifierWords& words_of(std::string_view identifier) {
        if (auto found = memo_.find(identifier); found != memo_.end()) return found->second;
        IdentifierWords words;
        // One identifier, split: scan_identifiers hands over whole runs, so this splits it.
        for_each_search_word(identifier, [&](std::string_view word, bool) {
            ++words.words;
            if (auto term = terms_.find(word); term != terms_.end()) words.terms.push_back(term->second);
        });
        return memo_.emplace(std::string(identifier), std::move(words)).first->second;
    }

private:
    const std::unordered_map<std::string_view, std::uint32_t>& terms_;
    std::unordered_map<std::string, IdentifierWords, text::StringHash, std::equal_to<>> memo_;
};


constexpr std::size_t kScannedFilesKept = 32;

// The files the signals so far rank highest: each by the better of its own score and its
// best symbol's.
std::vector<std::int64_t> leading_files(const RetrievalContext& context, const RetrievalQuery& query, std::size_t count) {
    std::unordered_map<std::int64_t, double> best = context.file_fused;
    for (const auto& [id, score] : context.fused) {
        if (const CandidateSymbol* symbol = context.find(id)) {
            double& file = best[symbol->file_id];
            file = std::max(file, score);
        }
    }
    std::vector<std::pair<double, std::int64_t>> files;
    for (const auto& [file, score] : best) {
        const CatalogFile* entry = context.catalog.file(file);
        if (entry == nullptr || !entry->is_source || (entry->is_test && !query.include_tests)) continue;
        files.emplace_back(score, file);
    }
    std::sort(files.begin(), files.end(),
              [](const auto& a, const auto& b) { return a.first > b.first || (a.first == b.first && a.second < b.second); });
    std::vector<std::int64_t> out;
    for (std::size_t i = 0; i < files.size() && i < count; ++i) out.push_back(files[i].second);
    return out;
}

}  // namespace

// A file's identifiers as the signal weighs them, valid while the file keeps its size and
// modification time: its distinct search words, each distinct identifier once (as indexes into
// those words, in the order for_each_search_word gives them, repeats included), every
// occurrence line by line (as an index into the identifiers), and how many search words each
// line holds. Splitting and stemming is most of the cost of weighing a file; done here once, a
// task that comes back to the file only looks its words up.
struct SymbolBodySignal::ScannedFile {
    std::uint64_t size = 0;
    std::int64_t mtime_ns = 0;
    std::uint64_t used = 0;  // the scan clock when a task last read it
    std::vector<std::string> words;
    std::vector<std::uint32_t> identifier_words;
    std::vector<std::size_t> words_begin;  // identifier i's words start at words_begin[i]; one past the last too
    std::vector<std::uint32_t> occurrences;
    std::vector<std::size_t> line_begin;    // line n's occurrences start at line_begin[n - 1]; one past the last line too
    std::vector<std::int64_t> words_before;  // search words on the lines before line n, at n - 1; all of them last

    std::int64_t lines() const { return static_cast<std::int64_t>(line_begin.size()) - 1; }
    std::int64_t words_on(std::int64_t line) const {
        const auto at = static_cast<std::size_t>(line - 1);
        return words_before[at + 1] - words_before[at];
    }

    static ScannedFile scan(std::string_view text) {
        ScannedFile file;
        std::unordered_map<std::string_view, std::uint32_t> index;
        std::vector<std::string_view> distinct;
        struct Sink {
            std::unordered_map<std::string_view, std::uint32_t>& index;
            std::vector<std::string_view>& distinct;
            std::vector<std::uint32_t>& occurrences;
        } sink{index, distinct, file.occurrences};
        std::size_t from = 0;
        while (from <= text.size()) {
            const std::size_t newline = text.find('\n', from);
            const std::size_t to = newline == std::string_view::npos ? text.size() : newline + 1;
            file.line_begin.push_back(file.occurrences.size());
            detail::scan_identifiers(text.substr(from, to - from), &sink, [](void* context, std::string_view identifier) {
                auto& [index, distinct, occurrences] = *static_cast<Sink*>(context);
                auto [it, added] = index.try_emplace(identifier, static_cast<std::uint32_t>(distinct.size()));
                if (added) distinct.push_back(identifier);
                occurrences.push_back(it->second);
            });
            if (newline == std::string_view::npos) break;
            from = to;
        }
        file.line_begin.push_back(file.occurrences.size());

        std::unordered_map<std::string, std::uint32_t, text::StringHash, std::equal_to<>> word_index;
        std::vector<std::uint32_t> word_count(distinct.size(), 0);
        file.words_begin.reserve(distinct.size() + 1);
        for (std::size_t i = 0; i < distinct.size(); ++i) {
            file.words_begin.push_back(file.identifier_words.size());
            for_each_search_word(distinct[i], [&](std::string_view word, bool) {
                auto found = word_index.find(word);
                if (found == word_index.end()) {
                    found = word_index.emplace(std::string(word), static_cast<std::uint32_t>(file.words.size())).first;
                    file.words.emplace_back(word);
                }
                file.identifier_words.push_back(found->second);
            });
        }
        file.words_begin.push_back(file.identifier_words.size());

        file.words_before.reserve(file.line_begin.size());
        file.words_before.push_back(0);
        for (std::size_t line = 0; line + 1 < file.line_begin.size(); ++line) {
            std::int64_t on_line = 0;
            for (std::size_t k = file.line_begin[line]; k < file.line_begin[line + 1]; ++k) {
                on_line += static_cast<std::int64_t>(file.words_begin[file.occurrences[k] + 1] - file.words_begin[file.occurrences[k]]);
            }
            file.words_before.push_back(file.words_before.back() + on_line);
        }
        return file;
    }
};

const SymbolBodySignal::ScannedFile& SymbolBodySignal::scanned_file(const std::string& path, std::string_view text,
                                                                   const FileReadResult& read) {
    auto& slot = scanned_[path];
    if (slot == nullptr || slot->size != read.size || slot->mtime_ns != read.mtime_ns || slot->size != text.size()) {
        auto file = std::make_shared<ScannedFile>(ScannedFile::scan(text));
        file->size = read.size;
        file->mtime_ns = read.mtime_ns;
        slot = std::move(file);
    }
    slot->used = scan_clock_;
    const ScannedFile& kept = *slot;
    // Past the limit, the files no task has read for longest go.
    while (scanned_.size() > kScannedFilesKept) {
        auto oldest = std::min_element(scanned_.begin(), scanned_.end(),
                                       [](const auto& a, const auto& b) { return a.second->used < b.second->used; });
        scanned_.erase(oldest);
    }
    return kept;
}

SymbolBodySignal::SymbolBodySignal(std::optional<std::filesystem::path> root) {
    if (root) root_ = std::make_unique<RootDirectory>(*root);
}

SymbolBodySignal::~SymbolBodySignal() = default;

SignalScores SymbolBodySignal::score(const RetrievalQuery& query, RetrievalContext& context) {
    SignalScores out;
    if (root_ == nullptr || !root_->is_open()) {
        out.unavailable = "the repository's files cannot be read";
        return out;
    }
    if (query.terms.empty()) return out;
    const std::vector<std::int64_t> files = leading_files(context, query, kLeadingFiles);
    if (files.empty()) return out;

    std::unordered_map<std::string_view, std::uint32_t> term_index;
    for (std::size_t i = 0; i < query.terms.size() && i < query.term_idf.size(); ++i) term_index.emplace(query.terms[i], static_cast<std::uint32_t>(i));
    IdentifierMemo memo(term_index);

    // The symbols of the leading files, each file's in line order.
    std::unordered_map<std::int64_t, std::vector<BodySymbol>> by_file;
    std::unordered_map<std::int64_t, std::int64_t> indexed_size;
    {
        const std::string list = storage::json_array(files);
        storage::Statement sizes(context.db, "SELECT f.id, f.size FROM json_each(?1) AS j CROSS JOIN files AS f ON f.id = j.value");
        sizes.bind_static(1, list);
        while (sizes.step()) indexed_size[sizes.column_int64(0)] = sizes.column_int64(1);
        storage::Statement symbols(context.db,
                                   "SELECT s.id, s.file_id, s.kind, s.start_line, s.end_line, s.name FROM json_each(?1) AS j "
                                   "CROSS JOIN symbols AS s ON s.file_id = j.value ORDER BY s.file_id, s.start_line, s.id");
        symbols.bind_static(1, list);
        while (symbols.step()) {
            const std::string kind = symbols.column_string(2);
            BodySymbol symbol;
            symbol.start_line = symbols.column_int64(3);
            symbol.end_line = std::max(symbol.start_line, symbols.column_int64(4));
            if (is_minor_symbol(kind, symbol.start_line, symbol.end_line)) continue;
            symbol.id = symbols.column_int64(0);
            symbol.file_id = symbols.column_int64(1);
            symbol.class_like = holds_members(kind);
            symbol.name = symbols.column_string(5);
            by_file[symbol.file_id].push_back(std::move(symbol));
        }
    }

    std::vector<BodySymbol*> scored;
    std::int64_t total_length = 0;
    std::string text;
    ++scan_clock_;
    for (std::int64_t file_id : files) {
        auto found = by_file.find(file_id);
        const CatalogFile* entry = context.catalog.file(file_id);
        if (found == by_file.end() || entry == nullptr) continue;
        // Read each time, beneath the root, so that a changed or swapped file is never taken
        // for the one scanned before.
        const FileReadResult read = read_regular_file(*root_, entry->path, text, kMaxFileBytes);
        if (read.status != FileReadStatus::ok || static_cast<std::int64_t>(text.size()) != indexed_size[file_id]) continue;
        const ScannedFile& scanned = scanned_file(entry->path, text, read);
        // Which of the task's words each distinct identifier of the file holds (repeats kept).
        std::vector<std::int32_t> term_of_word(scanned.words.size(), -1);
        for (std::size_t w = 0; w < scanned.words.size(); ++w) {
            if (auto term = term_index.find(scanned.words[w]); term != term_index.end()) term_of_word[w] = static_cast<std::int32_t>(term->second);
        }
        std::vector<std::uint32_t> identifier_terms;
        std::vector<std::size_t> terms_begin;
        terms_begin.reserve(scanned.words_begin.size());
        for (std::size_t i = 0; i + 1 < scanned.words_begin.size(); ++i) {
            terms_begin.push_back(identifier_terms.size());
            for (std::size_t k = scanned.words_begin[i]; k < scanned.words_begin[i + 1]; ++k) {
                if (const std::int32_t term = term_of_word[scanned.identifier_words[k]]; term >= 0) {
                    identifier_terms.push_back(static_cast<std::uint32_t>(term));
                }
            }
        }
        terms_begin.push_back(identifier_terms.size());
        const std::int64_t line_count = scanned.lines();
        std::vector<BodySymbol>& symbols = found->second;
        for (BodySymbol& symbol : symbols) {
            if (symbol.start_line < 1 || symbol.start_line > line_count) continue;
            // A class-like symbol stands for its own lines: its members are rows of their own.
            std::vector<std::pair<std::int64_t, std::int64_t>> members;
            if (symbol.class_like) {
                for (const BodySymbol& other : symbols) {
                    if (&other != &symbol && other.start_line > symbol.start_line && other.start_line <= symbol.end_line) {
                        members.emplace_back(other.start_line, other.end_line);
                    }
                }
            }
            const std::int64_t last = std::min(symbol.end_line, line_count);
            for (std::int64_t line = symbol.start_line; line <= last;) {
                auto inside = std::find_if(members.begin(), members.end(),
                                           [&](const auto& m) { return line >= m.first && line <= m.second; });
                if (inside != members.end()) {
                    line = inside->second + 1;
                    continue;
                }
                symbol.length += scanned.words_on(line);
                const auto at = static_cast<std::size_t>(line - 1);
                for (std::size_t k = scanned.line_begin[at]; k < scanned.line_begin[at + 1]; ++k) {
                    const std::uint32_t identifier = scanned.occurrences[k];
                    for (std::size_t t = terms_begin[identifier]; t < terms_begin[identifier + 1]; ++t) ++symbol.counts[identifier_terms[t]];
                }
                ++line;
            }
            auto count = [&](const IdentifierWords& words) {
                symbol.length += words.words;
                for (std::uint32_t term : words.terms) ++symbol.counts[term];
            };
            struct NameSink {
                IdentifierMemo& memo;
                decltype(count)& add;
            } name_sink{memo, count};
            for (int i = 0; i < kNameRepeats; ++i) {
                detail::scan_identifiers(symbol.name, &name_sink, [](void* context, std::string_view identifier) {
                    auto& sink = *static_cast<NameSink*>(context);
                    sink.add(sink.memo.words_of(identifier));
                });
            }
            total_length += symbol.length;
            scored.push_back(&symbol);
        }
    }
    if (scored.empty()) return out;

    const double average = std::max(1.0, static_cast<double>(total_length) / static_cast<double>(scored.size()));
    double best = 0;
    std::vector<std::pair<std::int64_t, double>> scores;
    for (const BodySymbol* symbol : scored) {
        double sum = 0;
        const double norm = kK1 * (1 - kB + kB * static_cast<double>(symbol->length) / average);
        for (const auto& [term, tf] : symbol->counts) {
            const double f = tf;
            sum += query.term_idf[term] * f * (kK1 + 1) / (f + norm);
        }
        if (sum <= 0) continue;
        best = std::max(best, sum);
        scores.emplace_back(symbol->id, sum);
    }
    if (best <= 0) return out;
    for (const auto& [id, sum] : scores) out.symbols[id] = sum / best;
    return out;
}

}  // namespace orvane_kestrix::retrieval
