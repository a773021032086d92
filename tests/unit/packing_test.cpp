// Packing over a real source tree: what is read for snippets, and what is not.

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

#include <unistd.h>

#include "support/fixture_harness.hpp"

namespace orvane_kestrix {
namespace {

namespace fs = std::filesystem;

class SnippetTreeTest : public ::testing::Test {
protected:
    void SetUp() override {
        base_ = fs::temp_directory_path() / ("kestrix-packing-" + std::to_string(::getpid()));
        fs::create_directories(base_ / "repo" / "src");
        std::ofstream(base_ / "repo" / "src" / "inside.py") << "def inside():\n    return 1\n";
        std::ofstream(base_ / "secret.py") << "TOKEN = 'outside the repository'\n";
        fs::create_symlink(base_ / "secret.py", base_ / "repo" / "src" / "link.py");
        fs::create_directory_symlink(base_, base_ / "repo" / "up");
    }
    void TearDown() override { fs::remove_all(base_); }

    fs::path base_;
};

TEST_F(SnippetTreeTest, NothingOutsideTheRepositoryIsReadThroughPathsOrLinks) {
    testing::FixtureHarness index(R"({
      "symbols": [
        {"id": 1, "name": "inside", "file_id": 1, "start_line": 1, "end_line": 2},
        {"id": 2, "name": "link", "file_id": 2},
        {"id": 3, "name": "climb", "file_id": 3},
        {"id": 4, "name": "through_dir_link", "file_id": 4},
        {"id": 5, "name": "absolute", "file_id": 5}
      ],
      "files": [{"id": 1, "path": "src/inside.py"}, {"id": 2, "path": "src/link.py"},
                {"id": 3, "path": "../secret.py"}, {"id": 4, "path": "up/secret.py"},
                {"id": 5, "path": "/etc/hostname"}],
      "request": {"task": "t"}})");
    PackRequest request{.task = "t", .include_snippets = true, .repo_root = base_ / "repo",
                        .seed_symbols = index.fixture.symbols};
    ContextPack pack = index.builder->build_context_pack(request);
    ASSERT_EQ(pack.symbols.size(), 5u);
    EXPECT_EQ(pack.symbols[0].snippet, "def inside():\n    return 1");
    for (std::size_t i = 1; i < pack.symbols.size(); ++i) {
        EXPECT_FALSE(pack.symbols[i].snippet) << pack.symbols[i].name;
    }
}

}  // namespace
}  // namespace orvane_kestrix
