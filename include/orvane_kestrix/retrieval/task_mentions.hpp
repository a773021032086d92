#pragma once
// What a task writes explicitly: the frames of pasted stack traces and error output, file
// paths, and dotted or qualified names. These are the strongest evidence a task can give
// ("File "app/views.py", line 12, in index" leaves little doubt), so the retriever weighs them
// above every word match.
//
// Frames recognised, in the forms the indexed languages print them:
//   Python      File "app/views.py", line 12, in index
//   JS/TS       at handle (src/router/layer.ts:10:5), at async Foo.bar (/srv/app.js:3:1),
//               at src/x.js:4:2
//   Java        at com.acme.Cart.total(Cart.java:42)
//   Go          main.(*Server).handle(0xc0000a2000)  followed by  \t/src/app/server.go:57 +0x1d
//   Rust        panicked at src/main.rs:5:9, 3: app::parse::read  followed by  at ./src/parse.rs:10:5
//   C/C++       src/io.c:12:5: error: ..., #0 0x4f3a in read_block /src/io.c:12:5 (sanitizers)
// and any other `path.ext:LINE` of a source extension. The scan is linear in the task's
// length and keeps at most a fixed number of each kind, so a pasted log costs little.

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace orvane_kestrix::retrieval {

struct TraceFrame {
    std::string file;                  // as written (absolute, relative, or a bare file name); may be empty
    std::optional<std::int64_t> line;  // 1-based
    std::string function;              // the function's own name; empty when the frame names none
    std::string qualifier;             // its class or module as written before it (Cart, Server); may be empty

    bool operator==(const TraceFrame&) const = default;
};

struct TaskMentions {
    std::vector<TraceFrame> frames;     // in the order written
    std::vector<std::string> files;     // file paths and file names outside frames, each once
    std::vector<std::string> dotted;    // qualified names: Cls.method, pkg.mod.func, a::b (each once)
    // Words written with a capital first letter (Response, URL, Identity), each once: prose
    // names a type as a plain word, at the start of a sentence or in a title too.
    std::vector<std::string> capitalised;
    // Every word of four or more characters, as written, each once: matched against file names.
    std::vector<std::string> words;
};

// The most frames, files and dotted names kept from one task.
inline constexpr std::size_t kMaxFrames = 48;
inline constexpr std::size_t kMaxFileMentions = 24;
inline constexpr std::size_t kMaxDottedMentions = 24;
inline constexpr std::size_t kMaxCapitalisedMentions = 32;
inline constexpr std::size_t kMaxWordMentions = 64;

TaskMentions parse_task_mentions(std::string_view task);

// Whether `extension` (without the dot, any case) is that of an indexed source language.
bool is_source_extension(std::string_view extension);

}  // namespace orvane_kestrix::retrieval
