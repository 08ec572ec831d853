/* Tests of the in-memory line editing rules: no files involved. */
#include "fs/line_edit.h"

#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <vector>

/* edit - one operation on text; the number of removed pieces in removed */
static std::string edit(const std::string &text, std::vector<const char *> entries,
                        int operation, int mode, int *removed = nullptr)
{
    TextBuf out = {};
    entries.push_back(nullptr);
    int n = line_edit_apply(text.data(), text.size(), entries.data(), operation, mode, &out);
    std::string result(out.data ? out.data : "", out.len);
    text_buf_free(&out);
    EXPECT_GE(n, 0);
    if (removed)
        *removed = n;
    return result;
}

TEST(LineEdit, AddAndRemoveExactLines)
{
    EXPECT_EQ(edit("x\n", {"a", ".\n", ""}, FILE_STR_ADD, FILE_STR_AT_BEGIN), "a\n.\n\nx\n");
    EXPECT_EQ(edit("x", {"a", "b\n"}, FILE_STR_ADD, FILE_STR_AT_END), "xa\nb\n");

    const std::string text = "abc\nabcd\nab\nzz\nabc";
    int removed = 0;
    EXPECT_EQ(edit(text, {"abc"}, FILE_STR_REMOVE, 1, &removed), "abcd\nab\nzz\n");
    EXPECT_EQ(removed, 2);
    EXPECT_EQ(edit(text, {"abc\n"}, FILE_STR_REMOVE, 1), "abcd\nab\nzz\n");
    EXPECT_EQ(edit(text, {"zz", "ab", "nothing"}, FILE_STR_REMOVE, 1), "abc\nabcd\nabc");
    EXPECT_EQ(edit("a\n\nb\n", {""}, FILE_STR_REMOVE, 1), "a\nb\n");
}

TEST(LineEdit, RemoveMatchingByRule)
{
    const std::string text = "a.b.c\nb.c\nb.c.d\nb.a.c\n";

    EXPECT_EQ(edit(text, {"b.c"}, FILE_STR_REMOVE_MATCHING, FILE_STR_SUFFIX), "b.c.d\nb.a.c\n");
    EXPECT_EQ(edit(text, {"a."}, FILE_STR_REMOVE_MATCHING, FILE_STR_PREFIX), "b.c\nb.c.d\nb.a.c\n");
    EXPECT_EQ(edit(text, {".a."}, FILE_STR_REMOVE_MATCHING, FILE_STR_SUBSTRING), "a.b.c\nb.c\nb.c.d\n");
    /* The substring rule sees the newline; the others see the content. */
    EXPECT_EQ(edit(text, {"c\n"}, FILE_STR_REMOVE_MATCHING, FILE_STR_SUBSTRING), "b.c.d\n");
    EXPECT_EQ(edit(text, {"c\n"}, FILE_STR_REMOVE_MATCHING, FILE_STR_SUFFIX), text);
    EXPECT_EQ(edit(text, {"b.c.", "a.b"}, FILE_STR_REMOVE_MATCHING, FILE_STR_PREFIX), "b.c\nb.a.c\n");
    EXPECT_EQ(edit(text, {"x"}, FILE_STR_REMOVE_MATCHING, 9), text);
    EXPECT_EQ(edit(text, {}, FILE_STR_REMOVE_MATCHING, FILE_STR_SUBSTRING), text);
    /* The empty entry: no line under prefix or suffix, all as a substring. */
    EXPECT_EQ(edit(text, {""}, FILE_STR_REMOVE_MATCHING, FILE_STR_PREFIX), text);
    EXPECT_EQ(edit(text, {""}, FILE_STR_REMOVE_MATCHING, FILE_STR_SUFFIX), text);
    EXPECT_EQ(edit(text, {""}, FILE_STR_REMOVE_MATCHING, FILE_STR_SUBSTRING), "");
}

TEST(LineEdit, LongLinesAreMatchedPieceByPiece)
{
    const std::string fits(4093, 'x');  /* with its newline: one piece */
    const std::string head(4094, 'y');  /* a full piece without newline */
    const std::string text = fits + "\n" + head + "tail\nkeep\n";

    EXPECT_EQ(edit(text, {fits.c_str()}, FILE_STR_REMOVE, 1), head + "tail\nkeep\n");
    EXPECT_EQ(edit(text, {"tail"}, FILE_STR_REMOVE, 1), fits + "\n" + head + "keep\n");
    EXPECT_EQ(edit(text, {head.c_str()}, FILE_STR_REMOVE, 1), fits + "\ntail\nkeep\n");
    EXPECT_EQ(edit(text, {"yyt"}, FILE_STR_REMOVE_MATCHING, FILE_STR_SUBSTRING), text);
}

TEST(LineEdit, LinearInTextSize)
{
    std::string text, expected;
    std::vector<std::string> gone;
    for (int i = 0; i < 400000; i++) {
        std::string line = "domain" + std::to_string(i) + ":" + std::to_string(i);
        text += line + "\n";
        if (i % 200 == 0)
            gone.push_back(line);
        else
            expected += line + "\n";
    }
    std::vector<const char *> entries;
    for (auto &g : gone)
        entries.push_back(g.c_str());

    auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(edit(text, entries, FILE_STR_REMOVE, 1), expected);
    EXPECT_EQ(edit(text, {"nowhere"}, FILE_STR_REMOVE_MATCHING, FILE_STR_SUFFIX).size(), text.size());
    double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    EXPECT_LT(seconds, 5.0) << "2000 entries over 6 MB should take well under a second";
}
