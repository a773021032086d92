// Parameters read from documentation comments: each style, their precedence, the block's
// boundaries, and texts that must neither throw nor hang.

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "orvane_kestrix/workers/context_builder/context_builder.hpp"

using orvane_kestrix::ContextBuilder;
using orvane_kestrix::ParameterRow;

namespace {

using Rows = std::vector<ParameterRow>;

ParameterRow row(std::string name, std::string description) { return {std::move(name), std::move(description), std::nullopt}; }
ParameterRow row(std::string name, std::string description, std::string type) {
    return {std::move(name), std::move(description), std::move(type)};
}

struct DocCase {
    const char* what;
    std::optional<std::string> docstring;
    std::optional<Rows> expected;
};

void check(const DocCase& c) {
    SCOPED_TRACE(c.what);
    const auto rows = ContextBuilder::_extract_parameters(c.docstring);
    ASSERT_EQ(rows.has_value(), c.expected.has_value());
    if (rows) {
        ASSERT_EQ(rows->size(), c.expected->size());
        for (std::size_t i = 0; i < rows->size(); ++i) {
            EXPECT_EQ((*rows)[i].name, (*c.expected)[i].name) << "row " << i;
            EXPECT_EQ((*rows)[i].description, (*c.expected)[i].description) << "row " << i;
            EXPECT_EQ((*rows)[i].type, (*c.expected)[i].type) << "row " << i;
        }
    }
}

TEST(ExtractParameters, NothingToRead) {
    const DocCase cases[] = {
        {"absent", std::nullopt, std::nullopt},
        {"empty", "", std::nullopt},
        {"summary only", "Build the pack.", std::nullopt},
        {"header without lines", "Args:\n\nReturns:\n    x", std::nullopt},
        {"unindented parameter lines are no block", "Args:\ntask: the task", std::nullopt},
        {"field without colon after the name", ":param task the task", std::nullopt},
        {"tag without description", "@param name", std::nullopt},
    };
    for (const auto& c : cases) check(c);
}

TEST(ExtractParameters, ArgsBlock) {
    const DocCase cases[] = {
        {"two parameters, one typed",
         "Do it.\n\nArgs:\n    task: A task.\n    limit (int): The most hits.\n\nReturns:\n    The keywords.",
         Rows{row("task", "A task."), row("limit", "The most hits.", "int")}},
        {"returns header with text on its line continues the block",
         "Do it.\n\nArgs:\n    task: A task.\n    limit (int): The most hits.\n\nReturns: the keywords",
         Rows{row("task", "A task."), row("limit", "The most hits.", "int"), row("Returns", "the keywords")}},
        {"bracketed type", "Args:\n    items (list[str]): The items.", Rows{row("items", "The items.", "list[str]")}},
        {"blank type is stated but empty", "Args:\n    x (  ): y", Rows{row("x", "y", "")}},
        {"type and description trimmed", "Args:\n    x ( int ):   spaced out   \n", Rows{row("x", "spaced out", "int")}},
        {"continuation without colon ends the block", "Args:\n    a: first\n        more text\n    b: second",
         Rows{row("a", "first")}},
        {"colon not after the first word: no row, block goes on",
         "Args:\n    a: first\n        see also: docs\n    b: second", Rows{row("a", "first"), row("b", "second")}},
        {"continuation shaped like a parameter gives a row",
         "Args:\n    a: first\n        Defaults: none.\n    b: second",
         Rows{row("a", "first"), row("Defaults", "none."), row("b", "second")}},
        {"a name given twice in the block is read once", "Args:\n    a: first\n    a: again", Rows{row("a", "first")}},
        {"header in capitals", "ARGS:\n    a: x", Rows{row("a", "x")}},
        {"header in lower case", "args:\n    a: x", Rows{row("a", "x")}},
        {"kwargs header found inside the word", "Other kwargs:\n    extra: passed on", Rows{row("extra", "passed on")}},
        {"header with trailing blanks", "Args:   \n\n    a: x", Rows{row("a", "x")}},
        {"only the first header with lines is read", "Args:\n    a: x\n\nText.\n\nArgs:\n    b: y", Rows{row("a", "x")}},
        {"one-line header is passed over for a later one", "Args: none\n\nArgs:\n    b: y", Rows{row("b", "y")}},
        {"words of any script", "Args:\n    größe (числo): Размер\n    名前: 名前です",
         Rows{row("größe", "Размер", "числo"), row("名前", "名前です")}},
        {"tab-indented lines", "Args:\n\ta: x\n\tb: y", Rows{row("a", "x"), row("b", "y")}},
    };
    for (const auto& c : cases) check(c);
}

TEST(ExtractParameters, FieldList) {
    const DocCase cases[] = {
        {"param with its type", ":param task: The task.\n:type task: str\n:returns: the keywords",
         Rows{row("task", "The task.", "str")}},
        {"param without a type", ":param task: The task.\n:returns: the keywords", Rows{row("task", "The task.")}},
        {"type before its param", ":type n: int\n:param n: count", Rows{row("n", "count", "int")}},
        {"other fields run into the description", ":param a: first\n:raises ValueError: bad",
         Rows{row("a", "first\n:raises ValueError: bad")}},
        {"the later type wins", ":param a: x\n:type a: int\n:type a: float", Rows{row("a", "x", "float")}},
        {"type text ends at the line", ":param a: x\n:type a: dict of\nstr", Rows{row("a", "x", "dict of")}},
        {"description runs across lines", ":param a: the first\n    and more\n:param b: second",
         Rows{row("a", "the first\n    and more"), row("b", "second")}},
        {"an empty type field reaches into the next field", ":param a: x\n:type a: \n:param b: y",
         Rows{row("a", "x", ":param b: y"), row("b", "y")}},
        {"a name given twice", ":param a: one\n:param a: two", Rows{row("a", "one")}},
    };
    for (const auto& c : cases) check(c);
}

TEST(ExtractParameters, Tags) {
    const DocCase cases[] = {
        {"typed and untyped tags", "@param {string} name The name.\n@param count How many.\n@returns nothing",
         Rows{row("name", "The name.", "string"), row("count", "How many.")}},
        {"comment decoration kept inside", "/**\n * @param a the first\n *   value\n */",
         Rows{row("a", "the first\n *   value\n */")}},
        {"any at sign ends a description", "@param to the address, like me@example.com", Rows{row("to", "the address, like me")}},
        {"type trimmed", "@param { Map<K, V> } m the map", Rows{row("m", "the map", "Map<K, V>")}},
        {"unterminated brace: the brace is not a type", "@param {string name The name.", std::nullopt},
        {"a name given twice", "@param a one\n@param a two", Rows{row("a", "one")}},
    };
    for (const auto& c : cases) check(c);
}

TEST(ExtractParameters, MixedStylesKeepTheFirstOccurrence) {
    const DocCase cases[] = {
        {"block before fields before tags, wherever they stand",
         "@param c tag\n@returns x\nArgs:\n    a: block\n:param b: field\n:returns: y",
         Rows{row("a", "block"), row("b", "field"), row("c", "tag")}},
        {"the block wins over a field, with its own type",
         "Args:\n    a (int): from the block\n\n:param a: from the field\n:type a: str",
         Rows{row("a", "from the block", "int")}},
        {"a field wins over a tag", ":param a: from the field\n@param {number} a from the tag",
         Rows{row("a", "from the field\n@param {number} a from the tag")}},
        {"field types do not reach tags", ":type a: str\n@param a the tag", Rows{row("a", "the tag")}},
    };
    for (const auto& c : cases) check(c);
}

TEST(ExtractParameters, LargeOrdinaryCommentsAreReadWhole) {
    // The match limits must not cut short a long but ordinary comment.
    std::string block = "Args:\n";
    for (int i = 0; i < 4000; ++i) block += "    p" + std::to_string(i) + " (int): value " + std::to_string(i) + "\n";
    const auto rows = ContextBuilder::_extract_parameters(block);
    ASSERT_TRUE(rows);
    ASSERT_EQ(rows->size(), 4000u);
    EXPECT_EQ(rows->back(), row("p3999", "value 3999", "int"));

    const std::string long_description(100'000, 'd');
    const auto field = ContextBuilder::_extract_parameters(":param a: " + long_description + "\n:param b: x");
    ASSERT_TRUE(field);
    EXPECT_EQ(*field, (Rows{row("a", long_description), row("b", "x")}));

    std::string tags;
    for (int i = 0; i < 3000; ++i) tags += "@param {T" + std::to_string(i) + "} t" + std::to_string(i) + " d\n";
    const auto tag_rows = ContextBuilder::_extract_parameters(tags);
    ASSERT_TRUE(tag_rows);
    EXPECT_EQ(tag_rows->size(), 3000u);
    EXPECT_EQ(tag_rows->back(), row("t2999", "d", "T2999"));
}

TEST(ExtractParameters, HostileTextsEndWithoutThrowing) {
    const std::string big(200'000, 'a');
    const std::vector<std::string> texts = {
        "Args:\n    " + big,
        "Args:\n" + std::string(100'000, ' ') + big + ":",
        std::string(50'000, ':') + "param",
        "@param {" + big,
        "\xff\xfe\xfd Args:\n    a\xc3: b\xe2\x82",
        std::string("Args:\n    a: b\0c\n", 17),
    };
    for (const auto& text : texts) {
        EXPECT_NO_THROW(ContextBuilder::_extract_parameters(text));
    }
    // Invalid bytes are read as replacement characters, not dropped.
    const auto rows = ContextBuilder::_extract_parameters(std::string("Args:\n    a: b\xff"));
    ASSERT_TRUE(rows);
    EXPECT_EQ((*rows)[0].description, "b\xEF\xBF\xBD");
}

}  // namespace
