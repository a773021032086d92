#pragma once
// get_file_paths_batch as every index answers it, around the one lookup that differs: the
// paths of a list of file ids.

#include <cstdint>
#include <string>
#include <unordered_map>
#include <vector>

#include "orvane_kestrix/storage/repository.hpp"

namespace orvane_kestrix::storage {

// Symbol id -> path of the file its file_id names, for the symbols with both ids whose file
// `paths_of_files` knows. `paths_of_files(file_ids)` answers file id -> path in one lookup;
// it is not called when no symbol has both ids.
template <typename PathsOfFiles>
SymbolPathMap symbol_file_paths(const std::vector<Symbol>& symbols, PathsOfFiles&& paths_of_files) {
    SymbolPathMap out;
    std::vector<std::int64_t> file_ids;
    for (const auto& s : symbols) {
        if (s.id && s.file_id) file_ids.push_back(*s.file_id);
    }
    if (file_ids.empty()) return out;
    const std::unordered_map<std::int64_t, std::string> path_of_file = paths_of_files(file_ids);
    for (const auto& s : symbols) {
        if (!s.id || !s.file_id) continue;
        if (auto it = path_of_file.find(*s.file_id); it != path_of_file.end()) out.emplace(*s.id, it->second);
    }
    return out;
}

}  // namespace orvane_kestrix::storage
