/* Tests of the hashing thread: the hashes are crypt()'s own for every
 * entry, asked in any order, with null entries skipped; stopping before
 * the end and starting again with a new list work. */
#include "restore/hash_ahead.h"

#include <gtest/gtest.h>

#include <crypt.h>
#include <string>
#include <vector>

TEST(HashAhead, AnswersAreCryptsOwnInAnyOrder)
{
    const char *salt = "$1$Ab3/xY9.";
    std::vector<std::string> texts;
    for (int i = 0; i < 200; i++)
        texts.push_back(i % 7 == 0 ? "" : "pw-" + std::to_string(i * 7919));
    std::vector<const char *> plain;
    for (size_t i = 0; i < texts.size(); i++)
        plain.push_back(i % 5 == 3 ? nullptr : texts[i].c_str());

    hash_ahead_start(plain.data(), plain.size(), salt);
    /* Far ahead first, then from the start, each entry twice. */
    EXPECT_STREQ(hash_ahead_get(150), crypt(plain[150], salt));
    for (size_t i = 0; i < plain.size(); i++)
        for (int twice = 0; twice < 2; twice++) {
            const char *got = hash_ahead_get(i);
            if (plain[i] == nullptr)
                EXPECT_EQ(got, nullptr) << i;
            else
                EXPECT_STREQ(got, crypt(plain[i], salt)) << i;
        }
    EXPECT_EQ(hash_ahead_get(plain.size()), nullptr);
    hash_ahead_stop();

    /* A list stopped early, then an empty one, then a new one. */
    hash_ahead_start(plain.data(), plain.size(), salt);
    EXPECT_STREQ(hash_ahead_get(1), crypt(plain[1], salt));
    hash_ahead_stop();
    hash_ahead_start(nullptr, 0, salt);
    EXPECT_EQ(hash_ahead_get(0), nullptr);
    hash_ahead_stop();
    const char *other = "$1$zzzzzzzz";
    hash_ahead_start(plain.data() + 1, 2, other);
    EXPECT_STREQ(hash_ahead_get(1), crypt(plain[2], other));
    hash_ahead_stop();
}
