#include "orvane_kestrix/indexer/resolution.hpp"

#include <algorithm>
#include <cctype>
#include <map>
#include <memory>
#include <mutex>
#include <regex>
#include <set>
#include <string_view>
#include <thread>
#include <unordered_set>

#include "languages.hpp"
#include "orvane_kestrix/indexer/file_classification.hpp"
#include "orvane_kestrix/paths.hpp"
#include "worker_threads.hpp"

namespace orvane_kestrix::indexer {

namespace {

using Index = std::size_t;
using FileList = std::vector<Index>;

// Below this many references per core, resolving on one thread is as quick.
constexpr std::size_t kReferencesPerSlice = 20000;

std::vector<std::string> split(std::string_view text, std::string_view separators) {
    std::vector<std::string> parts;
    std::string current;
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text.compare(i, 2, "::") == 0) {
            parts.push_back(std::move(current));
            current.clear();
            ++i;
        } else if (separators.find(text[i]) != std::string_view::npos) {
            parts.push_back(std::move(current));
            current.clear();
        } else {
            current.push_back(text[i]);
        }
    }
    parts.push_back(std::move(current));
    return parts;
}

std::string join(const std::vector<std::string>& parts, std::size_t count, char separator = '/') {
    std::string out;
    for (std::size_t i = 0; i < count && i < parts.size(); ++i) {
        if (parts[i].empty()) continue;
        if (!out.empty()) out.push_back(separator);
        out += parts[i];
    }
    return out;
}

// File names that stand for their directory as a module.
bool is_package_file(std::string_view stem, Language language) {
    const auto& package_files = language_spec(language).imports.package_files;
    return std::find(package_files.begin(), package_files.end(), stem) != package_files.end();
}

ModulePaths module_paths(Language language) {
    return language_spec(language).imports.module_paths;
}

bool is_self_qualifier(std::string_view qualifier) {
    return qualifier == "self" || qualifier == "this" || qualifier == "cls" || qualifier == "super" ||
           qualifier == "Self";
}

struct PairHash {
    std::size_t operator()(const std::pair<Index, std::string_view>& key) const {
        return std::hash<std::string_view>()(key.second) * 31 + key.first;
    }
};
struct FamilyHash {
    std::size_t operator()(const std::pair<int, std::string_view>& key) const {
        return std::hash<std::string_view>()(key.second) * 31 + static_cast<std::size_t>(key.first);
    }
};

bool is_type_usage(std::string_view usage) {
    return usage == "type" || usage == "inherit" || usage == "implement" || usage == "extends";
}

bool is_type_kind(std::string_view kind) {
    return kind == "class" || kind == "struct" || kind == "interface" || kind == "trait" || kind == "enum" ||
           kind == "type" || kind == "union" || kind == "typedef" || kind == "namespace" || kind == "module" ||
           kind == "protocol" || kind == "record";
}

bool is_member_kind(std::string_view kind) {
    return kind == "method" || kind == "field" || kind == "property" || kind == "constructor";
}

// Languages where code inside a class reaches its members by bare name.
bool reaches_members_without_receiver(Language language) {
    return language_spec(language).imports.bare_names_reach_members;
}

enum class QualifierKind { none, value, type_path };

// Which definitions fit a reference, by how it was written.
struct Filter {
    bool type_use = false;
    QualifierKind qualifier = QualifierKind::none;
    std::string_view type_name;      // for type_path: the qualifier's last part
    bool bare_is_no_member = false;  // a bare name cannot mean a member here

    bool accepts(const SnapshotSymbol& symbol, std::string_view name) const {
        if (type_use && !is_type_kind(symbol.kind)) return false;
        switch (qualifier) {
            case QualifierKind::none:
                return !(bare_is_no_member && is_member_kind(symbol.kind));
            case QualifierKind::value:
                return type_use || is_member_kind(symbol.kind);
            case QualifierKind::type_path: {
                // "Type.name": a definition whose qualified name ends with it.
                const std::string_view fqn = symbol.fqn;
                const std::size_t tail = type_name.size() + 1 + name.size();
                if (fqn.size() < tail || !fqn.ends_with(name)) return false;
                const std::string_view owner = fqn.substr(fqn.size() - tail, type_name.size());
                if (owner != type_name || fqn[fqn.size() - name.size() - 1] != '.') return false;
                return fqn.size() == tail || fqn[fqn.size() - tail - 1] == '.';
            }
        }
        return true;
    }
};

// One import of a file, its module resolved to files of the index.
struct Binding {
    FileList files;                      // the module's files (after any member was split off)
    std::optional<std::string> member;   // the module path's last part, when it named an item
    std::optional<std::string> name;     // imported name; absent for the module itself
    std::string key;                     // what the file's code calls it
    std::string module_raw;              // the module as written
    std::string module_key;              // the module as written, "::" and "/" as "."
    std::string module_last;             // the module path's last part
};

// A file's imports, with lookups by the names its code uses for them.
struct FileImports {
    std::vector<Binding> bindings;
    // Whole-module imports by alias, module path ("a.b") and last part ("b").
    std::unordered_map<std::string, std::vector<std::size_t>> by_module_key;
    // Imported names by the name the code uses (alias or name), and by the original name.
    std::unordered_map<std::string, std::vector<std::size_t>> by_name_key;
    std::unordered_map<std::string, std::vector<std::size_t>> by_name;
    std::vector<std::size_t> wildcards;  // `from m import *`
    FileList whole_files;                // files of modules imported whole or by wildcard
    FileList all_files;                  // files of every import
};

class Resolver {
public:
    struct ModuleTarget {
        FileList files;
        std::optional<std::string> member;
    };
    // Modules of the qualifiers met so far by (file, qualifier): they repeat within a file
    // ("os.path" on every call). One per resolving thread.
    using QualifierCache = std::map<std::pair<Index, std::string>, ModuleTarget>;

    // Builds every lookup; from then on the resolver only reads, so threads can share it. A
    // file's imports are resolved when first needed (once, whichever thread needs them): a
    // refresh that resolves a few references needs the imports of few files.
    explicit Resolver(const IndexSnapshot& snapshot)
        : s_(snapshot),
          import_rows_(snapshot.files.size()),
          imports_(snapshot.files.size()),
          imports_resolved_(std::make_unique<std::once_flag[]>(snapshot.files.size())) {
        set_packages(s_.packages);
        build_file_indexes();
        WorkerThreads by_file(1, [&](std::size_t) { build_symbols_by_file(); });
        for (const auto& import : s_.imports) {
            if (auto it = file_index_.find(import.file_id); it != file_index_.end()) import_rows_[it->second].push_back(&import);
        }
        build_symbols_by_name();
        by_file.join();
    }

    std::vector<std::int64_t> resolve(const SnapshotReference& ref, QualifierCache& qualifiers) const {
        std::vector<std::int64_t> out;
        const auto it = file_index_.find(ref.file_id);
        if (it == file_index_.end() || ref.name.empty()) return out;
        const Index file = it->second;
        const Language language = s_.files[file].language;
        const FileImports& imports = imports_of(file);
        const auto& bindings = imports.bindings;
        const bool path_qualifier = ref.qualifier.find("::") != std::string::npos;
        std::string qualifier_text;
        std::string_view qualifier = ref.qualifier;
        if (path_qualifier || ref.qualifier.find("->") != std::string::npos) {
            qualifier_text = ref.qualifier;
            for (std::size_t pos; (pos = qualifier_text.find("::")) != std::string::npos;) qualifier_text.replace(pos, 2, ".");
            for (std::size_t pos; (pos = qualifier_text.find("->")) != std::string::npos;) qualifier_text.replace(pos, 2, ".");
            qualifier = qualifier_text;
        }
        const std::string_view head = qualifier.substr(0, qualifier.find('.'));

        Filter fit;
        fit.type_use = is_type_usage(ref.usage_type);
        if (qualifier.empty()) {
            fit.qualifier = QualifierKind::none;
        } else if (is_self_qualifier(qualifier) || is_self_qualifier(head)) {
            fit.qualifier = QualifierKind::value;
        } else {
            const auto dot = qualifier.rfind('.');
            fit.type_name = dot == std::string::npos ? qualifier : qualifier.substr(dot + 1);
            const bool upper = !fit.type_name.empty() && std::isupper(static_cast<unsigned char>(fit.type_name[0])) != 0;
            fit.qualifier = path_qualifier || upper ? QualifierKind::type_path : QualifierKind::value;
        }
        Filter module_fit;  // a name in a module: any definition of a fitting kind
        module_fit.type_use = fit.type_use;

        // An import statement's name means a definition of the imported module (followed
        // through re-exports), never one of the importing file.
        if (ref.usage_type == "import") {
            if (ref.qualifier.empty()) return out;
            const ModuleTarget& target = module_for_qualifier(file, ref.qualifier, qualifiers);
            if (!target.member) add_symbols(target.files, ref.name, out, 2, module_fit);
            return finish(out);
        }

        // 1. A qualifier naming an imported module, an imported name, or a module in full.
        if (fit.qualifier != QualifierKind::none && !is_self_qualifier(head)) {
            for (std::size_t b : lookup(imports.by_module_key, qualifier)) {
                add_symbols(bindings[b].files, ref.name, out, 2, module_fit);
            }
            if (!out.empty()) return finish(out);
            for (std::size_t b : lookup(imports.by_name_key, head)) {
                // A member of an imported class or namespace, or a submodule imported by name.
                add_symbols(bindings[b].files, ref.name, out, 2, fit);
                if (out.empty()) add_symbols(resolve_submodule(file, bindings[b], *bindings[b].name), ref.name, out, 1, module_fit);
            }
            if (!out.empty()) return finish(out);
            if (qualifier.find('.') != std::string::npos) {
                // A module written out ("pkg.mod.func"), or a class in one ("pkg.mod.Class.method").
                const ModuleTarget& target = module_for_qualifier(file, ref.qualifier, qualifiers);
                add_symbols(target.files, ref.name, out, 1, target.member ? fit : module_fit);
                if (!out.empty()) return finish(out);
            }
        }

        // 2. The reference's own file.
        add_symbols({file}, ref.name, out, 0, fit);
        if (!out.empty()) return finish(out);

        // 3. The other files of the same package, where a package is a directory (Go, Java).
        if (language_spec(language).imports.package_is_directory) {
            if (auto dir = dir_files_.find(std::string(directory_of(s_.files[file].path))); dir != dir_files_.end()) {
                FileList same;
                for (Index other : dir->second) {
                    if (other != file && s_.files[other].language == language) same.push_back(other);
                }
                add_symbols(same, ref.name, out, 0, fit);
                if (!out.empty()) return finish(out);
            }
        }

        // 4. The modules the file imports: a name imported by name, then modules imported
        //    whole, then members reached through a value (`obj.name`) in any imported module.
        Filter outside = fit;
        outside.bare_is_no_member = !reaches_members_without_receiver(language);
        if (fit.qualifier == QualifierKind::none) {
            for (std::size_t b : lookup(imports.by_name_key, ref.name)) {
                add_symbols(bindings[b].files, *bindings[b].name, out, 2, module_fit);
            }
            for (std::size_t b : lookup(imports.by_name, ref.name)) {
                if (bindings[b].key != ref.name) add_symbols(bindings[b].files, *bindings[b].name, out, 2, module_fit);
            }
            if (!out.empty()) return finish(out);
            add_symbols(imports.whole_files, ref.name, out, 1, outside);
            if (!out.empty()) return finish(out);
        } else {
            // Members defined in the imported files themselves (no re-exports: `x.name` says
            // nothing about which module x comes from).
            add_symbols(imports.all_files, ref.name, out, 0, fit);
            if (!out.empty()) return finish(out);
        }

        // 5. A name defined once among the source files of the language family.
        const auto unique = by_family_name_.find({language_family(language), ref.name});
        if (unique != by_family_name_.end()) {
            std::int64_t found = 0;
            int matches = 0;
            for (Index symbol : unique->second) {
                if (!outside.accepts(s_.symbols[symbol], ref.name)) continue;
                found = s_.symbols[symbol].id;
                if (++matches > 1) break;
            }
            if (matches == 1) out.push_back(found);
        }
        return finish(out);
    }

    // The files that `file`'s imports lead to (for covering tests).
    FileList imported_files(Index file) const {
        FileList out;
        for (const auto& binding : imports_of(file).bindings) {
            out.insert(out.end(), binding.files.begin(), binding.files.end());
            if (binding.name && binding.files.empty()) {
                auto submodule = resolve_submodule(file, binding, *binding.name);
                out.insert(out.end(), submodule.begin(), submodule.end());
            }
        }
        std::sort(out.begin(), out.end());
        out.erase(std::unique(out.begin(), out.end()), out.end());
        return out;
    }

    Index index_of_file(std::int64_t id) const { return file_index_.at(id); }
    bool has_file(std::int64_t id) const { return file_index_.count(id) > 0; }

private:
    static std::vector<std::int64_t> finish(std::vector<std::int64_t>& out) {
        std::sort(out.begin(), out.end());
        out.erase(std::unique(out.begin(), out.end()), out.end());
        return std::move(out);
    }

    void build_file_indexes() {
        for (Index i = 0; i < s_.files.size(); ++i) {
            const auto& file = s_.files[i];
            file_index_[file.id] = i;
            const std::string_view dir = directory_of(file.path);
            dir_files_[std::string(dir)].push_back(i);
            exact_path_[file.path].push_back(i);

            const std::string_view stem = without_extension(file_name_of(file.path));
            std::string no_ext = dir.empty() ? std::string(stem) : std::string(dir) + "/" + std::string(stem);
            register_suffixes(suffix_no_ext_, no_ext, i);
            path_no_ext_[no_ext].push_back(i);
            if (is_package_file(stem, file.language)) {
                path_no_ext_[std::string(dir)].push_back(i);
                if (!dir.empty()) register_suffixes(suffix_no_ext_, std::string(dir), i);
            }
            if (module_paths(file.language) == ModulePaths::include_files) {
                register_suffixes(suffix_with_ext_, file.path, i);
                c_stem_files_[std::string(stem)].push_back(i);
            }
            if (!file.module_name.empty()) {
                module_exact_[join(split(file.module_name, "./"), 1000)].push_back(i);
            }
        }
    }

    static void register_suffixes(std::unordered_map<std::string, FileList>& map, const std::string& path, Index file) {
        std::size_t pos = 0;
        for (;;) {
            map[path.substr(pos)].push_back(file);
            const auto slash = path.find('/', pos);
            if (slash == std::string::npos) break;
            pos = slash + 1;
        }
    }

    // The file index of a symbol the lookups hold (named, in a source file), or nullopt.
    std::optional<Index> indexed_file_of(const SnapshotSymbol& symbol) const {
        const auto it = file_index_.find(symbol.file_id);
        if (it == file_index_.end() || !s_.files[it->second].is_source || symbol.name.empty()) return std::nullopt;
        return it->second;
    }

    void build_symbols_by_file() {
        symbol_file_.assign(s_.symbols.size(), static_cast<Index>(-1));
        for (Index i = 0; i < s_.symbols.size(); ++i) {
            const auto file = indexed_file_of(s_.symbols[i]);
            if (!file) continue;
            by_file_name_[{*file, s_.symbols[i].name}].push_back(i);
            symbol_file_[i] = *file;
        }
    }

    void build_symbols_by_name() {
        for (Index i = 0; i < s_.symbols.size(); ++i) {
            const auto file = indexed_file_of(s_.symbols[i]);
            if (!file) continue;
            by_name_[s_.symbols[i].name].push_back(i);
            by_family_name_[{language_family(s_.files[*file].language), s_.symbols[i].name}].push_back(i);
        }
    }

    // Symbols named `name` in `files` that fit; when a file has none, follows its imports of
    // that name (re-exports such as __init__.py, index.js or `pub use`) up to `depth` levels.
    void add_symbols(const FileList& files, const std::string& name, std::vector<std::int64_t>& out, int depth,
                     const Filter& fit) const {
        // Most names are defined a few times in the whole index: scanning those definitions
        // beats a (file, name) lookup per file.
        const auto defined = by_name_.find(name);
        const std::vector<Index>* candidates = defined == by_name_.end() ? nullptr : &defined->second;
        for (Index file : files) {
            bool found = false;
            auto take = [&](Index symbol) {
                if (!fit.accepts(s_.symbols[symbol], name)) return;
                out.push_back(s_.symbols[symbol].id);
                found = true;
            };
            if (candidates != nullptr && candidates->size() <= 8) {
                for (Index symbol : *candidates) {
                    if (symbol_file_[symbol] == file) take(symbol);
                }
            } else if (candidates != nullptr) {
                if (const auto it = by_file_name_.find({file, name}); it != by_file_name_.end()) {
                    for (Index symbol : it->second) take(symbol);
                }
            }
            if (found || depth <= 0) continue;
            const FileImports& imports = imports_of(file);
            for (std::size_t b : lookup(imports.by_name_key, name)) {
                add_symbols(imports.bindings[b].files, *imports.bindings[b].name, out, depth - 1, fit);
            }
            for (std::size_t b : imports.wildcards) add_symbols(imports.bindings[b].files, name, out, depth - 1, fit);
        }
    }

    // `from pkg import mod`: the module pkg.mod, when `name` is a module rather than an item.
    FileList resolve_submodule(Index file, const Binding& binding, const std::string& name) const {
        const Language language = s_.files[file].language;
        const std::string separator(language_spec(language).imports.submodule_separator);
        const std::string& module = binding.module_raw;
        const bool bare = module.empty() || module.ends_with(separator);
        auto target = resolve_module(file, module + (bare ? "" : separator) + name);
        return target.member ? FileList{} : target.files;
    }

    // The files a module string names, as seen from `file`.
    ModuleTarget resolve_module(Index file, const std::string& module) const {
        const auto& from = s_.files[file];
        const std::string_view dir = directory_of(from.path);
        const Language language = from.language;
        ModuleTarget target;
        if (module.empty()) return target;

        const ModulePaths paths = module_paths(language);
        if (paths == ModulePaths::include_files) {
            if (auto joined = join_relative(dir, module)) {
                if (auto it = exact_path_.find(*joined); it != exact_path_.end()) target.files = it->second;
            }
            if (target.files.empty()) {
                if (auto it = suffix_with_ext_.find(module); it != suffix_with_ext_.end()) target.files = it->second;
            }
            // A header's definitions live in the sources of the same name.
            FileList with_sources = target.files;
            for (Index header : target.files) {
                if (!is_header_path(s_.files[header].path)) continue;
                const std::string stem(without_extension(file_name_of(s_.files[header].path)));
                if (auto it = c_stem_files_.find(stem); it != c_stem_files_.end()) {
                    for (Index source : it->second) {
                        if (!is_header_path(s_.files[source].path)) with_sources.push_back(source);
                    }
                }
            }
            target.files = std::move(with_sources);
            return target;
        }

        const bool file_paths = paths == ModulePaths::relative_files;
        if (file_paths && (module.starts_with("./") || module.starts_with("../") || module == "." || module == "..")) {
            auto joined = join_relative(dir, module);
            if (!joined) return target;
            if (auto it = exact_path_.find(*joined); it != exact_path_.end()) {
                target.files = it->second;
                return target;
            }
            std::string no_ext = *joined;
            for (std::string_view ext : {".js", ".jsx", ".ts", ".tsx", ".mjs", ".cjs"}) {
                if (no_ext.ends_with(ext)) {
                    no_ext.resize(no_ext.size() - ext.size());
                    break;
                }
            }
            if (auto it = path_no_ext_.find(no_ext); it != path_no_ext_.end()) target.files = it->second;
            return target;
        }

        std::vector<std::string> parts;
        std::string base;  // directory the parts start from, when the module is relative
        bool relative = false;
        if (paths == ModulePaths::python_modules && module.starts_with('.')) {
            std::size_t dots = 0;
            while (dots < module.size() && module[dots] == '.') ++dots;
            std::string up(dir);
            for (std::size_t i = 1; i < dots; ++i) {
                auto parent = join_relative(up, "..");
                if (!parent) return target;
                up = *parent;
            }
            base = up;
            relative = true;
            parts = split(std::string_view(module).substr(dots), ".");
        } else if (paths == ModulePaths::rust_paths) {
            parts = split(module, "");
            if (!parts.empty() && parts[0] == "crate") {
                base = crate_root(from.path);
                relative = true;
                parts.erase(parts.begin());
            } else if (!parts.empty() && (parts[0] == "self" || parts[0] == "super")) {
                std::string_view stem = without_extension(file_name_of(from.path));
                std::string module_dir = is_package_file(stem, language) ? std::string(dir)
                                                                 : (dir.empty() ? std::string(stem) : std::string(dir) + "/" + std::string(stem));
                while (!parts.empty() && (parts[0] == "self" || parts[0] == "super")) {
                    if (parts[0] == "super") module_dir = std::string(directory_of(module_dir));
                    parts.erase(parts.begin());
                }
                base = module_dir;
                relative = true;
            }
        } else if (file_paths) {
            return target;  // a package from outside the repository
        } else if (paths == ModulePaths::go_packages) {
            parts = split(module, "/");
        } else {
            parts = split(module, ".");
        }
        std::erase_if(parts, [](const std::string& part) { return part.empty(); });
        if (!parts.empty() && parts.back() == "*") parts.pop_back();

        if (!relative) {
            // A module path that starts with a package's own name (Go module, Rust crate).
            for (const auto& package : packages_) {
                if (package.parts.empty() || package.parts.size() > parts.size()) continue;
                if (!std::equal(package.parts.begin(), package.parts.end(), parts.begin())) continue;
                base = package.directory;
                relative = true;
                parts.erase(parts.begin(), parts.begin() + static_cast<std::ptrdiff_t>(package.parts.size()));
                break;
            }
        }

        // Go imports name a directory (a package).
        if (paths == ModulePaths::go_packages) {
            const std::string joined = join(parts, parts.size());
            const std::string path = relative ? (base.empty() ? joined : (joined.empty() ? base : base + "/" + joined)) : joined;
            if (auto it = dir_files_.find(path); relative && it != dir_files_.end()) {
                for (Index f : it->second) {
                    if (s_.files[f].language == language) target.files.push_back(f);
                }
            }
            return target;
        }

        // Try the whole path as a module, then shorter paths with the rest as an item
        // (`a.mod.Class.member`): at most two parts dropped, and never down to the lone first
        // part of a longer path, which says too little ("java" of "java.util.Map").
        const std::size_t shortest = relative ? 0 : (parts.size() > 1 ? std::max<std::size_t>(2, parts.size() - 2) : 1);
        for (std::size_t count = parts.size(); count >= shortest && count <= parts.size(); --count) {
            const std::string joined = join(parts, count);
            const FileList* found = nullptr;
            if (relative) {
                const std::string path = base.empty() ? joined : (joined.empty() ? base : base + "/" + joined);
                if (auto it = path_no_ext_.find(path); it != path_no_ext_.end()) found = &it->second;
            } else {
                if (auto it = module_exact_.find(joined); it != module_exact_.end()) {
                    found = &it->second;
                } else if (auto suffix = suffix_no_ext_.find(joined); suffix != suffix_no_ext_.end()) {
                    found = &suffix->second;
                }
            }
            if (found != nullptr) {
                // A module name means a file of the importer's own language family: Python's
                // `shop.cart` is not a Ruby file at lib/shop/cart.rb.
                const int family = language_family(language);
                for (Index f : *found) {
                    if (language_family(s_.files[f].language) == family) target.files.push_back(f);
                }
                if (!target.files.empty()) {
                    if (count < parts.size()) target.member = parts[count];
                    return target;
                }
            }
            if (count == 0) break;
        }
        return target;
    }

    // The source root of the Rust crate holding `path`: the deepest crate directory above it.
    std::string crate_root(std::string_view path) const {
        std::string best;
        bool found = false;
        for (const auto& package : packages_) {
            const std::string& dir = package.directory;
            if (!package.rust) continue;
            if (!dir.empty() && !(path.starts_with(dir) && path.size() > dir.size() && path[dir.size()] == '/')) continue;
            if (!found || dir.size() > best.size()) best = dir;
            found = true;
        }
        if (found) return best;
        const auto src = path.find("src/");
        return src == std::string_view::npos ? std::string() : std::string(path.substr(0, src + 3));
    }

    const ModuleTarget& module_for_qualifier(Index file, const std::string& qualifier, QualifierCache& cache) const {
        auto key = std::make_pair(file, qualifier);
        if (auto it = cache.find(key); it != cache.end()) return it->second;
        return cache.emplace(std::move(key), resolve_module(file, qualifier)).first->second;
    }

    const FileImports& imports_of(Index file) const {
        std::call_once(imports_resolved_[file], [&] { imports_[file] = resolve_imports(file, import_rows_[file]); });
        return imports_[file];
    }

    // The imports of a file, indexed by the names the file's code uses.
    FileImports resolve_imports(Index file, const std::vector<const SnapshotImport*>& imports) const {
        FileImports out;
        std::map<std::string, ModuleTarget> resolved;  // a module imported name by name resolves once
        for (const SnapshotImport* import : imports) {
            Binding binding;
            auto cached = resolved.find(import->module);
            if (cached == resolved.end()) cached = resolved.emplace(import->module, resolve_module(file, import->module)).first;
            binding.files = cached->second.files;
            binding.member = cached->second.member;
            binding.module_raw = import->module;
            binding.module_key = import->module;
            for (std::size_t pos; (pos = binding.module_key.find("::")) != std::string::npos;) binding.module_key.replace(pos, 2, ".");
            std::replace(binding.module_key.begin(), binding.module_key.end(), '/', '.');
            const auto parts = split(import->module, "./");
            binding.module_last = parts.empty() ? std::string() : parts.back();
            if (binding.member && !import->name) {
                // `import com.x.Y` or `use a::b::Item`: the item is the imported name.
                binding.name = binding.member;
                binding.key = import->alias.value_or(*binding.member);
            } else if (import->name) {
                binding.name = import->name;
                binding.key = import->alias.value_or(*import->name);
            } else {
                binding.key = import->alias.value_or(binding.module_last);
            }
            const std::size_t index = out.bindings.size();
            if (!binding.name) {
                std::set<std::string> keys = {binding.key, binding.module_key, binding.module_last};
                for (const auto& key : keys) out.by_module_key[key].push_back(index);
                out.whole_files.insert(out.whole_files.end(), binding.files.begin(), binding.files.end());
            } else if (*binding.name == "*") {
                out.wildcards.push_back(index);
                out.whole_files.insert(out.whole_files.end(), binding.files.begin(), binding.files.end());
            } else {
                out.by_name_key[binding.key].push_back(index);
                out.by_name[*binding.name].push_back(index);
            }
            out.all_files.insert(out.all_files.end(), binding.files.begin(), binding.files.end());
            out.bindings.push_back(std::move(binding));
        }
        for (FileList* list : {&out.whole_files, &out.all_files}) {
            std::sort(list->begin(), list->end());
            list->erase(std::unique(list->begin(), list->end()), list->end());
        }
        return out;
    }

    static const std::vector<std::size_t>& lookup(const std::unordered_map<std::string, std::vector<std::size_t>>& map,
                                                   std::string_view key) {
        static const std::vector<std::size_t> kNone;
        const auto it = map.find(std::string(key));
        return it == map.end() ? kNone : it->second;
    }

    struct Package {
        std::vector<std::string> parts;
        std::string directory;
        bool rust = false;
    };
    void set_packages(const std::vector<PackageRoot>& packages) {
        for (const auto& package : packages) {
            const bool rust = package.name.find('/') == std::string::npos && package.name.find('.') == std::string::npos;
            packages_.push_back({split(package.name, rust ? "" : "/"), package.directory, rust});
        }
        // Longest names first, so that a nested module path wins.
        std::stable_sort(packages_.begin(), packages_.end(),
                         [](const Package& a, const Package& b) { return a.parts.size() > b.parts.size(); });
    }

private:
    const IndexSnapshot& s_;
    std::unordered_map<std::int64_t, Index> file_index_;
    std::unordered_map<std::string, FileList> dir_files_, exact_path_, path_no_ext_, suffix_no_ext_, suffix_with_ext_,
        module_exact_, c_stem_files_;
    // Symbol indexes by (file, name) and by (language family, name); source files only.
    std::unordered_map<std::pair<Index, std::string_view>, std::vector<Index>, PairHash> by_file_name_;
    std::unordered_map<std::pair<int, std::string_view>, std::vector<Index>, FamilyHash> by_family_name_;
    std::unordered_map<std::string_view, std::vector<Index>> by_name_;
    std::vector<Index> symbol_file_;  // file index of each symbol
    std::vector<std::vector<const SnapshotImport*>> import_rows_;
    mutable std::vector<FileImports> imports_;  // each filled once, under its flag
    std::unique_ptr<std::once_flag[]> imports_resolved_;
    std::vector<Package> packages_;
};

// Test file index -> source file index -> the distinct symbols of the source it uses.
using UsedSymbols = std::map<Index, std::map<Index, std::set<std::int64_t>>>;

// The covering-test rows: for each test file (every one, or with `only_used` those that are
// keys of `used`), the source files it reaches by the symbols it uses, by its imports, or by
// its name; `kept` holds the stored rows of the other tests. Within each source file, tests
// named after it rank 0 and the others by used symbols, densely, most first.
std::vector<CoveringTestRow> covering_rows(const IndexSnapshot& snapshot, const Resolver& resolver, UsedSymbols& used,
                                           const std::vector<CoveringTestRow>& kept, bool only_used) {
    // Source files by their name without extension, for tests named after them.
    std::unordered_map<std::string, FileList> sources_by_stem;
    for (Index i = 0; i < snapshot.files.size(); ++i) {
        const auto& file = snapshot.files[i];
        if (file.is_source && !file.is_test) sources_by_stem[std::string(without_extension(file_name_of(file.path)))].push_back(i);
    }
    const auto named_after = [&](Index test, Index source) {
        return is_named_test_for(snapshot.files[test].path, snapshot.files[test].language, snapshot.files[source].path,
                                 snapshot.files[source].language);
    };

    // Source file index -> (test file index -> (named after, used symbols)).
    std::map<Index, std::map<Index, std::pair<bool, std::int64_t>>> reached;
    for (const auto& row : kept) {
        if (!resolver.has_file(row.source_file_id) || !resolver.has_file(row.test_file_id)) continue;
        const Index source = resolver.index_of_file(row.source_file_id);
        const Index test = resolver.index_of_file(row.test_file_id);
        reached[source][test] = {named_after(test, source), row.used_symbols};
    }
    for (Index test = 0; test < snapshot.files.size(); ++test) {
        const auto& test_file = snapshot.files[test];
        if (!test_file.is_test || !test_file.is_source) continue;
        if (only_used && used.count(test) == 0) continue;
        std::set<Index> sources;
        for (const auto& [source, symbols] : used[test]) sources.insert(source);
        for (Index source : resolver.imported_files(test)) {
            const auto& file = snapshot.files[source];
            if (source != test && file.is_source && !file.is_test) sources.insert(source);
        }
        // The source file a test is named after, even when its uses could not be resolved,
        // as long as the name is not ambiguous.
        const std::string stem = tested_stem(test_file.path, test_file.language);
        if (!stem.empty()) {
            if (auto it = sources_by_stem.find(stem); it != sources_by_stem.end()) {
                FileList named;
                for (Index source : it->second) {
                    if (named_after(test, source)) named.push_back(source);
                }
                const bool any_reached = std::any_of(named.begin(), named.end(), [&](Index s) { return sources.count(s) > 0; });
                if (!any_reached && named.size() == 1) sources.insert(named.front());
            }
        }
        for (Index source : sources) {
            const auto used_it = used[test].find(source);
            const std::int64_t count = used_it == used[test].end() ? 0 : static_cast<std::int64_t>(used_it->second.size());
            reached[source][test] = {named_after(test, source), count};
        }
    }

    std::vector<CoveringTestRow> rows;
    for (const auto& [source, tests] : reached) {
        // Dense rank by used symbols, most first; the tests named after the file rank 0.
        std::set<std::int64_t, std::greater<>> counts;
        for (const auto& [test, info] : tests) {
            if (!info.first) counts.insert(info.second);
        }
        for (const auto& [test, info] : tests) {
            double rank = 0;
            if (!info.first) rank = static_cast<double>(std::distance(counts.begin(), counts.find(info.second)) + 1);
            rows.push_back({snapshot.files[source].id, snapshot.files[test].id, rank, info.second});
        }
    }
    std::sort(rows.begin(), rows.end(), [](const CoveringTestRow& a, const CoveringTestRow& b) {
        return a.source_file_id != b.source_file_id ? a.source_file_id < b.source_file_id : a.test_file_id < b.test_file_id;
    });
    return rows;
}

}  // namespace

DerivedData derive_index_data(const IndexSnapshot& snapshot) {
    DerivedData data;
    const Resolver resolver(snapshot);

    std::unordered_map<std::int64_t, std::int64_t> symbol_file;
    symbol_file.reserve(snapshot.symbols.size());
    for (const auto& symbol : snapshot.symbols) symbol_file[symbol.id] = symbol.file_id;

    // The references are resolved in contiguous slices on all cores (one qualifier cache per
    // slice; references of a file are mostly adjacent); each slice sorts its edges, then the
    // slices' results are merged.
    struct Slice {
        std::vector<ReferenceEdge> edges;
        std::unordered_map<std::int64_t, std::int64_t> fan_in;
        // Test file index -> source file index -> distinct symbols used.
        UsedSymbols used;
    };
    const std::size_t total = snapshot.references.size();
    const std::size_t slices =
        std::clamp<std::size_t>(std::thread::hardware_concurrency(), 1, std::max<std::size_t>(1, total / kReferencesPerSlice));
    std::vector<Slice> results(slices);
    auto resolve_slice = [&](std::size_t k) {
        Slice& out = results[k];
        Resolver::QualifierCache qualifiers;
        for (std::size_t i = total * k / slices, end = total * (k + 1) / slices; i < end; ++i) {
            const SnapshotReference& ref = snapshot.references[i];
            if (!resolver.has_file(ref.file_id)) continue;
            const Index from = resolver.index_of_file(ref.file_id);
            const auto& from_file = snapshot.files[from];
            for (std::int64_t target : resolver.resolve(ref, qualifiers)) {
                out.edges.push_back({target, ref.id});
                if (!from_file.is_test) ++out.fan_in[target];
                if (from_file.is_test) {
                    const Index to = resolver.index_of_file(symbol_file.at(target));
                    if (to != from && !snapshot.files[to].is_test) out.used[from][to].insert(target);
                }
            }
        }
        std::sort(out.edges.begin(), out.edges.end());
    };
    run_in_parallel(slices, resolve_slice);
    UsedSymbols used = std::move(results[0].used);
    data.fan_in = std::move(results[0].fan_in);
    data.edges = std::move(results[0].edges);
    for (std::size_t k = 1; k < slices; ++k) {
        const auto middle = static_cast<std::ptrdiff_t>(data.edges.size());
        data.edges.insert(data.edges.end(), results[k].edges.begin(), results[k].edges.end());
        std::inplace_merge(data.edges.begin(), data.edges.begin() + middle, data.edges.end());
        for (const auto& [symbol, count] : results[k].fan_in) data.fan_in[symbol] += count;
        for (auto& [test, sources] : results[k].used) {
            for (auto& [source, symbols] : sources) used[test][source].merge(symbols);
        }
    }
    data.edges.erase(std::unique(data.edges.begin(), data.edges.end()), data.edges.end());

    data.covering_tests = covering_rows(snapshot, resolver, used, {}, false);
    return data;
}

struct PartialResolution::Lookups {
    explicit Lookups(const IndexSnapshot& snapshot) : resolver(snapshot) {}
    Resolver resolver;
};

PartialResolution::PartialResolution(const IndexSnapshot& snapshot)
    : snapshot_(snapshot), lookups_(std::make_unique<Lookups>(snapshot)) {}

PartialResolution::~PartialResolution() = default;

std::vector<ReferenceEdge> PartialResolution::edges() const {
    const Resolver& resolver = lookups_->resolver;
    const std::size_t total = snapshot_.references.size();
    const std::size_t slices =
        std::clamp<std::size_t>(std::thread::hardware_concurrency(), 1, std::max<std::size_t>(1, total / kReferencesPerSlice));
    std::vector<std::vector<ReferenceEdge>> results(slices);
    run_in_parallel(slices, [&](std::size_t k) {
        Resolver::QualifierCache qualifiers;
        for (std::size_t i = total * k / slices, end = total * (k + 1) / slices; i < end; ++i) {
            const SnapshotReference& ref = snapshot_.references[i];
            for (std::int64_t target : resolver.resolve(ref, qualifiers)) results[k].push_back({target, ref.id});
        }
    });
    std::vector<ReferenceEdge> out;
    for (auto& slice : results) out.insert(out.end(), slice.begin(), slice.end());
    std::sort(out.begin(), out.end());
    out.erase(std::unique(out.begin(), out.end()), out.end());
    return out;
}

std::vector<CoveringTestRow> PartialResolution::covering_tests(const TestUses& uses, const std::vector<CoveringTestRow>& kept) const {
    const Resolver& resolver = lookups_->resolver;
    UsedSymbols used;
    for (const auto& [test_id, sources] : uses) {
        if (!resolver.has_file(test_id)) continue;
        auto& of_test = used[resolver.index_of_file(test_id)];
        for (const auto& [source_id, symbols] : sources) {
            if (resolver.has_file(source_id)) of_test[resolver.index_of_file(source_id)] = symbols;
        }
    }
    return covering_rows(snapshot_, resolver, used, kept, true);
}

std::optional<PackageRoot> package_root_from_manifest(const std::string& manifest_path, const std::string& text) {
    const std::string_view name = file_name_of(manifest_path);
    const std::string dir(directory_of(manifest_path));
    if (name == "go.mod") {
        static const std::regex kModule(R"re(^\s*module\s+"?([^\s"]+)"?)re");
        std::smatch match;
        // The first `module` line.
        std::size_t start = 0;
        while (start < text.size()) {
            const std::size_t end = text.find('\n', start);
            const std::string line = text.substr(start, end == std::string::npos ? std::string::npos : end - start);
            if (std::regex_search(line, match, kModule)) return PackageRoot{match[1].str(), dir};
            if (end == std::string::npos) break;
            start = end + 1;
        }
        return std::nullopt;
    }
    if (name == "Cargo.toml") {
        static const std::regex kSection(R"re(^\s*\[([^\]]*)\])re");
        static const std::regex kName(R"re(^\s*name\s*=\s*["']([^"']+)["'])re");
        std::string section;
        std::size_t start = 0;
        while (start < text.size()) {
            const std::size_t end = text.find('\n', start);
            const std::string line = text.substr(start, end == std::string::npos ? std::string::npos : end - start);
            std::smatch match;
            if (std::regex_search(line, match, kSection)) {
                section = match[1].str();
            } else if (section == "package" && std::regex_search(line, match, kName)) {
                std::string crate = match[1].str();
                std::replace(crate.begin(), crate.end(), '-', '_');
                return PackageRoot{crate, dir.empty() ? std::string("src") : dir + "/src"};
            }
            if (end == std::string::npos) break;
            start = end + 1;
        }
    }
    return std::nullopt;
}

}  // namespace orvane_kestrix::indexer
