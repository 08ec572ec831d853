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

TEST(LineEdit, OperationsMatchingRulesAndPieces)
{
    const std::string t = "abc\nabcd\nab\nzz\nabc", m = "a.b.c\nb.c\nb.c.d\nb.a.c\n";
    const std::string fits(4093, 'x'); /* with its newline: one piece */
    const std::string head(4094, 'y'); /* a full piece without newline */
    const std::string l = fits + "\n" + head + "tail\nkeep\n";
    const int SUB = FILE_STR_SUBSTRING, RM = FILE_STR_REMOVE_MATCHING;
    struct { std::string text; std::vector<const char *> entries; int op, mode; std::string want; } cases[] = {
        {"x\n", {"a", ".\n", ""}, FILE_STR_ADD, FILE_STR_AT_BEGIN, "a\n.\n\nx\n"},
        {"x", {"a", "b\n"}, FILE_STR_ADD, FILE_STR_AT_END, "xa\nb\n"},
        {t, {"abc\n"}, FILE_STR_REMOVE, 1, "abcd\nab\nzz\n"},
        {t, {"zz", "ab", "nothing"}, FILE_STR_REMOVE, 1, "abc\nabcd\nabc"},
        {"a\n\nb\n", {""}, FILE_STR_REMOVE, 1, "a\nb\n"},
        {m, {"b.c"}, RM, FILE_STR_SUFFIX, "b.c.d\nb.a.c\n"},
        {m, {"a."}, RM, FILE_STR_PREFIX, "b.c\nb.c.d\nb.a.c\n"},
        {m, {".a."}, RM, SUB, "a.b.c\nb.c\nb.c.d\n"},
        /* The substring rule sees the newline; the others see the content. */
        {m, {"c\n"}, RM, SUB, "b.c.d\n"},
        {m, {"c\n"}, RM, FILE_STR_SUFFIX, m},
        {m, {"b.c.", "a.b"}, RM, FILE_STR_PREFIX, "b.c\nb.a.c\n"},
        {m, {"x"}, RM, 9, m},
        {m, {}, RM, SUB, m},
        /* The empty entry: no line under prefix or suffix, all as a substring. */
        {m, {""}, RM, FILE_STR_PREFIX, m},
        {m, {""}, RM, FILE_STR_SUFFIX, m},
        {m, {""}, RM, SUB, ""},
        /* Lines longer than a 4094-byte piece are matched piece by piece. */
        {l, {fits.c_str()}, FILE_STR_REMOVE, 1, head + "tail\nkeep\n"},
        {l, {"tail"}, FILE_STR_REMOVE, 1, fits + "\n" + head + "keep\n"},
        {l, {head.c_str()}, FILE_STR_REMOVE, 1, fits + "\ntail\nkeep\n"},
        {l, {"yyt"}, RM, SUB, l},
    };
    for (const auto &c : cases)
        EXPECT_EQ(edit(c.text, c.entries, c.op, c.mode), c.want)
            << "case " << &c - cases << ": " << c.entries.size() << " entries, op " << c.op << " mode " << c.mode;
    int removed = 0;
    EXPECT_EQ(edit(t, {"abc"}, FILE_STR_REMOVE, 1, &removed), "abcd\nab\nzz\n");
    EXPECT_EQ(removed, 2);
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
