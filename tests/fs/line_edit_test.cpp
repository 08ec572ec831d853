/* Tests of the in-memory line editing rules, of a store edited many times
 * and of the cost of large edits. */
#include "fs/line_edit.h"

#include <gtest/gtest.h>

#include <chrono>
#include <random>
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

/* text_of - what a store holds */
static std::string text_of(const LineStore *s)
{
    TextBuf t = {};
    EXPECT_EQ(line_store_text(s, &t), 0);
    std::string out(t.data ? t.data : "", t.len);
    text_buf_free(&t);
    return out;
}

/* word - short record-like texts that collide often, now and then a long
 * one or one holding a newline */
static std::string word(std::mt19937 &rng)
{
    static const char *const parts[] = {"/a", "/b", "/m/x", "example", "=1-info:", ".", "", "/home/a/b"};
    std::string w;
    int n = rng() % 3 + 1;
    for (int i = 0; i < n; i++)
        w += parts[rng() % 8];
    switch (rng() % 20) {
    case 0: w += std::string(LINE_EDIT_PIECE_MAX - 2 + rng() % 6, 'L'); break;
    case 1: w += "\n" + w; break;
    case 2: w += "\n"; break;
    }
    return w;
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

/* Dead pieces, lazily built indexes and additions at both ends leave a
 * store as one edit of its whole text at each step would. */
TEST(LineEdit, StoreEditedManyTimesAsOneEditOfItsText)
{
    for (unsigned seed = 1; seed <= 60; seed++) {
        std::mt19937 rng(seed);
        std::string text;
        for (int i = rng() % 8; i > 0; i--)
            text += word(rng) + (rng() % 6 ? "\n" : "");
        LineStore *store = line_store_new(text.data(), text.size());
        ASSERT_NE(store, nullptr);
        for (int step = 0; step < 80; step++) {
            static const int ops[][2] = {
                {FILE_STR_ADD, FILE_STR_AT_END},          {FILE_STR_ADD, FILE_STR_AT_BEGIN},
                {FILE_STR_REMOVE, 0},                     {FILE_STR_REMOVE_MATCHING, FILE_STR_SUFFIX},
                {FILE_STR_REMOVE_MATCHING, FILE_STR_PREFIX}, {FILE_STR_REMOVE_MATCHING, FILE_STR_SUBSTRING},
                {FILE_STR_REMOVE_MATCHING, 7},            {FILE_STR_ADD, 5},
            };
            const int *op = ops[rng() % 8];
            std::vector<std::string> words;
            for (int i = rng() % 3 + 1; i > 0; i--)
                words.push_back(word(rng));
            std::vector<const char *> entries;
            for (const std::string &w : words)
                entries.push_back(w.c_str());
            int want = 0;
            text = edit(text, entries, op[0], op[1], &want);
            entries.push_back(nullptr);
            ASSERT_EQ(line_store_apply(store, entries.data(), op[0], op[1]), want) << "seed " << seed << " step " << step;
            ASSERT_EQ(text_of(store), text) << "seed " << seed << " step " << step;
        }
        line_store_free(store);
    }
}

/* Large edits cost what they change (a store that drops equal lines from
 * its index one by one, or whose index keeps growing, takes hours here). */
TEST(LineEdit, CostsWhatItChanges)
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

    const int n = 200000;
    std::string equal;
    for (int i = 0; i < n; i++)
        equal += i % 2 ? "\n" : "/home/x/same\n";
    start = std::chrono::steady_clock::now();
    LineStore *store = line_store_new(equal.data(), equal.size());
    ASSERT_NE(store, nullptr);
    const char *empty[] = {"", nullptr}, *same[] = {"/x/same", nullptr}, *one[] = {"one", nullptr};
    EXPECT_EQ(line_store_apply(store, empty, FILE_STR_REMOVE, 0), n / 2);
    EXPECT_EQ(line_store_apply(store, same, FILE_STR_REMOVE_MATCHING, FILE_STR_SUFFIX), n / 2);
    for (int i = 0; i < n; i++) {
        ASSERT_EQ(line_store_apply(store, one, FILE_STR_ADD, FILE_STR_AT_END), 0);
        ASSERT_EQ(line_store_apply(store, one, FILE_STR_REMOVE, 0), 1);
    }
    EXPECT_EQ(text_of(store), "");
    line_store_free(store);
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(20));
}
