#include "orvane_kestrix/retrieval/index_catalog.hpp"

#include <algorithm>

namespace orvane_kestrix::retrieval {

namespace {

std::vector<std::string_view> components(std::string_view path) {
    std::vector<std::string_view> parts;
    std::size_t start = 0;
    for (std::size_t i = 0; i <= path.size(); ++i) {
        if (i == path.size() || path[i] == '/' || path[i] == '\\') {
            const std::string_view part = path.substr(start, i - start);
            if (!part.empty() && part != ".") parts.push_back(part);
            start = i + 1;
        }
    }
    return parts;
}

std::string_view stem_of(std::string_view name) {
    const auto dot = name.find('.');
    return dot == std::string_view::npos || dot == 0 ? name : name.substr(0, dot);
}

std::string bare_stem(std::string_view stem) {
    while (!stem.empty() && stem.front() == '_') stem.remove_prefix(1);
    std::string lowered(stem);
    for (char& c : lowered) {
        if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
    }
    return lowered;
}

}  // namespace

IndexCatalog::IndexCatalog(storage::Database& db) {
    storage::Statement q(db, "SELECT id, path, is_test, is_source FROM files ORDER BY id");
    while (q.step()) files_.push_back({q.column_int64(0), q.column_string(1), q.column_int64(2) != 0, q.column_int64(3) != 0});
    build();
}

IndexCatalog::IndexCatalog(std::vector<CatalogFile> files) : files_(std::move(files)) { build(); }

void IndexCatalog::build() {
    for (std::size_t i = 0; i < files_.size(); ++i) {
        by_id_[files_[i].id] = i;
        const auto parts = components(files_[i].path);
        if (parts.empty()) continue;
        by_name_[std::string(parts.back())].push_back(i);
        if (files_[i].is_source) {
            by_stem_[std::string(stem_of(parts.back()))].push_back(i);
            by_bare_stem_[bare_stem(stem_of(parts.back()))].push_back(i);
        }
    }
}

const CatalogFile* IndexCatalog::file(std::int64_t id) const {
    auto it = by_id_.find(id);
    return it == by_id_.end() ? nullptr : &files_[it->second];
}

std::vector<std::int64_t> IndexCatalog::files_named(std::string_view word) const {
    std::vector<std::int64_t> found;
    if (auto it = by_bare_stem_.find(bare_stem(word)); it != by_bare_stem_.end()) {
        for (std::size_t index : it->second) found.push_back(files_[index].id);
    }
    return found;
}

std::vector<std::int64_t> IndexCatalog::match_path(std::string_view written) const {
    const auto wanted = components(written);
    if (wanted.empty()) return {};
    const std::string last(wanted.back());
    const std::vector<std::size_t>* candidates = nullptr;
    if (auto it = by_name_.find(last); it != by_name_.end()) {
        candidates = &it->second;
    } else if (last.find('.') == std::string::npos) {
        if (auto stem = by_stem_.find(last); stem != by_stem_.end()) candidates = &stem->second;
    }
    if (candidates == nullptr) return {};
    // Longest run of equal trailing directories wins; the file name itself matched already.
    std::size_t best = 0;
    std::vector<std::int64_t> found;
    for (std::size_t index : *candidates) {
        const auto parts = components(files_[index].path);
        std::size_t common = 1;
        while (common < parts.size() && common < wanted.size() &&
               parts[parts.size() - 1 - common] == wanted[wanted.size() - 1 - common]) {
            ++common;
        }
        if (common > best) {
            best = common;
            found.clear();
        }
        if (common == best) found.push_back(files_[index].id);
    }
    return found;
}

}  // namespace orvane_kestrix::retrieval
