// The task's explicit mentions: stack-trace frames of every indexed language, file paths and
// qualified names, parsed from real-looking pasted output.

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "orvane_kestrix/retrieval/task_mentions.hpp"

namespace orvane_kestrix::retrieval {
void PrintTo(const TraceFrame& f, std::ostream* os) {
    *os << "[" << f.file << ":" << (f.line ? std::to_string(*f.line) : "-") << " " << f.qualifier << "." << f.function << "]";
}
}  // namespace orvane_kestrix::retrieval

namespace {

using orvane_kestrix::retrieval::parse_task_mentions;
using orvane_kestrix::retrieval::TraceFrame;

TraceFrame frame(std::string file, std::optional<std::int64_t> line, std::string function, std::string qualifier = "") {
    return TraceFrame{std::move(file), line, std::move(function), std::move(qualifier)};
}

struct TraceCase {
    const char* language;
    const char* text;
    std::vector<TraceFrame> frames;
};

TEST(TaskMentions, FramesOfEveryLanguage) {
    const std::vector<TraceCase> cases = {
        {"python",
         "Traceback (most recent call last):\n"
         "  File \"/home/dev/venv/lib/python3.11/site-packages/flask/app.py\", line 1498, in __call__\n"
         "    return self.wsgi_app(environ, start_response)\n"
         "  File \"src/shop/cart.py\", line 55, in add\n"
         "    raise CartError(\"cart is full\")\n"
         "shop.cart.CartError: cart is full\n",
         {frame("/home/dev/venv/lib/python3.11/site-packages/flask/app.py", 1498, "__call__"),
          frame("src/shop/cart.py", 55, "add")}},
        {"python module frame",
         "  File \"<stdin>\", line 1, in <module>\n  File \"tools/run.py\", line 3, in <module>\n",
         {frame("<stdin>", 1, ""), frame("tools/run.py", 3, "")}},
        {"javascript",
         "TypeError: Cannot read properties of undefined (reading 'price')\n"
         "    at formatPrice (/srv/app/web/src/format.js:12:18)\n"
         "    at async Cart.render (webpack:///./src/view.tsx:40:7)\n"
         "    at Object.<anonymous> (src/index.ts:3:1)\n"
         "    at node:internal/main/run_main_module:23:47\n"
         "    at /srv/app/web/src/math.js:7:3\n",
         {frame("/srv/app/web/src/format.js", 12, "formatPrice"), frame("./src/view.tsx", 40, "render", "Cart"),
          frame("src/index.ts", 3, ""), frame("/srv/app/web/src/math.js", 7, "")}},
        {"java",
         "Exception in thread \"main\" java.lang.IllegalStateException: empty\n"
         "\tat com.example.Inventory.remove(Inventory.java:42)\n"
         "\tat com.example.Inventory$Loader.<init>(Inventory.java:88)\n"
         "\tat java.base/jdk.internal.reflect.NativeMethodAccessorImpl.invoke0(Native Method)\n",
         {frame("Inventory.java", 42, "remove", "Inventory"), frame("Inventory.java", 88, "Loader", "")}},
        {"go",
         "panic: runtime error: index out of range [3] with length 3\n\n"
         "goroutine 1 [running]:\n"
         "example.com/geometry.(*Point).Scale(0xc000012345, 0x2)\n"
         "\t/home/dev/go/geometry/point.go:27 +0x1d\n"
         "main.main()\n"
         "\t/home/dev/go/cmd/main.go:9 +0x25\n",
         {frame("/home/dev/go/geometry/point.go", 27, "Scale", "Point"), frame("/home/dev/go/cmd/main.go", 9, "main", "main")}},
        {"rust",
         "thread 'main' panicked at src/parser.rs:31:14:\ncalled `Option::unwrap()` on a `None` value\n"
         "stack backtrace:\n"
         "   0: rust_begin_unwind\n"
         "  12: mylib::parser::Parser::next_token::h0123456789abcdef\n"
         "             at ./src/parser.rs:31:14\n",
         {frame("src/parser.rs", 31, ""), frame("./src/parser.rs", 31, "next_token", "Parser")}},
        {"c compiler",
         "native/src/ring.c:14:5: error: implicit declaration of function 'ring_grow'\n"
         "native/src/matrix.cpp:8:12: warning: unused variable 'n' [-Wunused-variable]\n",
         {frame("native/src/ring.c", 14, ""), frame("native/src/matrix.cpp", 8, "")}},
        {"sanitizer",
         "==1234==ERROR: AddressSanitizer: heap-buffer-overflow on address 0x602000000014\n"
         "    #0 0x4f3a2b in ring_push /src/native/src/ring.c:22:9\n"
         "    #1 0x4f3c10 in main /src/native/tests/test_ring.c:10:3\n",
         {frame("/src/native/src/ring.c", 22, "ring_push"), frame("/src/native/tests/test_ring.c", 10, "main")}},
        {"prose is no trace",
         "At least the total is right; at the moment (see above) it rounds at 0.5.\n",
         {}},
    };
    for (const auto& c : cases) {
        const auto mentions = parse_task_mentions(c.text);
        EXPECT_EQ(mentions.frames, c.frames) << c.language;
    }
}

TEST(TaskMentions, FilesAndQualifiedNames) {
    struct Case {
        const char* text;
        std::vector<std::string> files;
        std::vector<std::string> dotted;
    };
    const std::vector<Case> cases = {
        {"`Cart.total` in shop/cart.py drops the tax; see also `flask.json.provider`.",
         {"shop/cart.py"},
         {"Cart.total", "flask.json.provider"}},
        {"Calling Matrix.col_insert() and sympy::Matrix#row_del breaks", {}, {"Matrix.col_insert", "sympy::Matrix.row_del"}},
        {"Update README.md and setup.cfg, bump to 3.12.1, e.g. as in i.e. the docs", {}, {}},
        {"The parser (parser.rs) and view.tsx; https://example.com/a/b.py is a link", {"parser.rs", "view.tsx"}, {}},
    };
    for (const auto& c : cases) {
        const auto mentions = parse_task_mentions(c.text);
        EXPECT_EQ(mentions.files, c.files) << c.text;
        EXPECT_EQ(mentions.dotted, c.dotted) << c.text;
    }
}

TEST(TaskMentions, CapitalisedWordsStandingAlone) {
    struct Case {
        const char* text;
        std::vector<std::string> capitalised;
    };
    const std::vector<Case> cases = {
        {"Response objects lose their URL. Response again", {"Response", "URL"}},
        // Parts of paths and qualified names are read whole elsewhere; short words are no names.
        {"See src/Models/Cart.py and Cart.total; OK Go", {"See"}},
        {"the Identity matrix, then `Matrix` and MatrixSymbol_2", {"Identity", "Matrix", "MatrixSymbol_2"}},
    };
    for (const auto& c : cases) EXPECT_EQ(parse_task_mentions(c.text).capitalised, c.capitalised) << c.text;
}

TEST(TaskMentions, WordsOfFourOrMoreCharactersOnceEach) {
    EXPECT_EQ(parse_task_mentions("fix the compat shim; compat again in click/_compat.py and Rule.title").words,
              (std::vector<std::string>{"compat", "shim", "again"}));
}

TEST(TaskMentions, ALongLogKeepsABoundedNumberOfFrames) {
    std::string log;
    for (int i = 0; i < 5000; ++i) log += "  File \"pkg/mod" + std::to_string(i) + ".py\", line " + std::to_string(i + 1) + ", in f\n";
    const auto mentions = parse_task_mentions(log);
    EXPECT_EQ(mentions.frames.size(), orvane_kestrix::retrieval::kMaxFrames);
    EXPECT_EQ(mentions.frames.front().file, "pkg/mod0.py");
}

}  // namespace
