/* Tests of the MD5-crypt lanes: whatever they take, crypt()'s very hash;
 * what they leave, left to crypt(). */
#include "restore/md5_crypt.h"

#include <crypt.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

TEST(Md5Crypt, EachLaneGivesCryptsHash)
{
    /* Every password length a lane takes (one and two blocks a round, the
     * digest at every offset), bytes of every kind, and salts as the run
     * makes them and as hashes on disk carry them. */
    std::vector<std::string> plains = {"", "a", "pw-1-123456", "p\xc3\xa4ss\x01\xff word"};
    for (size_t len = 2; len <= MD5_LANE_MAX; len++) {
        std::string p;
        for (size_t j = 0; j < len; j++)
            p += static_cast<char>(' ' + (len * 7 + j * 13) % 95);
        plains.push_back(p);
    }
    const struct {
        const char *salt;
        int taken;
    } salts[] = {
        {"$1$saltsalt", 1},          {"$1$ab", 1},       {"$1$./09AZaz$digestpart", 1},
        {"$1$abcdefghijkl", 1},      {"$1$", 0},         {"$1$$", 0},
        {"$1$a:b", 0},               {"$5$saltsalt", 0}, {"ab", 0},
    };
    struct crypt_data data = {};
    for (const auto &s : salts) {
        for (size_t first = 0; first < plains.size(); first += MD5_LANES) {
            const char *plain[MD5_LANES], *salt[MD5_LANES];
            char out[MD5_LANES][MD5_CRYPT_SIZE];
            int n = 0;
            for (size_t k = first; k < plains.size() && n < MD5_LANES; k++, n++) {
                plain[n] = plains[k].c_str();
                salt[n] = s.salt;
            }
            md5_crypt_lanes(plain, salt, n, out);
            for (int k = 0; k < n; k++) {
                SCOPED_TRACE(std::string(s.salt) + " " + plain[k]);
                EXPECT_EQ(out[k][0] != '\0', s.taken);
                if (out[k][0] != '\0') {
                    EXPECT_STREQ(out[k], crypt_r(plain[k], salt[k], &data));
                }
            }
        }
    }
    /* Too long for a lane: left to crypt(), the others of its batch taken. */
    std::string longer(MD5_LANE_MAX + 1, 'x');
    const char *plain[] = {"short", longer.c_str()}, *salt[] = {"$1$saltsalt", "$1$saltsalt"};
    char out[2][MD5_CRYPT_SIZE];
    md5_crypt_lanes(plain, salt, 2, out);
    EXPECT_STREQ(out[0], crypt_r("short", "$1$saltsalt", &data));
    EXPECT_STREQ(out[1], "");
}
