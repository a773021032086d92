// Repository path helpers: the parts of a path, joining with "." and "..", containment.

#include <gtest/gtest.h>

#include <optional>
#include <string>

#include "orvane_kestrix/paths.hpp"

namespace orvane_kestrix {
namespace {

TEST(Paths, PartsOfAPath) {
    struct Case {
        std::string path, directory, file_name, stem, extension;
    };
    const Case cases[] = {
        {"src/format.test.js", "src", "format.test.js", "format.test", "js"},
        {"a/b/Makefile", "a/b", "Makefile", "Makefile", ""},
        {"README.md", "", "README.md", "README", "md"},
        {"a/.gitignore", "a", ".gitignore", ".gitignore", ""},
        {"a/b/", "a/b", "", "", ""},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(directory_of(c.path), c.directory) << c.path;
        EXPECT_EQ(file_name_of(c.path), c.file_name) << c.path;
        EXPECT_EQ(without_extension(file_name_of(c.path)), c.stem) << c.path;
        EXPECT_EQ(extension_of(file_name_of(c.path)), c.extension) << c.path;
    }
}

TEST(Paths, JoinFoldsDotsAndStaysInsideTheRoot) {
    struct Case {
        std::string base, relative;
        std::optional<std::string> joined;
    };
    const Case cases[] = {
        {"src/lib", "util.h", "src/lib/util.h"},
        {"src/lib", "./util", "src/lib/util"},
        {"src/lib", "../include//x.h", "src/include/x.h"},
        {"src", "../../x.h", std::nullopt},
        {"", "a/./b/../c", "a/c"},
        {"", "..", std::nullopt},
        {"a", "..", ""},
    };
    for (const auto& c : cases) EXPECT_EQ(join_relative(c.base, c.relative), c.joined) << c.base << " + " << c.relative;
}

TEST(Paths, ContainedRelativePaths) {
    for (const char* inside : {"a.py", "a/b/../c.py", "./a", "a/..", ""}) EXPECT_TRUE(is_contained_relative(inside)) << inside;
    for (const char* outside : {"/etc/passwd", "../a", "a/../../b", "a/b/../../../c"}) {
        EXPECT_FALSE(is_contained_relative(outside)) << outside;
    }
}

}  // namespace
}  // namespace orvane_kestrix
