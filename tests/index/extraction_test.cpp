// Extraction of symbols, references and imports: golden files over the sample repository, and
// inputs that must not break the parser (empty, invalid UTF-8, NUL bytes, syntax errors, huge
// lines, long docstrings, random bytes).
//
// KESTRIX_UPDATE_GOLDEN=1 rewrites tests/golden/symbols/ and tests/golden/snippets/ from the
// current output; review the diff.

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <random>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "orvane_kestrix/indexer/extraction.hpp"

namespace fs = std::filesystem;
using namespace orvane_kestrix::indexer;

namespace {

const fs::path kSampleRepo = fs::path(KESTRIX_TEST_DATA) / "sample_repo";
const fs::path kGoldenDir = fs::path(KESTRIX_TEST_DATA) / "golden" / "symbols";
const fs::path kSnippetGoldenDir = fs::path(KESTRIX_TEST_DATA) / "golden" / "snippets";

std::string read_file(const fs::path& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream out;
    out << in.rdbuf();
    return out.str();
}

std::string escape(const std::string& s) {
    std::string out;
    for (char c : s) {
        if (c == '\n') out += "\\n";
        else if (c == '\t') out += "\\t";
        else if (c == '\\') out += "\\\\";
        else out += c;
    }
    return out;
}

// One line per symbol, reference and import, tab-separated.
std::string render(const FileExtraction& x) {
    std::ostringstream out;
    out << "module\t" << x.module_name << "\n";
    out << "syntax_errors\t" << (x.has_syntax_errors ? "yes" : "no") << "\n";
    out << "# symbol\tkind\tfqn\tlines\texport\tparent\tsignature\tdocstring\n";
    for (const auto& s : x.symbols) {
        out << "symbol\t" << s.kind << "\t" << s.fqn << "\t" << s.start_line << "-" << s.end_line << "\t"
            << (s.is_export ? "export" : "-") << "\t" << (s.parent ? x.symbols.at(*s.parent).fqn : "-") << "\t"
            << escape(s.signature.value_or("-")) << "\t" << escape(s.docstring.value_or("-"))
            << (s.docstring_truncated ? "\t[truncated]" : "") << "\n";
        if (s.name != s.fqn.substr(s.fqn.size() - std::min(s.fqn.size(), s.name.size()))) {
            out << "  name\t" << s.name << "\n";  // only when the fqn does not end with it
        }
    }
    out << "# ref\tline\tusage\tqualifier\tname\tcaller\n";
    for (const auto& r : x.references) {
        out << "ref\t" << r.line << "\t" << r.usage_type << "\t" << (r.qualifier.empty() ? "-" : r.qualifier) << "\t"
            << r.name << "\t" << (r.caller ? x.symbols.at(*r.caller).fqn : "-") << "\n";
    }
    out << "# import\tline\tmodule\tnames\talias\n";
    for (const auto& i : x.imports) {
        std::string names;
        for (const auto& n : i.names) names += (names.empty() ? "" : ",") + n;
        out << "import\t" << i.line << "\t" << i.module << "\t" << (names.empty() ? "-" : names) << "\t"
            << i.alias.value_or("-") << "\n";
    }
    return out.str();
}

std::vector<fs::path> sample_files() {
    std::vector<fs::path> files;
    for (const auto& entry : fs::recursive_directory_iterator(kSampleRepo)) {
        if (entry.is_regular_file() && language_for_path(entry.path().generic_string())) {
            files.push_back(fs::relative(entry.path(), kSampleRepo));
        }
    }
    std::sort(files.begin(), files.end());
    return files;
}

bool is_valid_utf8(const std::string& s) {
    std::size_t i = 0;
    while (i < s.size()) {
        auto c = static_cast<unsigned char>(s[i]);
        std::size_t n = c < 0x80 ? 1 : (c >> 5) == 0x6 ? 2 : (c >> 4) == 0xE ? 3 : (c >> 3) == 0x1E ? 4 : 0;
        if (n == 0 || i + n > s.size()) return false;
        for (std::size_t k = 1; k < n; ++k) {
            if ((static_cast<unsigned char>(s[i + k]) & 0xC0) != 0x80) return false;
        }
        i += n;
    }
    return true;
}

// Every string the index would store is valid UTF-8 and every index points into its list.
void expect_well_formed(const FileExtraction& x) {
    EXPECT_TRUE(is_valid_utf8(x.module_name));
    for (const auto& s : x.symbols) {
        EXPECT_TRUE(is_valid_utf8(s.name) && is_valid_utf8(s.fqn)) << s.fqn;
        EXPECT_TRUE(is_valid_utf8(s.signature.value_or(""))) << s.fqn;
        EXPECT_TRUE(is_valid_utf8(s.docstring.value_or(""))) << s.fqn;
        EXPECT_LE(s.start_line, s.end_line) << s.fqn;
        EXPECT_GE(s.start_line, 1);
        if (s.parent) {
            EXPECT_LT(*s.parent, x.symbols.size());
        }
    }
    for (const auto& r : x.references) {
        EXPECT_TRUE(is_valid_utf8(r.name) && is_valid_utf8(r.qualifier) && is_valid_utf8(r.context)) << r.name;
        EXPECT_LE(r.context.size(), 1000u);
        if (r.caller) {
            EXPECT_LT(*r.caller, x.symbols.size());
        }
    }
    for (const auto& i : x.imports) EXPECT_TRUE(is_valid_utf8(i.module));
}

// The golden files of one directory, one per input (its path plus ".tsv"). With
// KESTRIX_UPDATE_GOLDEN set, check() rewrites them instead; at the end, a golden file that no
// input checked is reported as stale.
class GoldenFiles {
public:
    explicit GoldenFiles(fs::path dir) : dir_(std::move(dir)), update_(std::getenv("KESTRIX_UPDATE_GOLDEN") != nullptr) {}
    GoldenFiles(const GoldenFiles&) = delete;
    GoldenFiles& operator=(const GoldenFiles&) = delete;

    ~GoldenFiles() {
        if (!fs::is_directory(dir_)) return;
        for (const auto& entry : fs::recursive_directory_iterator(dir_)) {
            if (entry.is_regular_file()) {
                EXPECT_TRUE(checked_.count(entry.path())) << "stale golden file " << entry.path();
            }
        }
    }

    void check(const std::string& input_path, const std::string& actual) {
        const fs::path golden = dir_ / (input_path + ".tsv");
        checked_.insert(golden);
        if (update_) {
            fs::create_directories(golden.parent_path());
            std::ofstream(golden, std::ios::binary) << actual;
            return;
        }
        ASSERT_TRUE(fs::exists(golden)) << "missing golden file " << golden << " (run with KESTRIX_UPDATE_GOLDEN=1)";
        EXPECT_EQ(read_file(golden), actual) << "golden mismatch for " << input_path;
    }

private:
    fs::path dir_;
    bool update_;
    std::set<fs::path> checked_;
};

const ExtractedSymbol* find_symbol(const FileExtraction& x, const std::string& fqn) {
    for (const auto& s : x.symbols) {
        if (s.fqn == fqn) return &s;
    }
    return nullptr;
}

}  // namespace

// ---------------------------------------------------------------------------------------------

TEST(ExtractionGolden, SampleRepositoryMatchesGoldenFiles) {
    GoldenFiles goldens(kGoldenDir);
    Extractor extractor;
    auto files = sample_files();
    ASSERT_GE(files.size(), 25u);
    for (const auto& rel : files) {
        std::string path = rel.generic_string();
        FileExtraction x = extractor.extract(*language_for_path(path), path, read_file(kSampleRepo / rel));
        expect_well_formed(x);
        goldens.check(path, render(x));
    }
}

TEST(ExtractionGolden, ExtractorsOnTwoThreadsAgree) {
    auto files = sample_files();
    std::vector<std::string> contents;
    for (const auto& rel : files) contents.push_back(read_file(kSampleRepo / rel));
    auto run = [&](std::vector<std::string>& out) {
        Extractor extractor;
        for (std::size_t i = 0; i < files.size(); ++i) {
            std::string path = files[i].generic_string();
            out.push_back(render(extractor.extract(*language_for_path(path), path, contents[i])));
        }
    };
    std::vector<std::string> a, b;
    std::thread t1(run, std::ref(a));
    std::thread t2(run, std::ref(b));
    t1.join();
    t2.join();
    EXPECT_EQ(a, b);
}

// Snippets aimed at the edges of each language's walker, broken code included, against their
// golden files in tests/golden/snippets/ (named by the snippet's path).
TEST(ExtractionGolden, EdgeCaseSnippetsMatchGoldenFiles) {
    struct Input {
        std::string path;
        std::string source;
    };
    std::vector<Input> inputs = {
        {"decorators.py", "@a\n@b.c\n@d(1)\n@e.f(2)\n@g[0]\ndef h(): pass\n"},
        {"bases.py", "class A(B, c.D, e.f.G, metaclass=M, *rest, **kw): pass\nclass E(F()): pass\nclass G: pass\n"},
        {"fields.py", "class A:\n    x = 1\n    y: int = 2\n    a, b = 1, 2\n    p = q = 3\n    class B:\n        z = 4\n"
                      "    def m(self):\n        local = 5\n"},
        {"instance.py", "class A:\n    def __init__(self, v):\n        self.v = v\n        other.w = 1\n"
                        "        self.x.y = 2\n        self.v = 3\n        self.t: int = 4\n        if v:\n"
                        "            self.hidden = 5\n    def reset(self):\n        self.q = 0\n"
                        "class B:\n    def __init__(me: 'B'):\n        me.v = 1\n"
                        "class C:\n    def __init__(this, /):\n        this.w = 2\n"
                        "class D:\n    def __init__(  # why\n            self):\n        self.u = 1\n"
                        "def __init__(s):\n    s.free = 1\n"},
        {"types.py", "def f(a: int, b: x.Y, c: List[int], d: dict[str, m.T], e: 'S' = None) -> Optional[q.R]: pass\n"
                     "v: Final[int] = 1\nw: a.b.C\n"},
        {"module.py", "X = 1\ny = z = 2\n(a) = 3\nb += 4\nif c:\n    w = 1\nfor i in r: pass\n"
                      "__all__ = ['X']\n"},
        {"calls.py", "f()\na.b()\na.b.c(d(e))\n(g)()\nh[0]()\nx = lambda: k()\nprint(*args, **kw)\n"},
        {"imports.py", "import a, b.c as d\nfrom .e import f, g as h\nfrom i import *\n# a comment\n"
                       "def j():\n    import k\n    # inner\n    return k.l()\n"},
        {"broken.py", "def f(:\n    call(\nclass (x.y):\n  self.z =\n@\ndef g(a: ) -> : pass\nclass H(I,:\n"},
        {"nested.py", "def outer():\n    def inner():\n        class Local(Base):\n            attr = 1\n"
                      "            def __init__(self):\n                self.x = helper()\n        return Local\n"
                      "    return inner\n"},
    };
    // JavaScript, shared by the three grammars.
    const std::string script =
        "// comment\nfunction f() {}\nfunction* g() {}\nclass A extends B { constructor() { super(); } m() {}\n"
        "  get p() { return 1; } static s = 1; #q = 2; }\nclass C extends ns.D {}\n"
        "const h = () => 1, k = function () {}, l = function* () {}, M = class {};\nlet v = 1, w;\nvar x = 2;\n"
        "export const E = 1;\nexport let F = 2;\nexport var G = 3;\nexport default H;\nexport { a, b as c };\n"
        "export { d } from './d';\nexport * from './e';\nif (y) { const inner = 1; }\n"
        "exports.run = function () {};\nmodule.exports.stop = () => {};\nmodule.exports = { a, b: c, d: 1, e() {} };\n"
        "module.exports = single;\nconst fs = require('fs');\nrequire(name);\nimport('./lazy');\n"
        "import z, { y as yy } from './z';\nimport * as all from './all';\nf(); a.b.c(); new A(); new ns.D(1);\n"
        "(function () { return q(); })();\nfoo`tpl`;\nconst { o, p } = obj;\n";
    const std::string typescript =
        "interface I extends J, ns.K { m(): void; p: string; [key: string]: unknown; }\n"
        "type T = { m(a: number): T; p?: U<V>; };\ntype W = X | Y.Z;\nenum Color { Red }\n"
        "abstract class Base<Q extends R> implements S, T2 { abstract run(): void; public field: number = 1;\n"
        "  private secret = 2; constructor(private readonly dep: Dep) { super(); } }\n"
        "declare function decl(a: A1): B1;\nmodule Legacy { export const x = 1; }\ndeclare module 'ext' { }\n"
        "namespace Space.Inner { function f<T>(t: T): T { return t; } }\nclass D2 extends Base<number> {}\n"
        "class D3 extends mixin(A, B) {}\nconst typed: Map<string, Array<ns.Item>> = new Map();\n"
        "function g<K extends keyof O, O>(o: O, k: K): O[K] { return o[k]; }\nlet broken: = ;\nclass { }\n";
    const std::string jsx = "const el = <Panel.Header title=\"x\"><Item /><div>{f()}</div></Panel.Header>;\n"
                            "function View() { return <><Row.Cell /></>; }\n";
    inputs.push_back({"script.js", script});
    inputs.push_back({"script.ts", script});
    inputs.push_back({"script.tsx", script});
    inputs.push_back({"types.ts", typescript});
    inputs.push_back({"types.tsx", typescript});
    inputs.push_back({"view.jsx", jsx});
    inputs.push_back({"view.tsx", jsx});
    inputs.push_back({"broken.js", "function (a { class extends { } const = ; module.exports = {;\n"});
    // C, shared by the C and C++ grammars.
    const std::string c =
        "#include <stdio.h>\n#include \"local.h\"\n#define LIMIT 10\n#define EMPTY\n#define MAX(a, b) ((a) > (b) ? (a) : (b))\n"
        "/* doc */\nstatic int counter = 0, other;\nextern void run(struct task *t);\n"
        "struct task { int id; struct task *next; union { int i; float f; } u; };\nstruct forward;\n"
        "union value { int i; };\nenum color { RED, GREEN };\ntypedef struct task task_t;\n"
        "typedef int (*handler)(void *);\n#ifdef FEATURE\nint feature(void);\n#elif defined(OTHER)\nint other_fn(void);\n"
        "#else\nint fallback(void);\n#endif\n#if X\nlong x;\n#endif\n"
        "int main(int argc, char **argv) { task_t t; run(&t); t.next->id = helper(argc); ops->close(fd);\n"
        "  size_t n = sizeof(struct task); return MAX(1, 2); }\nint broken( { ;\n";
    const std::string cpp =
        "namespace app { namespace { int hidden; } class Widget : public Base, protected ns::Mixin, Tpl<int> {\n"
        "  public: Widget(); virtual ~Widget(); void draw() const; int size = 0; static constexpr int kMax = 1;\n"
        "  template <typename T> T get(); friend class Other; };\n"
        "template <typename T> struct Box { T value; };\ntemplate <typename T> T make(T t);\nusing Id = long;\n"
        "extern \"C\" int c_api(void);\nextern \"C\" { int c_api2(void); }\n"
        "void Widget::draw() const { Foo bar(Baz); auto w = new Widget(); auto q = new ns::Thing(1);\n"
        "  std::vector<int> v; v.push_back(1); obj.template get<int>(); make<int>(1); ns::helper(); Box<Widget> b;\n"
        "  std::map<std::string, ns::Item>::iterator it; }\n}\nclass Forward;\nclass { int x; } anon;\n";
    inputs.push_back({"code.c", c});
    inputs.push_back({"code.cpp", c});
    inputs.push_back({"code.h", c});
    inputs.push_back({"more.cpp", cpp});
    inputs.push_back({"more.hpp", cpp});
    inputs.push_back({"main.go",
                      "package main\n\nimport (\n\t\"fmt\"\n\tstr \"strings\"\n)\n\n// Limit doc.\nconst Limit, other = 10, 2\n"
                      "const (\n\tA = iota\n\tB\n)\nvar x, y int\nvar (\n\tz = 1\n\tw string\n)\n"
                      "type Shape interface {\n\tArea() float64\n\tfmt.Stringer\n\tNamed\n}\n"
                      "type Point struct {\n\tX, Y int\n\tName\n\t*Base\n\tio.Reader\n\t*sync.Mutex\n\tlabel string `json:\"l\"`\n}\n"
                      "type ID = int64\ntype Celsius float64\ntype Pair[T any] struct{ a, b T }\n"
                      "func (p *Point) Move(dx int) { p.X += dx; fmt.Println(str.ToUpper(\"x\")); helper() }\n"
                      "func New[T any](v T) *Pair[T] { var local = 1; _ = local; return &Pair[T]{v, v} }\n"
                      "func broken( {\n"});
    inputs.push_back({"src/main/java/com/acme/App.java",
                      "package com.acme;\n\nimport java.util.List;\nimport static java.lang.Math.*;\n\n"
                      "/** Doc. */\n@Deprecated\npublic class App extends Base<String> implements Runnable, java.io.Closeable {\n"
                      "  public static final int LIMIT = 1, OTHER = 2;\n  private List<String> names;\n"
                      "  @Override public void run() { helper(); this.names.add(\"x\"); super.run(); new App(); new java.util.ArrayList<>();\n"
                      "    new Outer.Inner(); List<Item> items = new ArrayList<Item>(); }\n"
                      "  interface Callback extends Listener, Comparable<Callback> { int LIMIT = 3; void call(); }\n"
                      "  enum Mode { ON, OFF }\n  record Pair(int a, int b) {}\n  @interface Marker { String value(); }\n"
                      "  @SuppressWarnings(\"x\") void m() {}\n  void broken( {\n}\n"});
    inputs.push_back({"src/lib.rs",
                      "use std::collections::HashMap;\nuse crate::{a::B, c as d};\n/// Doc.\npub mod inner { pub fn f() {} }\n"
                      "mod tests;\npub const LIMIT: u32 = 1;\nstatic mut COUNT: i32 = 0;\n"
                      "pub struct Point<T> { pub x: T, y: T }\nunion Bits { i: u32, f: f32 }\nenum Shape { Circle(f64), Unit }\n"
                      "pub trait Draw: Clone + fmt::Debug + Send { fn draw(&self); fn size(&self) -> usize { 0 } }\n"
                      "type Map = HashMap<String, Vec<u8>>;\nextern \"C\" { fn c_api(x: i32) -> i32; }\n"
                      "impl<T: Clone> Point<T> { pub fn new(x: T) -> Self { Self { x: x.clone(), y: x } } }\n"
                      "impl Draw for Point<f64> { fn draw(&self) { helper(); self.x.abs(); std::mem::swap(a, b);\n"
                      "  Vec::<u8>::new(); iter.collect::<Vec<_>>(); parse::<i32>(s); println!(\"{}\", fmt(x));\n"
                      "  assert_eq!(v.len(), inner::count!(1)); log::info!(\"x\"); } }\n"
                      "impl fmt::Display for Shape { fn fmt(&self, f: &mut fmt::Formatter) -> fmt::Result { Ok(()) } }\n"
                      "impl Iterator<Item = u8> for Bits {}\nfn broken( {\n"});
    inputs.push_back({"edges.rb",
                      "require 'set'\nrequire \"lib/#{name}\"\nrequire_relative 'sibling'\nrequire_relative '../up/there'\n"
                      "# Top-level helper.\ndef helper(a, *rest, key: 1, &blk) = a\n"
                      "module Outer\n  VERSION = '1.0'\n  Outer::LATE = 2\n  class Inner::Deep < Base::Model\n"
                      "    include Comparable, Mixins::Tagged\n    extend Forwardable\n    attr_reader :size\n"
                      "    def name=(value); @name = value; end\n    def ==(other) = other.size == size\n"
                      "    def self.build(*args) new(*args).tap { |x| x.setup! } end\n"
                      "    class << self\n      def registry; @registry ||= {}; end\n    end\n"
                      "    protected\n    def compare(o) helper(o) end\n    public\n    def visible; outer_call; end\n"
                      "    private def hidden; end\n    private\n    def secret\n      def nested; end\n"
                      "      Outer::Inner.build.run\n    end\n  end\nend\n"
                      "class Broken < \n  def incomplete(\nend\n"});
    GoldenFiles goldens(kSnippetGoldenDir);
    Extractor extractor;
    for (const auto& input : inputs) {
        const FileExtraction x = extractor.extract(*language_for_path(input.path), input.path, input.source);
        expect_well_formed(x);
        goldens.check(input.path, render(x));
    }
}

// ---------------------------------------------------------------------------------------------

TEST(Languages, ByExtension) {
    struct Case {
        const char* path;
        std::optional<Language> language;
    };
    const Case cases[] = {
        {"a/b.py", Language::python},        {"x.mjs", Language::javascript}, {"x.cjs", Language::javascript},
        {"x.jsx", Language::javascript},     {"x.mts", Language::typescript}, {"x.cts", Language::typescript},
        {"x.ts", Language::typescript},      {"x.tsx", Language::tsx},         {"x.go", Language::go},
        {"x.rs", Language::rust},            {"X.java", Language::java},       {"x.c", Language::c},
        {"x.h", Language::cpp},              {"x.hh", Language::cpp},          {"x.hxx", Language::cpp},
        {"x.cc", Language::cpp},             {"x.cxx", Language::cpp},         {"README.md", Language::markdown},
        {"notes.markdown", Language::markdown}, {"a.json", Language::json},    {"a.yml", Language::yaml},
        {"a.yaml", Language::yaml},          {"Cargo.toml", Language::toml},  {"SRC/MAIN.PY", Language::python},
        {"lib/cart.rb", Language::ruby},
        {"Makefile", std::nullopt},          {".bashrc", std::nullopt},        {"dir.py/file", std::nullopt},
        {"a.txt", std::nullopt},             {"archive.tar.gz", std::nullopt}, {"trailing.", std::nullopt},
    };
    for (const auto& c : cases) EXPECT_EQ(language_for_path(c.path), c.language) << c.path;
    EXPECT_TRUE(is_source_language(Language::rust));
    EXPECT_FALSE(is_source_language(Language::markdown));
    EXPECT_FALSE(is_source_language(Language::toml));
    EXPECT_EQ(language_name(Language::tsx), "tsx");
    EXPECT_EQ(language_name(Language::cpp), "cpp");
}

TEST(Languages, ModuleNames) {
    struct Case {
        Language language;
        const char* path;
        const char* content;
        const char* module;
    };
    const Case cases[] = {
        {Language::python, "pkg/mod.py", "", "pkg.mod"},
        {Language::python, "pkg/sub/__init__.py", "", "pkg.sub"},
        {Language::python, "proj/src/pkg/mod.py", "", "pkg.mod"},
        {Language::python, "setup.py", "", "setup"},
        {Language::typescript, "web/src/types.d.ts", "", "web.src.types"},
        {Language::javascript, "index.js", "", "index"},
        {Language::go, "cmd/tool/main.go", "package main\n", "main"},
        {Language::go, "lib/util/x.go", "// no package clause\n", "util"},
        {Language::rust, "crates/a/src/lib.rs", "", ""},
        {Language::rust, "crates/a/src/net/mod.rs", "", "net"},
        {Language::rust, "crates/a/src/net/tcp.rs", "", "net.tcp"},
        {Language::rust, "crates/a/tests/it.rs", "", "it"},
        {Language::java, "src/A.java", "package org.demo.x;\nclass A {}\n", "org.demo.x"},
        {Language::java, "A.java", "class A {}\n", ""},
        {Language::cpp, "src/a.cpp", "", ""},
        {Language::markdown, "docs/guide.md", "# Guide\n", "docs.guide"},
    };
    Extractor extractor;
    for (const auto& c : cases) {
        EXPECT_EQ(extractor.extract(c.language, c.path, c.content).module_name, c.module) << c.path;
    }
}

// ---------------------------------------------------------------------------------------------
// Language rules the sample repository does not exercise: each case lists every symbol as
// "kind fqn" with " export" when exported, in source order.

TEST(ExtractionRules, SymbolsPerLanguage) {
    struct Case {
        const char* label;
        Language language;
        const char* path;
        const char* source;
        std::vector<std::string> symbols;
    };
    const std::vector<Case> cases = {
        {"python: no __all__, underscores, properties, nested functions, repeated attributes",
         Language::python, "pkg/m.py",
         "class A:\n"
         "    def __init__(self):\n"
         "        self.x = 1\n"
         "        self.x = 2\n"
         "        self._y = 3\n"
         "    @property\n"
         "    def size(self):\n"
         "        return 1\n"
         "class _Hidden:\n"
         "    def run(self):\n"
         "        def helper():\n"
         "            pass\n"
         "lower = 1\n",
         {"class pkg.m.A export", "method pkg.m.A.__init__", "field pkg.m.A.x export", "field pkg.m.A._y",
          "property pkg.m.A.size export", "class pkg.m._Hidden", "method pkg.m._Hidden.run",
          "function pkg.m._Hidden.run.helper", "variable pkg.m.lower export"}},
        {"javascript: class expressions, CommonJS exports, accessors, private members, export clauses",
         Language::javascript, "lib/x.js",
         "const Box = class {\n"
         "  get size() { return 1; }\n"
         "  #secret() {}\n"
         "};\n"
         "exports.make = function () {};\n"
         "function helper() {}\n"
         "let counter = 0;\n"
         "export { helper as publicHelper, Box };\n",
         {"class lib.x.Box export", "property lib.x.Box.size export", "method lib.x.Box.#secret",
          "function lib.x.make export", "function lib.x.helper export", "variable lib.x.counter"}},
        {"typescript: namespaces, ambient modules, abstract classes, type members", Language::typescript,
         "src/t.ts",
         "export namespace Geo {\n"
         "  export function area(): number { return 0; }\n"
         "  function hidden() {}\n"
         "}\n"
         "declare module \"ext\" {\n"
         "  export function f(): void;\n"
         "}\n"
         "export abstract class Shape {\n"
         "  abstract area(): number;\n"
         "  protected name = \"\";\n"
         "}\n"
         "type Opts = { verbose: boolean; run(): void };\n",
         {"namespace src.t.Geo export", "function src.t.Geo.area export", "function src.t.Geo.hidden",
          "module src.t.ext", "function src.t.ext.f", "class src.t.Shape export", "method src.t.Shape.area export",
          "field src.t.Shape.name", "type src.t.Opts", "property src.t.Opts.verbose", "method src.t.Opts.run"}},
        {"go: grouped declarations, several names in one spec, generic receivers, embedded fields", Language::go,
         "pkg/q/q.go",
         "package q\n"
         "const (\n"
         "\tA = 1\n"
         "\tb = 2\n"
         ")\n"
         "const C, d = 3, 4\n"
         "type List[T any] struct {\n"
         "\tBase\n"
         "\titems []T\n"
         "}\n"
         "func (l *List[T]) Len() int { return 0 }\n"
         "func helper() {}\n",
         {"constant q.A export", "constant q.b", "constant q.C export", "constant q.d", "struct q.List export",
          "field q.List.items",
          "method q.List.Len export", "function q.helper"}},
        {"rust: generic impls, trait defaults, restricted visibility, nested functions", Language::rust,
         "src/shapes.rs",
         "pub struct Grid<T> { cells: Vec<T> }\n"
         "impl<T> Grid<T> {\n"
         "    pub fn new() -> Self { fn inner() {} Grid { cells: Vec::new() } }\n"
         "    pub(crate) fn len(&self) -> usize { 0 }\n"
         "}\n"
         "pub trait Shape { fn area(&self) -> f64 { 0.0 } }\n"
         "static mut COUNT: u32 = 0;\n",
         {"struct shapes.Grid export", "field shapes.Grid.cells", "method shapes.Grid.new export",
          "function shapes.Grid.new.inner", "method shapes.Grid.len", "trait shapes.Shape export",
          "method shapes.Shape.area export", "variable shapes.COUNT"}},
        {"java: nested types, interface members, constants, anonymous classes", Language::java, "A.java",
         "package p;\n"
         "public class A {\n"
         "  public static final int MAX = 3;\n"
         "  int count;\n"
         "  public interface Listener { void on(); int LIMIT = 2; }\n"
         "  private enum Mode { ON; public void flip() {} }\n"
         "  public Runnable r() { return new Runnable() { public void run() {} }; }\n"
         "}\n",
         {"class p.A export", "constant p.A.MAX export", "field p.A.count", "interface p.A.Listener export",
          "method p.A.Listener.on export", "constant p.A.Listener.LIMIT export", "enum p.A.Mode",
          "method p.A.Mode.flip", "method p.A.r export", "method p.A.r.run"}},
        {"c: static functions, function pointers, anonymous typedef structs, locals", Language::c, "src/a.c",
         "static int counter;\n"
         "int (*handler)(int);\n"
         "const int LIMIT = 4;\n"
         "typedef struct { int x; int y; } point_t;\n"
         "typedef int (*cmp_fn)(const void *, const void *);\n"
         "static void tick(void) { int local = 0; int later(void); (void)local; }\n"
         "int *make(void) { return 0; }\n"
         "#define SQUARE(x) ((x) * (x))\n",
         {"variable counter", "variable handler export", "constant LIMIT export", "struct point_t export",
          "field point_t.x export", "field point_t.y export", "type cmp_fn export", "function tick",
          "function make export", "function SQUARE"}},
        {"c++: templates, access sections, destructors, operators, anonymous namespaces", Language::cpp,
         "src/w.cpp",
         "namespace app {\n"
         "template <typename T> class Box {\n"
         "  T value_;\n"
         "public:\n"
         "  ~Box();\n"
         "  bool operator==(const Box& o) const;\n"
         "protected:\n"
         "  void hook();\n"
         "};\n"
         "template <typename T> Box<T>::~Box() {}\n"
         "namespace { void hidden() {} }\n"
         "struct Plain { int a; };\n"
         "}\n"
         "static void local_fn() {}\n",
         {"namespace app export", "class app.Box export", "field app.Box.value_", "method app.Box.~Box export",
          "method app.Box.operator== export", "method app.Box.hook", "method app.Box.~Box export",
          "function app.hidden", "struct app.Plain export", "field app.Plain.a export", "function local_fn"}},
        {"c++ header: everything declared is exported", Language::cpp, "include/h.hpp",
         "static inline int twice(int x) { return 2 * x; }\nclass C { void priv(); public: void pub(); };\n",
         {"function twice export", "class C export", "method C.priv", "method C.pub export"}},
    };
    Extractor extractor;
    for (const auto& c : cases) {
        FileExtraction x = extractor.extract(c.language, c.path, c.source);
        std::vector<std::string> actual;
        for (const auto& sym : x.symbols) actual.push_back(sym.kind + " " + sym.fqn + (sym.is_export ? " export" : ""));
        EXPECT_EQ(actual, c.symbols) << c.label;
        EXPECT_FALSE(x.has_syntax_errors) << c.label;
    }
}

// Uses that need more than a pattern: each case lists every reference as "usage qualifier name"
// ("-" for no qualifier), in source order.
TEST(ExtractionRules, ReferencesPerLanguage) {
    struct Case {
        const char* label;
        Language language;
        const char* source;
        std::vector<std::string> references;
    };
    const std::vector<Case> cases = {
        {"typescript: type parameters are declarations, base classes inherit", Language::typescript,
         "class Box<T> extends Base implements Shape { get(): T { return this.v; } }\n",
         {"inherit - Base", "inherit - Shape", "type - T"}},
        {"tsx: lower-case tags are HTML", Language::tsx, "const v = <div><Row.Cell /><Item /></div>;\n",
         {"call Row Cell", "call - Item"}},
        {"javascript: require and dynamic import are imports", Language::javascript,
         "const fs = require('fs');\nasync function f() { await import('./lazy.js'); fs.readFileSync(); }\n",
         {"import fs fs", "import ./lazy.js lazy", "call fs readFileSync"}},
        {"python: decorators are calls, keyword bases are not bases", Language::python,
         "@app.route('/')\n@cache\nclass A(Base, metaclass=Meta):\n    x: Optional[int] = None\n",
         {"call app route", "call - cache", "inherit - Base", "type - Optional", "type - int"}},
        {"go: embedded types inherit, qualified types keep their package", Language::go,
         "package p\ntype S struct {\n\tio.Reader\n\tBase\n\tn pkg.Count\n}\n",
         {"inherit io Reader", "inherit - Base", "type pkg Count"}},
        {"java: annotations and generic bases", Language::java,
         "class A extends B<C> implements D { @Override public void run() { new E().go(); } }\n",
         {"inherit - B", "type - C", "inherit - D", "type - Override", "call - E", "call new E() go"}},
        {"rust: calls in macro arguments, paths, Self", Language::rust,
         "impl Shape for Grid { fn new() -> Self { assert!(self::check(a.b().c(), Vec::new())); Self {} } }\n",
         {"inherit - Shape", "type - Grid", "call - assert", "call self check", "call a b", "call a.b() c",
          "call Vec new"}},
        {"c++: constructor arguments are not types; qualified calls keep their scope", Language::cpp,
         "void f() { Widget w(size, color); std::chrono::steady_clock::now(); obj->run(); }\n",
         {"type - Widget", "call std::chrono::steady_clock now", "call obj run"}},
        {"c: quoted and angle includes", Language::c, "#include \"sub/x.h\"\n#include <stdio.h>\n",
         {"import sub x.h", "import - stdio.h"}},
    };
    Extractor extractor;
    for (const auto& c : cases) {
        FileExtraction x = extractor.extract(c.language, "m.x", c.source);
        std::vector<std::string> actual;
        for (const auto& r : x.references) {
            actual.push_back(r.usage_type + " " + (r.qualifier.empty() ? "-" : r.qualifier) + " " + r.name);
        }
        EXPECT_EQ(actual, c.references) << c.label;
    }
}

// ---------------------------------------------------------------------------------------------
// Inputs that must not break extraction.

TEST(ExtractionRobustness, EmptyFilesOfEveryLanguage) {
    Extractor extractor;
    for (Language language : {Language::python, Language::javascript, Language::typescript, Language::tsx,
                              Language::go, Language::rust, Language::java, Language::c, Language::cpp,
                              Language::ruby, Language::markdown, Language::json, Language::yaml, Language::toml}) {
        FileExtraction x = extractor.extract(language, "empty", "");
        EXPECT_TRUE(x.symbols.empty()) << language_name(language);
        EXPECT_TRUE(x.references.empty()) << language_name(language);
        EXPECT_FALSE(x.has_syntax_errors) << language_name(language);
    }
}

TEST(ExtractionRobustness, HostileInputs) {
    std::string huge_line = "const data = [";
    while (huge_line.size() < (1u << 20)) huge_line += "compute(1), ";
    huge_line += "0]; function after() { return 1; }\n";

    struct Case {
        const char* label;
        Language language;
        std::string content;
        std::vector<std::string> expected_fqns;  // must all be there
        bool syntax_errors;
    };
    const std::vector<Case> cases = {
        {"invalid UTF-8 in a docstring and a name", Language::python,
         "def f():\n    \"\"\"caf\xe9 \xff\xfe\"\"\"\n\nclass C\xc3:\n    pass\n\ndef g():\n    pass\n", {"m.f", "m.g"},
         true},
        {"NUL bytes", Language::python, "def a():\n    pass\n" + std::string(3, '\0') + "\ndef b():\n    pass\n",
         {"m.a", "m.b"}, false},
        {"syntax errors around valid code", Language::python, "def broken(:\n    pass\n\ndef ok():\n    return 1\n",
         {"m.ok"}, true},
        {"unterminated block comment", Language::c, "int ok(void) { return 0; }\n/* never closed\nint x;\n", {"ok"},
         true},
        {"unbalanced braces", Language::java, "package p;\nclass A {\n  void m() {\n}\n", {}, true},
        {"a 1 MB line", Language::javascript, huge_line, {"m.data", "m.after"}, false},
        {"lone CR line ends", Language::go, "package p\r\rfunc A() {}\r", {"p.A"}, false},
        {"a BOM", Language::python, "\xef\xbb\xbf" "def f():\n    pass\n", {"m.f"}, false},
        {"only a BOM", Language::rust, "\xef\xbb\xbf", {}, false},
        {"deep nesting", Language::javascript, std::string(20000, '[') + std::string(20000, ']'), {}, false},
        {"deep nesting", Language::cpp, "int f() { return " + std::string(5000, '(') + "1" + std::string(5000, ')') + "; }\n",
         {"f"}, false},
    };
    Extractor extractor;
    for (const auto& c : cases) {
        SCOPED_TRACE(c.label);
        FileExtraction x = extractor.extract(c.language, c.language == Language::go ? "p/x.go" : "m.x", c.content);
        expect_well_formed(x);
        EXPECT_EQ(x.has_syntax_errors, c.syntax_errors);
        for (const auto& fqn : c.expected_fqns) EXPECT_NE(find_symbol(x, fqn), nullptr) << fqn;
    }
}

TEST(ExtractionRobustness, HugeLineKeepsReferencesButCutsTheirContext) {
    std::string line = "x = [";
    for (int i = 0; i < 60000; ++i) line += "f(" + std::to_string(i) + "), ";
    line += "g()]\n";
    Extractor extractor;
    FileExtraction x = extractor.extract(Language::python, "m.py", line);
    ASSERT_EQ(x.references.size(), 60001u);
    EXPECT_EQ(x.references.back().name, "g");
    EXPECT_LE(x.references.back().context.size(), 500u);
    EXPECT_NE(x.references.back().context.find("g()]"), std::string::npos);
    ASSERT_EQ(x.symbols.size(), 1u);
    EXPECT_LE(x.symbols[0].signature->size(), 310u);
}

TEST(ExtractionRobustness, LineNumbersFollowUniversalNewlines) {
    Extractor extractor;
    FileExtraction x = extractor.extract(Language::python, "m.py", "a = 1\r\nb = 2\rdef f():\r\n    g()\r\n");
    ASSERT_NE(find_symbol(x, "m.f"), nullptr);
    EXPECT_EQ(find_symbol(x, "m.f")->start_line, 3);
    ASSERT_EQ(x.references.size(), 1u);
    EXPECT_EQ(x.references[0].line, 4);
    EXPECT_EQ(x.references[0].context, "g()");
}

TEST(ExtractionRobustness, DocstringsAreCutOnACharacterBoundary) {
    struct Case {
        Language language;
        std::string source;
    };
    const std::string body = "\xc3\xa9t\xc3\xa9 \xe2\x82\xac\xe2\x82\xac\xe2\x82\xac long text";  // "été €€€ long text"
    const Case cases[] = {
        {Language::python, "def f():\n    \"\"\"" + body + "\"\"\"\n"},
        {Language::go, "package m\n// " + body + "\nfunc f() {}\n"},
        {Language::rust, "/// " + body + "\nfn f() {}\n"},
        {Language::java, "class m {\n  /** " + body + " */\n  void f() {}\n}\n"},
    };
    for (std::size_t limit : {1u, 2u, 3u, 8u, 9u, 10u, 100u}) {
        Extractor extractor({.docstring_limit = limit});
        for (const auto& c : cases) {
            FileExtraction x = extractor.extract(c.language, "m.x", c.source);
            const ExtractedSymbol* f = nullptr;
            for (const auto& s : x.symbols) {
                if (s.name == "f") f = &s;
            }
            ASSERT_NE(f, nullptr) << language_name(c.language);
            ASSERT_TRUE(f->docstring.has_value()) << language_name(c.language) << " limit " << limit;
            EXPECT_LE(f->docstring->size(), limit);
            EXPECT_TRUE(is_valid_utf8(*f->docstring));
            EXPECT_EQ(f->docstring_truncated, body.size() > limit) << language_name(c.language) << " limit " << limit;
            EXPECT_EQ(body.substr(0, f->docstring->size()), *f->docstring);
        }
    }
}

TEST(ExtractionRobustness, RandomBytesInEveryGrammar) {
    std::mt19937 rng(12345);
    const char symbols[] = "(){}[]<>;:,.=+-*/\\\"'`#@!?&|^%$~ \t\n\r\0abcXYZ_019\xc3\xa9\xff";
    const std::string alphabet(symbols, sizeof symbols - 1);
    Extractor extractor;
    for (Language language : {Language::python, Language::javascript, Language::typescript, Language::tsx,
                              Language::go, Language::rust, Language::java, Language::c, Language::cpp,
                              Language::ruby, Language::markdown}) {
        for (int round = 0; round < 20; ++round) {
            std::string content;
            std::size_t size = 1 + rng() % 4000;
            for (std::size_t i = 0; i < size; ++i) content.push_back(alphabet[rng() % alphabet.size()]);
            FileExtraction x = extractor.extract(language, "r/x.src", content);
            expect_well_formed(x);
        }
    }
}

// A stop request ends an extraction inside the file, in the parser and in the walk alike, and
// marks the result incomplete; a run that is not stopped extracts everything.
TEST(ExtractionStop, AStopRequestLeavesTheExtractionMarkedIncomplete) {
    std::string source;
    for (int i = 0; i < 2000; ++i) source += "function f" + std::to_string(i) + "(a) { return f(a - 1); }\n";
    std::atomic<bool> stop{true};
    Extractor stopped({.docstring_limit = 4000, .cancel = &stop});
    const FileExtraction cut = stopped.extract(Language::javascript, "big.js", source);
    EXPECT_TRUE(cut.cancelled);
    EXPECT_LT(cut.symbols.size(), 2000u);

    stop = false;
    const FileExtraction whole = stopped.extract(Language::javascript, "big.js", source);
    EXPECT_FALSE(whole.cancelled);
    EXPECT_EQ(whole.symbols.size(), 2000u);
}
