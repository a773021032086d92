// Snippet extraction over real files in a scratch directory.

#include <gtest/gtest.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <string>

#include "orvane_kestrix/beneath_root.hpp"
#include "orvane_kestrix/workers/context_builder/context_builder.hpp"

namespace fs = std::filesystem;
using orvane_kestrix::ContextBuilder;

namespace {

class SnippetTest : public ::testing::Test {
protected:
    void SetUp() override {
        dir_ = fs::temp_directory_path() / ("kestrix_snippet_" + std::to_string(::getpid()) + "_" +
                                            ::testing::UnitTest::GetInstance()->current_test_info()->name());
        fs::remove_all(dir_);
        fs::create_directories(dir_);
    }
    void TearDown() override {
        std::error_code ec;
        fs::permissions(dir_, fs::perms::owner_all, fs::perm_options::add, ec);
        fs::remove_all(dir_, ec);
    }
    fs::path write(const std::string& name, const std::string& bytes) {
        const fs::path path = dir_ / name;
        std::ofstream(path, std::ios::binary) << bytes;
        return path;
    }
    fs::path dir_;
};

// "line 1\n" ... "line n\n".
std::string numbered(int n, int from = 1) {
    std::string out;
    for (int i = from; i < from + n; ++i) out += "line " + std::to_string(i) + "\n";
    return out;
}

struct SliceCase {
    const char* what;
    std::string content;
    std::int64_t start, end, so_far, max_lines, total_cap;
    std::optional<std::string> text;
    std::int64_t count;
};

TEST_F(SnippetTest, SelectsCapsAndStrips) {
    const std::string hundred = numbered(120);
    const SliceCase cases[] = {
        {"per-symbol cap cuts the end", hundred, 10, 100, 0, 50, 500, numbered(49, 10) + "line 59", 50},
        {"total cap cuts the end", hundred, 10, 100, 480, 50, 500, numbered(19, 10) + "line 29", 20},
        {"whole symbol within caps", hundred, 3, 5, 0, 50, 500, "line 3\nline 4\nline 5", 3},
        {"end beyond the file", numbered(5), 4, 100, 0, 50, 500, "line 4\nline 5", 2},
        {"start beyond the file", numbered(5), 6, 9, 0, 50, 500, std::nullopt, 0},
        {"end before start", numbered(5), 4, 3, 0, 50, 500, std::nullopt, 0},
        {"start 0 reads from the first line", numbered(5), 0, 2, 0, 50, 500, "line 1\nline 2", 2},
        {"negative start reads from the first line", numbered(5), -7, 1, 0, 50, 500, "line 1", 1},
        {"caps compare strictly", numbered(5), 1, 5, 495, 5, 500, numbered(4) + "line 5", 5},
        {"trailing blank lines stripped but counted", "def f():\n    pass\n\n   \n\t\nx\n", 1, 5, 0, 50, 500,
         "def f():\n    pass", 5},
        {"blank lines only: empty text, positive count", "x\n\n  \n\ny\n", 2, 4, 0, 50, 500, "", 3},
        {"indentation kept", "    a\n    b\n", 1, 2, 0, 50, 500, "    a\n    b", 2},
        {"CR LF and lone CR read as LF", "a\r\nb\rc\r\nd", 1, 3, 0, 50, 500, "a\nb\nc", 3},
        {"CR LF after the selection", "a\r\n\r\nb", 1, 2, 0, 50, 500, "a", 2},
        {"invalid UTF-8 replaced", "ok\xff\xfe!\n\xe2\x82\n", 1, 2, 0, 50, 500,
         "ok\xEF\xBF\xBD\xEF\xBF\xBD!\n\xEF\xBF\xBD", 2},
        {"byte-order mark kept", "\xEF\xBB\xBF" "first\nsecond\n", 1, 1, 0, 50, 500, "\xEF\xBB\xBF" "first", 1},
        {"form feed and U+2028 do not end lines", "a\fb\xE2\x80\xA8" "c\nd\n", 1, 1, 0, 50, 500,
         "a\fb\xE2\x80\xA8" "c", 1},
        {"Unicode white space stripped at the end", "x = 1\xC2\xA0\xE3\x80\x80\n\xE2\x80\xA9\n", 1, 2, 0, 50, 500,
         "x = 1", 2},
        {"last line without terminator", "a\nb", 2, 2, 0, 50, 500, "b", 1},
        {"empty file", "", 1, 3, 0, 50, 500, std::nullopt, 0},
        {"deep symbol cap", numbered(300), 1, 300, 0, 200, 500, numbered(199) + "line 200", 200},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        const fs::path path = write("f.py", c.content);
        const auto [text, count] = ContextBuilder::_extract_snippet(path, c.start, c.end, c.so_far, c.max_lines, c.total_cap);
        EXPECT_EQ(text, c.text);
        EXPECT_EQ(count, c.count);
    }
}

TEST_F(SnippetTest, FilesThatCannotBeReadGiveNothing) {
    const fs::path sub = dir_ / "sub";
    fs::create_directories(sub);
    const fs::path fifo = dir_ / "pipe";
    ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
    for (const fs::path& path : {dir_ / "missing.py", sub, fifo, dir_ / "missing" / "deeper.py"}) {
        SCOPED_TRACE(path.string());
        EXPECT_EQ(ContextBuilder::_extract_snippet(path, 1, 10, 0), std::make_pair(std::optional<std::string>{}, std::int64_t{0}));
    }
}

TEST_F(SnippetTest, UnreadableFileGivesNothing) {
    if (::geteuid() == 0) GTEST_SKIP() << "file permissions do not bind the super-user";
    const fs::path path = write("secret.py", numbered(3));
    fs::permissions(path, fs::perms::none);
    EXPECT_EQ(ContextBuilder::_extract_snippet(path, 1, 3, 0).first, std::nullopt);
    // A directory that may not be searched hides its files too.
    fs::permissions(path, fs::perms::owner_read);
    fs::permissions(dir_, fs::perms::owner_write);
    EXPECT_EQ(ContextBuilder::_extract_snippet(path, 1, 3, 0).first, std::nullopt);
}

// Whether the file was opened since the watch was set.
bool opened(int inotify_fd) {
    alignas(inotify_event) char buffer[4096];
    bool any = false;
    for (;;) {
        const ssize_t n = ::read(inotify_fd, buffer, sizeof buffer);
        if (n <= 0) return any;
        for (char* p = buffer; p < buffer + n;) {
            auto* event = reinterpret_cast<inotify_event*>(p);
            if (event->mask & (IN_OPEN | IN_ACCESS)) any = true;
            p += sizeof(inotify_event) + event->len;
        }
    }
}

TEST_F(SnippetTest, UsedUpCapDoesNotTouchTheFile) {
    const fs::path path = write("f.py", numbered(10));
    const int watch = ::inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
    ASSERT_GE(watch, 0);
    ASSERT_GE(::inotify_add_watch(watch, path.c_str(), IN_OPEN | IN_ACCESS), 0);

    for (std::int64_t so_far : {500, 501, 10'000}) {
        EXPECT_EQ(ContextBuilder::_extract_snippet(path, 1, 10, so_far, 50, 500),
                  std::make_pair(std::optional<std::string>{}, std::int64_t{0}));
    }
    EXPECT_FALSE(opened(watch));

    // The watch does see a read when there is room left.
    EXPECT_EQ(ContextBuilder::_extract_snippet(path, 1, 1, 499, 50, 500).second, 1);
    EXPECT_TRUE(opened(watch));
    ::close(watch);
}

}  // namespace

namespace {

// Opened beneath a root, a snippet never comes from outside it, whatever the path or the links
// along it say; links that stay inside are followed.
TEST_F(SnippetTest, ReadsBeneathTheRootOnly) {
    const fs::path root = dir_ / "repo";
    const fs::path outside = dir_ / "outside";
    fs::create_directories(root / "pkg");
    fs::create_directories(outside);
    std::ofstream(outside / "secret.py") << "secret\n";
    std::ofstream(root / "pkg" / "inside.py") << "inside\n";
    fs::create_directory_symlink(outside, root / "linked_dir");
    fs::create_symlink(outside / "secret.py", root / "linked_file.py");
    fs::create_symlink("pkg/inside.py", root / "alias.py");
    fs::create_directory_symlink("pkg", root / "alias_dir");

    const orvane_kestrix::RootDirectory beneath(root);
    ASSERT_TRUE(beneath.is_open());
    const struct {
        std::string path;
        std::optional<std::string> text;
    } cases[] = {
        {"pkg/inside.py", "inside"},
        {"alias.py", "inside"},
        {"alias_dir/inside.py", "inside"},
        {"linked_dir/secret.py", std::nullopt},
        {"linked_file.py", std::nullopt},
        {"../outside/secret.py", std::nullopt},
        {"pkg/../../outside/secret.py", std::nullopt},
        {"/etc/passwd", std::nullopt},
        {(outside / "secret.py").string(), std::nullopt},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.path);
        EXPECT_EQ(ContextBuilder::_extract_snippet(c.path, 1, 5, 0, 50, 500, &beneath).first, c.text);
    }
}

}  // namespace
