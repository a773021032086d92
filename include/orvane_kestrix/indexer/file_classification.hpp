#pragma once
// What the index records about a file beyond its content: whether it is a test file by its
// language's conventions, which component it belongs to, and which source file a test file is
// named after.

#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "orvane_kestrix/indexer/extraction.hpp"

namespace orvane_kestrix::indexer {

// A test file: under a tests/, test/, __tests__/ or spec/ directory, or named like one in its
// language (test_x.py, x_test.py, conftest.py, x_test.go, x.test.ts, x.spec.js, XTest.java,
// XTests.java, TestX.java, XIT.java, x_test.rs, test_x.c, x_test.cc, x_unittest.cpp, x_test.rb,
// x_spec.rb...). The conventions of each language are in its row of the language table.
bool is_test_path(std::string_view path, Language language);

// The name a test file is named after, without test markers and extension ("cart" for
// tests/test_cart.py, "point" for point_test.go, "format" for format.test.js, "Inventory" for
// InventoryTest.java), or empty when the file name carries no test marker. Languages that
// name tests in camel case drop only camel-case markers; the others drop any snake- or
// dot-marker (test_x, x_test, x_tests, x_unittest, x_spec, x.test, x.spec).
std::string tested_stem(std::string_view test_path, Language test_language);

// Whether the test file is named after the source file: the same name once the test markers
// are removed, in the same language family (C with C++, JavaScript with TypeScript).
bool is_named_test_for(std::string_view test_path, Language test_language, std::string_view source_path,
                       Language source_language);

// Languages whose files can use each other's definitions share a family: C with C++,
// JavaScript with TypeScript and TSX; every other language is its own family.
int language_family(Language language);

// A C or C++ header by its extension: h, hh, hpp, hxx, h++, inl, ipp, tpp.
bool is_header_path(std::string_view path);

// A package manifest by file name: pyproject.toml, setup.py, package.json, go.mod, Cargo.toml,
// pom.xml, build.gradle(.kts), CMakeLists.txt.
bool is_package_manifest(std::string_view file_name);

// The components of a repository: each directory holding a package manifest; a file under no
// such directory belongs to its top-level directory, a root file to "." (the root).
class ComponentMap {
public:
    // `paths`: every file the walk listed (manifests are found among them).
    explicit ComponentMap(const std::vector<std::string>& paths);

    // The deepest component of the file: its repository-relative directory, "." for the root.
    std::string component_of(std::string_view path) const;

private:
    std::set<std::string> manifest_dirs_;  // "." for the root
};

}  // namespace orvane_kestrix::indexer
