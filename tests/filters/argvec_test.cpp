/* Tests of the bounded argument vector. */
#include "filters/argvec.h"

#include <gtest/gtest.h>

#include <string>

TEST(ArgVec, EntryAndByteLimits)
{
    static ArgVec vec;
    argv_init(&vec);
    EXPECT_EQ(argv_add(&vec, ""), 0);
    for (int i = 1; i <= 98; i++)
        ASSERT_EQ(argv_add(&vec, std::to_string(i).c_str()), 1) << i;
    EXPECT_EQ(argv_add(&vec, "99th"), 1);
    EXPECT_EQ(argv_add(&vec, "100th"), 0);
    EXPECT_EQ(vec.count, 99);
    EXPECT_STREQ(vec.slots[98], "99th");
    EXPECT_EQ(vec.slots[99], nullptr);

    /* A copy needs its terminator inside the 16384-byte area. */
    argv_init(&vec);
    ASSERT_EQ(argv_add(&vec, std::string(ARGVEC_AREA - 11, 'a').c_str()), 1);
    EXPECT_EQ(argv_add(&vec, "0123456789"), 0);
    EXPECT_EQ(argv_add(&vec, "012345678"), 1);
    EXPECT_EQ(vec.used, static_cast<size_t>(ARGVEC_AREA));
    EXPECT_EQ(argv_add(&vec, "z"), 0);
    EXPECT_EQ(vec.count, 2);
    EXPECT_EQ(vec.slots[2], nullptr);
}
