/* A store edited many times must hold what one edit of its whole text at
 * each step gives: random edits applied both ways, compared after every
 * step (dead pieces, lazily built indexes, additions at both ends). */
#include "fs/line_edit.h"

#include <gtest/gtest.h>

#include <chrono>
#include <random>
#include <string>
#include <vector>

namespace {

std::string text_of(const LineStore *s)
{
    TextBuf t = {};
    EXPECT_EQ(line_store_text(s, &t), 0);
    std::string out(t.data ? t.data : "", t.len);
    text_buf_free(&t);
    return out;
}

/* word - short record-like texts that collide often, now and then a long
 * one or one holding a newline */
std::string word(std::mt19937 &rng)
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

} // namespace

TEST(LineStore, EditsExactlyAsTheEngine)
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
            entries.push_back(nullptr);

            TextBuf out = {};
            int want = line_edit_apply(text.data(), text.size(), entries.data(), op[0], op[1], &out);
            text.assign(out.data ? out.data : "", out.len);
            text_buf_free(&out);
            int got = line_store_apply(store, entries.data(), op[0], op[1]);
            ASSERT_EQ(got, want) << "seed " << seed << " step " << step;
            ASSERT_EQ(text_of(store), text) << "seed " << seed << " step " << step;
        }
        line_store_free(store);
    }
}

/* Removing many equal lines must cost what it removes: a store that drops
 * them from its index one by one walks all of them for each (hours for
 * this text), and so does a store whose index grows with every removal
 * and re-addition of one line. */
TEST(LineStore, ManyEqualLinesGoAtOnce)
{
    const int n = 200000;
    std::string text;
    for (int i = 0; i < n; i++)
        text += i % 2 ? "\n" : "/home/x/same\n";
    auto start = std::chrono::steady_clock::now();
    LineStore *store = line_store_new(text.data(), text.size());
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
