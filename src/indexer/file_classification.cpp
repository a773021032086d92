#include "orvane_kestrix/indexer/file_classification.hpp"

#include <array>
#include <cctype>

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

bool is_camel_case_language(std::string_view ext) { return ext == "java" || ext == "kt"; }

}  // namespace

bool is_test_path(std::string_view path, Language language) {
    if (in_test_directory(path)) return true;
    const std::string_view name = file_name_of(path);
    const std::string_view base = without_extension(name);
    switch (language) {
        case Language::python:
            return name == "conftest.py" || (base.size() > 5 && base.starts_with("test_")) ||
                   (base.size() > 5 && base.ends_with("_test"));
        case Language::go:
            return base.size() > 5 && base.ends_with("_test");
        case Language::javascript:
        case Language::typescript:
        case Language::tsx:
            return (base.size() > 5 && (base.ends_with(".test") || base.ends_with(".spec")));
        case Language::java:
            return !camel_tested_stem(base).empty();
        case Language::rust:
            return base.size() > 5 && base.ends_with("_test");
        case Language::c:
        case Language::cpp:
            return !marked_tested_stem(base).empty() && !base.ends_with(".test") && !base.ends_with(".spec") &&
                   !base.ends_with("_spec");
        default:
            return false;
    }
}

std::string tested_stem(std::string_view test_path) {
    const std::string_view name = file_name_of(test_path);
    const std::string_view base = without_extension(name);
    if (is_camel_case_language(extension_of(name))) return camel_tested_stem(base);
    return marked_tested_stem(base);
}

int language_family(Language language) {
    switch (language) {
        case Language::javascript:
        case Language::typescript:
        case Language::tsx:
            return 1;
        case Language::c:
        case Language::cpp:
            return 2;
        default:
            return 10 + static_cast<int>(language);
    }
}

bool is_named_test_for(std::string_view test_path, Language test_language, std::string_view source_path,
                       Language source_language) {
    if (test_path == source_path || language_family(test_language) != language_family(source_language)) return false;
    const std::string stem = tested_stem(test_path);
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
