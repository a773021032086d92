#include "orvane_kestrix/indexer/file_classification.hpp"

#include <array>
#include <cctype>

#include "languages.hpp"
#include "orvane_kestrix/paths.hpp"

namespace orvane_kestrix::indexer {

namespace {

bool in_test_directory(std::string_view path) {
    std::string_view dirs = directory_of(path);
    while (!dirs.empty()) {
        const auto slash = dirs.find('/');
        const std::string_view part = dirs.substr(0, slash);
        if (part == "tests" || part == "test" || part == "__tests__" || part == "spec") return true;
        if (slash == std::string_view::npos) break;
        dirs.remove_prefix(slash + 1);
    }
    return false;
}

bool is_upper(char c) { return std::isupper(static_cast<unsigned char>(c)) != 0; }

// The tested name of a camel-case class file (InventoryTest, InventoryTests, InventoryIT,
// InventoryTestCase, TestInventory), or empty.
std::string camel_tested_stem(std::string_view base) {
    for (std::string_view suffix : {"TestCase", "Tests", "Test", "IT"}) {
        if (base.size() > suffix.size() && base.ends_with(suffix)) return std::string(base.substr(0, base.size() - suffix.size()));
    }
    if (base.size() > 4 && base.starts_with("Test") && is_upper(base[4])) return std::string(base.substr(4));
    return {};
}

// The tested name of a snake- or dot-marked file name (test_x, x_test, x_tests, x_unittest,
// x_spec, x.test, x.spec), or empty.
std::string marked_tested_stem(std::string_view base) {
    for (std::string_view suffix : {".test", ".spec", "_unittest", "_tests", "_test", "_spec"}) {
        if (base.size() > suffix.size() && base.ends_with(suffix)) return std::string(base.substr(0, base.size() - suffix.size()));
    }
    if (base.size() > 5 && base.starts_with("test_")) return std::string(base.substr(5));
    return {};
}

// Whether `base` (a file name without extension) carries one of the language's test markers.
bool has_test_marker(std::string_view base, const TestNaming& naming) {
    for (std::string_view suffix : naming.never_suffixes) {
        if (base.ends_with(suffix)) return false;
    }
    for (std::string_view suffix : naming.suffixes) {
        if (base.size() > suffix.size() && base.ends_with(suffix)) return true;
    }
    for (std::string_view prefix : naming.prefixes) {
        if (base.size() > prefix.size() && base.starts_with(prefix) &&
            (!naming.camel_case || is_upper(base[prefix.size()]))) {
            return true;
        }
    }
    return false;
}

}  // namespace

bool is_test_path(std::string_view path, Language language) {
    if (in_test_directory(path)) return true;
    const std::string_view name = file_name_of(path);
    const TestNaming& naming = language_spec(language).tests;
    for (std::string_view test_file : naming.file_names) {
        if (name == test_file) return true;
    }
    return has_test_marker(without_extension(name), naming);
}

std::string tested_stem(std::string_view test_path, Language test_language) {
    const std::string_view base = without_extension(file_name_of(test_path));
    return language_spec(test_language).tests.camel_case ? camel_tested_stem(base) : marked_tested_stem(base);
}

int language_family(Language language) {
    return static_cast<int>(language_spec(language).family);
}

bool is_named_test_for(std::string_view test_path, Language test_language, std::string_view source_path,
                       Language source_language) {
    if (test_path == source_path || language_family(test_language) != language_family(source_language)) return false;
    const std::string stem = tested_stem(test_path, test_language);
    return !stem.empty() && stem == without_extension(file_name_of(source_path));
}

bool is_header_path(std::string_view path) {
    const std::string_view extension = extension_of(file_name_of(path));
    for (std::string_view header : {"h", "hh", "hpp", "hxx", "h++", "inl", "ipp", "tpp"}) {
        if (extension == header) return true;
    }
    return false;
}

bool is_package_manifest(std::string_view name) {
    static constexpr std::array<std::string_view, 9> kManifests = {
        "pyproject.toml", "setup.py",     "package.json",     "go.mod",         "Cargo.toml",
        "pom.xml",        "build.gradle", "build.gradle.kts", "CMakeLists.txt",
    };
    for (auto manifest : kManifests) {
        if (name == manifest) return true;
    }
    return false;
}

ComponentMap::ComponentMap(const std::vector<std::string>& paths) {
    for (const auto& path : paths) {
        if (!is_package_manifest(file_name_of(path))) continue;
        const std::string_view dir = directory_of(path);
        manifest_dirs_.insert(dir.empty() ? std::string(".") : std::string(dir));
    }
}

std::string ComponentMap::component_of(std::string_view path) const {
    std::string_view dir = directory_of(path);
    while (!dir.empty()) {
        if (manifest_dirs_.count(std::string(dir)) > 0) return std::string(dir);
        const auto slash = dir.rfind('/');
        if (slash == std::string_view::npos) break;
        dir = dir.substr(0, slash);
    }
    if (manifest_dirs_.count(".") > 0) return ".";
    // Under no manifest: the top-level directory, or the root for a root file.
    const auto slash = path.find('/');
    return slash == std::string_view::npos ? std::string(".") : std::string(path.substr(0, slash));
}

}  // namespace orvane_kestrix::indexer
