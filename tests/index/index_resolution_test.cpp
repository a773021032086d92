// Test-file conventions, components and reference resolution on hand-made index snapshots.

#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <string>
#include <vector>

#include "orvane_kestrix/indexer/file_classification.hpp"
#include "orvane_kestrix/indexer/resolution.hpp"

namespace {

using namespace orvane_kestrix::indexer;

TEST(TestFileConventions, ByLanguage) {
    struct Case {
        const char* path;
        Language language;
        bool is_test;
    };
    const Case cases[] = {
        {"pkg/test_cart.py", Language::python, true},      {"pkg/cart_test.py", Language::python, true},
        {"pkg/conftest.py", Language::python, true},       {"pkg/testing.py", Language::python, false},
        {"pkg/contest.py", Language::python, false},       {"tests/helpers.py", Language::python, true},
        {"geo/point_test.go", Language::go, true},         {"geo/test_point.go", Language::go, false},
        {"src/format.test.js", Language::javascript, true}, {"src/api.spec.ts", Language::typescript, true},
        {"src/view.spec.tsx", Language::tsx, true},        {"src/latest.js", Language::javascript, false},
        {"src/__tests__/view.tsx", Language::tsx, true},   {"spec/models/user.js", Language::javascript, true},
        {"src/InventoryTest.java", Language::java, true},  {"src/InventoryTests.java", Language::java, true},
        {"src/TestInventory.java", Language::java, true},  {"src/InventoryIT.java", Language::java, true},
        {"src/Testament.java", Language::java, false},     {"src/Contest.java", Language::java, false},
        {"src/parser_test.rs", Language::rust, true},      {"src/parser.rs", Language::rust, false},
        {"native/test_ring.c", Language::c, true},         {"native/ring_test.cc", Language::cpp, true},
        {"native/ring_unittest.cpp", Language::cpp, true}, {"native/ring.c", Language::c, false},
        {"docs/test_plan.md", Language::markdown, false},  {"test/fixtures/data.json", Language::json, true},
        {"protester/main.go", Language::go, false},
        {"lib/cart_test.rb", Language::ruby, true},        {"lib/test_cart.rb", Language::ruby, true},
        {"lib/cart_spec.rb", Language::ruby, true},        {"lib/spec_helper.rb", Language::ruby, false},
        {"native/test_ring.spec.c", Language::c, false},
    };
    for (const auto& c : cases) EXPECT_EQ(is_test_path(c.path, c.language), c.is_test) << c.path;
}

TEST(TestFileConventions, NamedAfterTheSourceFile) {
    struct Case {
        const char* test;
        Language test_language;
        const char* source;
        Language source_language;
        bool named;
    };
    const Case cases[] = {
        {"tests/test_cart.py", Language::python, "shop/cart.py", Language::python, true},
        {"tests/cart_test.py", Language::python, "shop/cart.py", Language::python, true},
        {"geo/point_test.go", Language::go, "geo/point.go", Language::go, true},
        {"test/format.test.js", Language::javascript, "src/format.js", Language::javascript, true},
        {"src/api.spec.ts", Language::typescript, "src/api.ts", Language::typescript, true},
        {"src/api.spec.ts", Language::typescript, "src/api.js", Language::javascript, true},
        {"t/InventoryTest.java", Language::java, "m/Inventory.java", Language::java, true},
        {"t/TestInventory.java", Language::java, "m/Inventory.java", Language::java, true},
        {"tests/test_ring.c", Language::c, "include/ring.h", Language::cpp, true},
        {"tests/test_cart.py", Language::python, "web/cart.js", Language::javascript, false},
        {"tests/test_cart.py", Language::python, "shop/carts.py", Language::python, false},
        {"tests/helpers.py", Language::python, "shop/helpers.py", Language::python, false},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(is_named_test_for(c.test, c.test_language, c.source, c.source_language), c.named) << c.test << " " << c.source;
    }
}

TEST(Components, DeepestManifestDirectoryElseTopLevelDirectory) {
    const ComponentMap with_root({"pyproject.toml", "src/app.py", "tools/web/package.json", "tools/web/x.js",
                                  "tools/run.py", "README.md"});
    EXPECT_EQ(with_root.component_of("src/app.py"), ".");
    EXPECT_EQ(with_root.component_of("tools/web/x.js"), "tools/web");
    EXPECT_EQ(with_root.component_of("tools/web/lib/deep/y.js"), "tools/web");
    EXPECT_EQ(with_root.component_of("tools/run.py"), ".");
    EXPECT_EQ(with_root.component_of("README.md"), ".");

    const ComponentMap without_root({"svc/go.mod", "svc/main.go", "scripts/a.py", "notes.md"});
    EXPECT_EQ(without_root.component_of("svc/internal/x.go"), "svc");
    EXPECT_EQ(without_root.component_of("scripts/deep/a.py"), "scripts");
    EXPECT_EQ(without_root.component_of("notes.md"), ".");
}

TEST(PackageRoots, FromGoModAndCargoToml) {
    const auto go = package_root_from_manifest("svc/go.mod", "// comment\nmodule example.com/svc\n\ngo 1.21\n");
    ASSERT_TRUE(go);
    EXPECT_EQ(go->name, "example.com/svc");
    EXPECT_EQ(go->directory, "svc");
    const auto crate = package_root_from_manifest("Cargo.toml", "[package]\nname = \"my-calc\"\n[dependencies]\nname = \"x\"\n");
    ASSERT_TRUE(crate);
    EXPECT_EQ(crate->name, "my_calc");
    EXPECT_EQ(crate->directory, "src");
    EXPECT_FALSE(package_root_from_manifest("Cargo.toml", "[workspace]\nmembers = []\n"));
}

// Builds snapshots tersely and reads resolution results by fqn.
class Snapshot {
public:
    std::int64_t file(const std::string& path, Language language, const std::string& module = "") {
        const std::int64_t id = static_cast<std::int64_t>(data.files.size()) + 1;
        bool is_test = is_test_path(path, language);
        data.files.push_back({id, path, language, is_test, is_source_language(language), module});
        return id;
    }
    void symbol(std::int64_t file, const std::string& fqn, const std::string& kind = "function") {
        const std::int64_t id = static_cast<std::int64_t>(data.symbols.size()) + 100;
        data.symbols.push_back({id, file, fqn.substr(fqn.rfind('.') + 1), fqn, kind});
        fqns[id] = fqn;
    }
    void import(std::int64_t file, const std::string& module, std::optional<std::string> name = std::nullopt,
                std::optional<std::string> alias = std::nullopt) {
        data.imports.push_back({file, module, std::move(name), std::move(alias)});
    }
    // Adds a reference and returns its id.
    std::int64_t ref(std::int64_t file, const std::string& name, const std::string& qualifier = "",
                     const std::string& usage = "call") {
        const std::int64_t id = static_cast<std::int64_t>(data.references.size()) + 1000;
        data.references.push_back({id, file, name, qualifier, usage});
        return id;
    }
    // The fqns a reference resolved to, sorted and joined.
    std::string targets(const DerivedData& derived, std::int64_t ref) const {
        std::vector<std::string> out;
        for (const auto& edge : derived.edges) {
            if (edge.reference_id == ref) out.push_back(fqns.at(edge.symbol_id));
        }
        std::sort(out.begin(), out.end());
        std::string text;
        for (const auto& fqn : out) text += (text.empty() ? "" : " ") + fqn;
        return text.empty() ? "-" : text;
    }
    std::int64_t fan_in(const DerivedData& derived, const std::string& fqn) const {
        for (const auto& [id, name] : fqns) {
            if (name == fqn) return derived.fan_in.count(id) ? derived.fan_in.at(id) : 0;
        }
        return -1;
    }

    IndexSnapshot data;
    std::map<std::int64_t, std::string> fqns;
};

TEST(Resolution, FollowsEachLanguagesImports) {
    Snapshot s;
    // Python: relative import through a package's __init__ re-export.
    const auto cart = s.file("py/shop/cart.py", Language::python, "shop.cart");
    const auto init = s.file("py/shop/__init__.py", Language::python, "shop");
    const auto app = s.file("py/app.py", Language::python, "app");
    const auto other = s.file("py/other.py", Language::python, "other");
    s.symbol(cart, "shop.cart.total");
    s.symbol(other, "other.total");
    s.import(init, ".cart", "total");
    s.import(app, "shop", "total");
    const auto py_call = s.ref(app, "total");
    // JavaScript: relative path without extension, and an index.js directory.
    const auto fmt = s.file("web/src/format.js", Language::javascript);
    const auto util = s.file("web/src/util/index.js", Language::javascript);
    const auto view = s.file("web/src/view.tsx", Language::tsx);
    s.symbol(fmt, "format.price");
    s.symbol(util, "util.pad");
    s.import(view, "./format", "price");
    s.import(view, "./util", "pad");
    const auto js_price = s.ref(view, "price");
    const auto js_pad = s.ref(view, "pad");
    // Go: a package under the module path named by go.mod.
    const auto point = s.file("go/geo/point.go", Language::go);
    const auto main_go = s.file("go/cmd/main.go", Language::go);
    s.symbol(point, "geo.NewPoint");
    s.import(main_go, "example.com/m/geo");
    const auto go_call = s.ref(main_go, "NewPoint", "geo");
    s.data.packages.push_back({"example.com/m", "go"});
    // Rust: crate-relative paths.
    const auto parser = s.file("rs/src/parser.rs", Language::rust);
    const auto lib = s.file("rs/src/lib.rs", Language::rust);
    s.symbol(parser, "parser.parse");
    s.import(lib, "crate::parser", "parse");
    const auto rs_call = s.ref(lib, "parse");
    // C: an included header leads to the source of the same name.
    const auto header = s.file("c/include/ring.h", Language::c);
    const auto source = s.file("c/src/ring.c", Language::c);
    const auto test = s.file("c/tests/test_ring.c", Language::c);
    s.symbol(header, "ring_push");
    s.symbol(source, "ring_push");
    s.import(test, "ring.h");
    const auto c_call = s.ref(test, "ring_push");

    const DerivedData derived = derive_index_data(s.data);
    EXPECT_EQ(s.targets(derived, py_call), "shop.cart.total");
    EXPECT_EQ(s.targets(derived, js_price), "format.price");
    EXPECT_EQ(s.targets(derived, js_pad), "util.pad");
    EXPECT_EQ(s.targets(derived, go_call), "geo.NewPoint");
    EXPECT_EQ(s.targets(derived, rs_call), "parser.parse");
    EXPECT_EQ(s.targets(derived, c_call), "ring_push ring_push");
}

TEST(Resolution, ModuleNamesKeepToTheImportersLanguageFamily) {
    Snapshot s;
    // A Ruby file at the same module path as the Python import must not take the reference,
    // and must not hide the Python module found under it.
    const auto ruby = s.file("rb/lib/shop/cart.rb", Language::ruby);
    const auto python = s.file("py/shop/cart.py", Language::python, "shop.cart");
    const auto app = s.file("py/app.py", Language::python, "app");
    const auto lonely = s.file("py/lonely.py", Language::python, "lonely");
    s.symbol(ruby, "Shop.Cart.total");
    s.symbol(python, "shop.cart.total");
    s.import(app, "shop.cart", "total");
    s.import(lonely, "lib.shop.cart", "total");
    const auto call = s.ref(app, "total");
    const auto lonely_call = s.ref(lonely, "total");

    const DerivedData derived = derive_index_data(s.data);
    EXPECT_EQ(s.targets(derived, call), "shop.cart.total");
    EXPECT_NE(s.targets(derived, lonely_call), "Shop.Cart.total");
}

TEST(Resolution, FitsTheDefinitionToHowTheNameIsUsed) {
    Snapshot s;
    const auto models = s.file("models.py", Language::python, "models");
    s.symbol(models, "models.Matrix", "class");
    s.symbol(models, "models.Matrix.Matrix", "method");  // a constructor named like its class
    s.symbol(models, "models.Matrix.at", "method");
    s.symbol(models, "models.at");
    s.symbol(models, "models.Cart.add", "method");
    s.symbol(models, "models.Other.add", "method");
    const auto type_use = s.ref(models, "Matrix", "", "type");
    const auto call_class = s.ref(models, "Matrix");
    const auto member = s.ref(models, "at", "m");            // m.at(): a member through a value
    const auto bare = s.ref(models, "at");                   // at(): the function
    const auto typed = s.ref(models, "add", "Cart");         // Cart.add
    const auto foreign = s.ref(models, "round", "Math");     // another type's member: nothing
    const auto import = s.ref(models, "Matrix", "elsewhere", "import");

    const DerivedData derived = derive_index_data(s.data);
    EXPECT_EQ(s.targets(derived, type_use), "models.Matrix");
    EXPECT_EQ(s.targets(derived, call_class), "models.Matrix models.Matrix.Matrix");
    EXPECT_EQ(s.targets(derived, member), "models.Matrix.at");
    EXPECT_EQ(s.targets(derived, bare), "models.Matrix.at models.at");
    EXPECT_EQ(s.targets(derived, typed), "models.Cart.add");
    EXPECT_EQ(s.targets(derived, foreign), "-");
    EXPECT_EQ(s.targets(derived, import), "-");
}

TEST(Resolution, FallsBackToANameUniqueInTheLanguageFamily) {
    Snapshot s;
    const auto a = s.file("a.py", Language::python);
    const auto b = s.file("b.py", Language::python);
    const auto c = s.file("c.py", Language::python);
    const auto js = s.file("x.js", Language::javascript);
    const auto doc = s.file("README.md", Language::markdown);
    s.symbol(a, "a.only_here");
    s.symbol(a, "a.twice");
    s.symbol(b, "b.twice");
    s.symbol(js, "x.only_here");              // another family: no ambiguity for Python
    s.symbol(doc, "README.only_python", "section");  // documentation is never a target
    s.symbol(a, "a.Thing.method_once", "method");
    const auto unique = s.ref(c, "only_here");
    const auto ambiguous = s.ref(c, "twice");
    const auto section = s.ref(c, "only_python");
    const auto bare_method = s.ref(c, "method_once");           // a bare name is no member in Python
    const auto value_method = s.ref(c, "method_once", "thing");  // thing.method_once()

    const DerivedData derived = derive_index_data(s.data);
    EXPECT_EQ(s.targets(derived, unique), "a.only_here");
    EXPECT_EQ(s.targets(derived, ambiguous), "-");
    EXPECT_EQ(s.targets(derived, section), "-");
    EXPECT_EQ(s.targets(derived, bare_method), "-");
    EXPECT_EQ(s.targets(derived, value_method), "a.Thing.method_once");
}

TEST(Resolution, CountsProductionFanInAndRanksCoveringTests) {
    Snapshot s;
    const auto cart = s.file("shop/cart.py", Language::python, "shop.cart");
    const auto app = s.file("shop/app.py", Language::python, "shop.app");
    const auto named = s.file("tests/test_cart.py", Language::python, "tests.test_cart");
    const auto heavy = s.file("tests/test_checkout.py", Language::python, "tests.test_checkout");
    const auto light = s.file("tests/test_misc.py", Language::python, "tests.test_misc");
    const auto importer = s.file("tests/test_imports.py", Language::python, "tests.test_imports");
    s.symbol(cart, "shop.cart.add");
    s.symbol(cart, "shop.cart.total");
    s.symbol(cart, "shop.cart.clear");
    for (auto test : {named, heavy, light, importer}) s.import(test, "shop.cart", "add");
    s.ref(app, "add");
    s.ref(app, "add");
    s.ref(named, "add");
    for (const char* name : {"add", "total", "clear"}) s.ref(heavy, name);
    s.ref(light, "total");
    s.ref(light, "total");

    const DerivedData derived = derive_index_data(s.data);
    EXPECT_EQ(s.fan_in(derived, "shop.cart.add"), 2);
    EXPECT_EQ(s.fan_in(derived, "shop.cart.total"), 0);

    std::vector<std::string> rows;
    for (const auto& row : derived.covering_tests) {
        rows.push_back(s.data.files[row.test_file_id - 1].path + " " + std::to_string(static_cast<int>(row.rank)) + " " +
                       std::to_string(row.used_symbols));
    }
    std::sort(rows.begin(), rows.end());
    // Named after cart.py: rank 0 whatever it uses. Then by distinct symbols used, most first;
    // a test that only imports the file uses nothing (the import names no symbol here).
    EXPECT_EQ(rows, (std::vector<std::string>{"tests/test_cart.py 0 1", "tests/test_checkout.py 1 3",
                                              "tests/test_imports.py 3 0", "tests/test_misc.py 2 1"}));
}

}  // namespace

// Enough references to be resolved in slices on several threads: the merged result must count
// every slice's fan-in and test uses, and list each edge once.
TEST(Resolution, LargeSnapshotsGiveTheSameCountsWhateverTheSlicing) {
    IndexSnapshot snapshot;
    constexpr int kModules = 200;
    constexpr int kCallsPerModule = 300;  // 60,000 references in all
    std::int64_t next_ref = 1;
    for (int m = 0; m < kModules; ++m) {
        const std::int64_t file_id = m + 1;
        const std::string module = "m" + std::to_string(m);
        snapshot.files.push_back({file_id, module + ".py", Language::python, false, true, module});
        snapshot.symbols.push_back({1000 + m, file_id, "f" + std::to_string(m), module + ".f" + std::to_string(m), "function"});
        // Every module calls the shared helper of module 0 through an import, and its own
        // function, many times.
        if (m != 0) snapshot.imports.push_back({file_id, "m0", std::string("f0"), std::nullopt});
        for (int c = 0; c < kCallsPerModule; ++c) {
            const std::string name = c % 2 == 0 ? "f0" : "f" + std::to_string(m);
            snapshot.references.push_back({next_ref++, file_id, name, "", "call"});
        }
    }
    // One test file uses the helper and two other modules' functions, from each end of the
    // reference list.
    const std::int64_t test_id = kModules + 1;
    snapshot.files.push_back({test_id, "test_m0.py", Language::python, true, true, "test_m0"});
    for (const char* module : {"m0", "m1", "m199"}) {
        snapshot.imports.push_back({test_id, module, std::string(module[1] == '0' ? "f0" : std::string("f") + (module + 1)),
                                    std::nullopt});
    }
    snapshot.references.insert(snapshot.references.begin(), {0, test_id, "f1", "", "call"});
    for (const char* name : {"f0", "f199", "f0"}) snapshot.references.push_back({next_ref++, test_id, name, "", "call"});

    const DerivedData derived = derive_index_data(snapshot);

    EXPECT_EQ(derived.edges.size(), snapshot.references.size());
    EXPECT_TRUE(std::is_sorted(derived.edges.begin(), derived.edges.end()));
    EXPECT_TRUE(std::adjacent_find(derived.edges.begin(), derived.edges.end()) == derived.edges.end());
    // Half of each other module's calls and all of module 0's go to f0; the test's do not count.
    EXPECT_EQ(derived.fan_in.at(1000), (kModules - 1) * kCallsPerModule / 2 + kCallsPerModule);
    EXPECT_EQ(derived.fan_in.at(1001), kCallsPerModule / 2);
    EXPECT_EQ(derived.fan_in.at(1199), kCallsPerModule / 2);
    std::map<std::int64_t, std::pair<double, std::int64_t>> tests;
    for (const auto& row : derived.covering_tests) {
        EXPECT_EQ(row.test_file_id, test_id);
        tests[row.source_file_id] = {row.rank, row.used_symbols};
    }
    EXPECT_EQ(tests, (std::map<std::int64_t, std::pair<double, std::int64_t>>{
                         {1, {0.0, 1}}, {2, {1.0, 1}}, {200, {1.0, 1}}}));
}
