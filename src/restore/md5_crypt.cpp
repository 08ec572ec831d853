/* md5_crypt - MD5-crypt of several passwords at once (see md5_crypt.h).
 *
 * A round's message is one of eight layouts (by the round number modulo
 * 2, 3 and 7): the password or the last digest first, the salt or not,
 * the password again or not, then the other of the first two.  For each
 * layout every lane's message is laid out once, padded, with the digest's
 * bytes left zero, as one or two 64-byte blocks of words in lane order;
 * a round copies its layout and puts each lane's digest in: at the start
 * (the same words for every lane: the vectors of the digest itself) or at
 * the lane's own offset after the password.  The first digest of each
 * password, and the layouts, are made one lane at a time.
 */
#include "restore/md5_crypt.h"

#include <stdint.h>
#include <stdio.h>
#include <string.h>

typedef uint32_t Lanes __attribute__((vector_size(4 * MD5_LANES)));

static const char ITOA64[] = "./0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz";

/* MD5_ROTL - the words of x rotated left by r bits */
#define MD5_ROTL(x, r) (((x) << (r)) | ((x) >> (32 - (r))))
#define MD5_STEP(f, a, b, c, d, x, k, r) \
    a += f(b, c, d) + x + k;             \
    a = MD5_ROTL(a, r) + b
#define MD5_F(x, y, z) ((z) ^ ((x) & ((y) ^ (z))))
#define MD5_G(x, y, z) ((y) ^ ((z) & ((x) ^ (y))))
#define MD5_H(x, y, z) ((x) ^ (y) ^ (z))
#define MD5_I(x, y, z) ((y) ^ ((x) | ~(z)))

/* md5_block - one 64-byte block w (16 little-endian words) added to the
 * state s: of one message (T a word) or of one per lane (T Lanes) */
template <class T> static inline __attribute__((always_inline)) void md5_block(T s[4], const T w[16])
{
    T a = s[0], b = s[1], c = s[2], d = s[3];

    MD5_STEP(MD5_F, a, b, c, d, w[0], 0xd76aa478, 7);
    MD5_STEP(MD5_F, d, a, b, c, w[1], 0xe8c7b756, 12);
    MD5_STEP(MD5_F, c, d, a, b, w[2], 0x242070db, 17);
    MD5_STEP(MD5_F, b, c, d, a, w[3], 0xc1bdceee, 22);
    MD5_STEP(MD5_F, a, b, c, d, w[4], 0xf57c0faf, 7);
    MD5_STEP(MD5_F, d, a, b, c, w[5], 0x4787c62a, 12);
    MD5_STEP(MD5_F, c, d, a, b, w[6], 0xa8304613, 17);
    MD5_STEP(MD5_F, b, c, d, a, w[7], 0xfd469501, 22);
    MD5_STEP(MD5_F, a, b, c, d, w[8], 0x698098d8, 7);
    MD5_STEP(MD5_F, d, a, b, c, w[9], 0x8b44f7af, 12);
    MD5_STEP(MD5_F, c, d, a, b, w[10], 0xffff5bb1, 17);
    MD5_STEP(MD5_F, b, c, d, a, w[11], 0x895cd7be, 22);
    MD5_STEP(MD5_F, a, b, c, d, w[12], 0x6b901122, 7);
    MD5_STEP(MD5_F, d, a, b, c, w[13], 0xfd987193, 12);
    MD5_STEP(MD5_F, c, d, a, b, w[14], 0xa679438e, 17);
    MD5_STEP(MD5_F, b, c, d, a, w[15], 0x49b40821, 22);
    MD5_STEP(MD5_G, a, b, c, d, w[1], 0xf61e2562, 5);
    MD5_STEP(MD5_G, d, a, b, c, w[6], 0xc040b340, 9);
    MD5_STEP(MD5_G, c, d, a, b, w[11], 0x265e5a51, 14);
    MD5_STEP(MD5_G, b, c, d, a, w[0], 0xe9b6c7aa, 20);
    MD5_STEP(MD5_G, a, b, c, d, w[5], 0xd62f105d, 5);
    MD5_STEP(MD5_G, d, a, b, c, w[10], 0x02441453, 9);
    MD5_STEP(MD5_G, c, d, a, b, w[15], 0xd8a1e681, 14);
    MD5_STEP(MD5_G, b, c, d, a, w[4], 0xe7d3fbc8, 20);
    MD5_STEP(MD5_G, a, b, c, d, w[9], 0x21e1cde6, 5);
    MD5_STEP(MD5_G, d, a, b, c, w[14], 0xc33707d6, 9);
    MD5_STEP(MD5_G, c, d, a, b, w[3], 0xf4d50d87, 14);
    MD5_STEP(MD5_G, b, c, d, a, w[8], 0x455a14ed, 20);
    MD5_STEP(MD5_G, a, b, c, d, w[13], 0xa9e3e905, 5);
    MD5_STEP(MD5_G, d, a, b, c, w[2], 0xfcefa3f8, 9);
    MD5_STEP(MD5_G, c, d, a, b, w[7], 0x676f02d9, 14);
    MD5_STEP(MD5_G, b, c, d, a, w[12], 0x8d2a4c8a, 20);
    MD5_STEP(MD5_H, a, b, c, d, w[5], 0xfffa3942, 4);
    MD5_STEP(MD5_H, d, a, b, c, w[8], 0x8771f681, 11);
    MD5_STEP(MD5_H, c, d, a, b, w[11], 0x6d9d6122, 16);
    MD5_STEP(MD5_H, b, c, d, a, w[14], 0xfde5380c, 23);
    MD5_STEP(MD5_H, a, b, c, d, w[1], 0xa4beea44, 4);
    MD5_STEP(MD5_H, d, a, b, c, w[4], 0x4bdecfa9, 11);
    MD5_STEP(MD5_H, c, d, a, b, w[7], 0xf6bb4b60, 16);
    MD5_STEP(MD5_H, b, c, d, a, w[10], 0xbebfbc70, 23);
    MD5_STEP(MD5_H, a, b, c, d, w[13], 0x289b7ec6, 4);
    MD5_STEP(MD5_H, d, a, b, c, w[0], 0xeaa127fa, 11);
    MD5_STEP(MD5_H, c, d, a, b, w[3], 0xd4ef3085, 16);
    MD5_STEP(MD5_H, b, c, d, a, w[6], 0x04881d05, 23);
    MD5_STEP(MD5_H, a, b, c, d, w[9], 0xd9d4d039, 4);
    MD5_STEP(MD5_H, d, a, b, c, w[12], 0xe6db99e5, 11);
    MD5_STEP(MD5_H, c, d, a, b, w[15], 0x1fa27cf8, 16);
    MD5_STEP(MD5_H, b, c, d, a, w[2], 0xc4ac5665, 23);
    MD5_STEP(MD5_I, a, b, c, d, w[0], 0xf4292244, 6);
    MD5_STEP(MD5_I, d, a, b, c, w[7], 0x432aff97, 10);
    MD5_STEP(MD5_I, c, d, a, b, w[14], 0xab9423a7, 15);
    MD5_STEP(MD5_I, b, c, d, a, w[5], 0xfc93a039, 21);
    MD5_STEP(MD5_I, a, b, c, d, w[12], 0x655b59c3, 6);
    MD5_STEP(MD5_I, d, a, b, c, w[3], 0x8f0ccc92, 10);
    MD5_STEP(MD5_I, c, d, a, b, w[10], 0xffeff47d, 15);
    MD5_STEP(MD5_I, b, c, d, a, w[1], 0x85845dd1, 21);
    MD5_STEP(MD5_I, a, b, c, d, w[8], 0x6fa87e4f, 6);
    MD5_STEP(MD5_I, d, a, b, c, w[15], 0xfe2ce6e0, 10);
    MD5_STEP(MD5_I, c, d, a, b, w[6], 0xa3014314, 15);
    MD5_STEP(MD5_I, b, c, d, a, w[13], 0x4e0811a1, 21);
    MD5_STEP(MD5_I, a, b, c, d, w[4], 0xf7537e82, 6);
    MD5_STEP(MD5_I, d, a, b, c, w[11], 0xbd3af235, 10);
    MD5_STEP(MD5_I, c, d, a, b, w[2], 0x2ad7d2bb, 15);
    MD5_STEP(MD5_I, b, c, d, a, w[9], 0xeb86d391, 21);
    s[0] += a;
    s[1] += b;
    s[2] += c;
    s[3] += d;
}

/* word - the little-endian word at p */
static uint32_t word(const unsigned char *p)
{
    return p[0] | p[1] << 8 | p[2] << 16 | static_cast<uint32_t>(p[3]) << 24;
}

/* Md5 - one message hashed a piece at a time */
struct Md5 {
    uint32_t s[4];
    unsigned char buf[64];
    uint64_t len;
};

static void md5_init(Md5 *m)
{
    *m = Md5{{0x67452301, 0xefcdab89, 0x98badcfe, 0x10325476}, {}, 0};
}

/* md5_add - n more bytes of the message */
static void md5_add(Md5 *m, const void *data, size_t n)
{
    const unsigned char *p = static_cast<const unsigned char *>(data);

    while (n > 0) {
        size_t at = m->len % 64, take = n < 64 - at ? n : 64 - at;
        memcpy(m->buf + at, p, take);
        m->len += take;
        p += take;
        n -= take;
        if (m->len % 64 == 0) {
            uint32_t w[16];
            for (int j = 0; j < 16; j++)
                w[j] = word(m->buf + 4 * j);
            md5_block<uint32_t>(m->s, w);
        }
    }
}

/* md5_end - the digest of the message */
static void md5_end(Md5 *m, unsigned char digest[16])
{
    static const unsigned char pad[64] = {0x80};
    unsigned char bits[8];
    uint64_t n = m->len * 8;

    for (int j = 0; j < 8; j++)
        bits[j] = static_cast<unsigned char>(n >> (8 * j));
    md5_add(m, pad, 1 + (119 - m->len % 64) % 64);
    md5_add(m, bits, 8);
    for (int j = 0; j < 16; j++)
        digest[j] = static_cast<unsigned char>(m->s[j / 4] >> (8 * (j % 4)));
}

/* Lane - a password, its salt, and where its rounds' messages put what */
struct Lane {
    const char *plain;
    size_t len;
    const char *salt;
    size_t salt_len;
};

/* first_digest - the digest the thousand rounds start from */
static void first_digest(const Lane &l, unsigned char out[16])
{
    Md5 m, alt;
    unsigned char final[16];

    md5_init(&alt);
    md5_add(&alt, l.plain, l.len);
    md5_add(&alt, l.salt, l.salt_len);
    md5_add(&alt, l.plain, l.len);
    md5_end(&alt, final);
    md5_init(&m);
    md5_add(&m, l.plain, l.len);
    md5_add(&m, "$1$", 3);
    md5_add(&m, l.salt, l.salt_len);
    for (size_t left = l.len; left > 0; left -= left > 16 ? 16 : left)
        md5_add(&m, final, left > 16 ? 16 : left);
    for (size_t i = l.len; i > 0; i >>= 1)
        md5_add(&m, (i & 1) ? "" : l.plain, 1);
    md5_end(&m, out);
}

/* Layouts - every lane's message of each of the eight layouts: 32 words
 * (two blocks) in lane order, the digest's bytes zero; the lanes that
 * need the second block; each lane's digest offset (odd rounds) */
struct Layouts {
    Lanes w[8][32];
    Lanes two[8];
    int any_two[8];
    size_t at[8][MD5_LANES];
};

/* lay_out - the layouts of the n lanes */
static void lay_out(const Lane *lanes, int n, Layouts *t)
{
    memset(t, 0, sizeof(*t));
    for (int layout = 0; layout < 8; layout++) {
        int odd = layout & 4, with_salt = layout & 2, twice = layout & 1;
        for (int k = 0; k < n; k++) {
            const Lane &l = lanes[k];
            unsigned char msg[128] = {};
            size_t len = 0;
            if (odd) {
                memcpy(msg, l.plain, l.len);
                len = l.len;
            } else {
                len = 16;
            }
            if (with_salt) {
                memcpy(msg + len, l.salt, l.salt_len);
                len += l.salt_len;
            }
            if (twice) {
                memcpy(msg + len, l.plain, l.len);
                len += l.len;
            }
            if (odd) {
                t->at[layout][k] = len;
                len += 16;
            } else {
                memcpy(msg + len, l.plain, l.len);
                len += l.len;
            }
            msg[len] = 0x80;
            size_t blocks = len <= 55 ? 1 : 2;
            uint64_t bits = static_cast<uint64_t>(len) * 8;
            for (int j = 0; j < 8; j++)
                msg[64 * blocks - 8 + j] = static_cast<unsigned char>(bits >> (8 * j));
            for (int j = 0; j < 32; j++)
                t->w[layout][j][k] = word(msg + 4 * j);
            if (blocks == 2) {
                t->two[layout][k] = 0xffffffff;
                t->any_two[layout] = 1;
            }
        }
    }
}

/* put_digest - lane k's digest (its four words of s) into the round's
 * message w at byte offset at */
static inline __attribute__((always_inline)) void put_digest(Lanes *w, const Lanes s[4], int k, size_t at)
{
    size_t q = at / 4;
    int r = static_cast<int>(at % 4) * 8;

    if (r == 0) {
        for (int j = 0; j < 4; j++)
            w[q + j][k] |= s[j][k];
        return;
    }
    w[q][k] |= s[0][k] << r;
    for (int j = 1; j < 4; j++)
        w[q + j][k] |= s[j][k] << r | s[j - 1][k] >> (32 - r);
    w[q + 4][k] |= s[3][k] >> (32 - r);
}

/* run_rounds - the thousand rounds of n lanes from their first digests
 * (in s, one word of each lane a vector) */
static inline __attribute__((always_inline)) void run_rounds(const Layouts *t, int n, Lanes s[4])
{
    static const Lanes IV[4] = {Lanes{} + 0x67452301, Lanes{} + 0xefcdab89, Lanes{} + 0x98badcfe,
                                Lanes{} + 0x10325476};

    for (int i = 0; i < 1000; i++) {
        int layout = ((i & 1) << 2) | (i % 3 ? 2 : 0) | (i % 7 ? 1 : 0);
        Lanes w[32];
        memcpy(w, t->w[layout], (t->any_two[layout] ? 32 : 16) * sizeof(Lanes));
        if (i & 1) {
            for (int k = 0; k < n; k++)
                put_digest(w, s, k, t->at[layout][k]);
        } else {
            w[0] = s[0];
            w[1] = s[1];
            w[2] = s[2];
            w[3] = s[3];
        }
        Lanes next[4] = {IV[0], IV[1], IV[2], IV[3]};
        md5_block<Lanes>(next, w);
        if (t->any_two[layout]) {
            Lanes more[4] = {next[0], next[1], next[2], next[3]};
            md5_block<Lanes>(more, w + 16);
            for (int j = 0; j < 4; j++)
                next[j] = (more[j] & t->two[layout]) | (next[j] & ~t->two[layout]);
        }
        for (int j = 0; j < 4; j++)
            s[j] = next[j];
    }
}

/* rounds_widest, rounds_wide, rounds_plain - run_rounds with the
 * processor's widest vectors, with half as wide, and with the narrowest */
__attribute__((target("avx512f"))) static void rounds_widest(const Layouts *t, int n, Lanes s[4])
{
    run_rounds(t, n, s);
}

__attribute__((target("avx2"))) static void rounds_wide(const Layouts *t, int n, Lanes s[4])
{
    run_rounds(t, n, s);
}

static void rounds_plain(const Layouts *t, int n, Lanes s[4])
{
    run_rounds(t, n, s);
}

/* lane_of - the lane of plain with salt; 0 when crypt() is to hash it */
static int lane_of(const char *plain, const char *salt, Lane *l)
{
    if (strncmp(salt, "$1$", 3) != 0)
        return 0;
    l->plain = plain;
    l->len = strlen(plain);
    l->salt = salt + 3;
    l->salt_len = strcspn(l->salt, "$");
    if (l->salt_len > 8)
        l->salt_len = 8;
    if (l->len > MD5_LANE_MAX || l->salt_len == 0)
        return 0;
    for (size_t j = 0; j < l->salt_len; j++)
        if (strchr(ITOA64, l->salt[j]) == nullptr)
            return 0;
    return 1;
}

/* encode - "$1$", the salt, "$" and the digest in crypt()'s order */
static void encode(const Lane &l, const unsigned char f[16], char *out)
{
    static const int order[5][3] = {{0, 6, 12}, {1, 7, 13}, {2, 8, 14}, {3, 9, 15}, {4, 10, 5}};
    char *p = out + snprintf(out, MD5_CRYPT_SIZE, "$1$%.*s$", static_cast<int>(l.salt_len), l.salt);

    for (const auto &o : order) {
        uint32_t v = f[o[0]] << 16 | f[o[1]] << 8 | f[o[2]];
        for (int j = 0; j < 4; j++, v >>= 6)
            *p++ = ITOA64[v & 0x3f];
    }
    for (uint32_t v = f[11], j = 0; j < 2; j++, v >>= 6)
        *p++ = ITOA64[v & 0x3f];
    *p = '\0';
}

void md5_crypt_lanes(const char *const plain[], const char *const salt[], int n, char out[][MD5_CRYPT_SIZE])
{
    static const int wide = __builtin_cpu_supports("avx512f") ? 2 : __builtin_cpu_supports("avx2");
    static thread_local Layouts layouts;
    Lane lanes[MD5_LANES];
    int index[MD5_LANES], used = 0;
    Lanes s[4] = {};

    for (int k = 0; k < n && k < MD5_LANES; k++) {
        out[k][0] = '\0';
        if (lane_of(plain[k], salt[k], &lanes[used])) {
            unsigned char first[16];
            first_digest(lanes[used], first);
            for (int j = 0; j < 4; j++)
                s[j][used] = word(first + 4 * j);
            index[used++] = k;
        }
    }
    if (used == 0)
        return;
    lay_out(lanes, used, &layouts);
    if (wide == 2)
        rounds_widest(&layouts, used, s);
    else if (wide)
        rounds_wide(&layouts, used, s);
    else
        rounds_plain(&layouts, used, s);
    for (int u = 0; u < used; u++) {
        unsigned char f[16];
        for (int j = 0; j < 16; j++)
            f[j] = static_cast<unsigned char>(s[j / 4][u] >> (8 * (j % 4)));
        encode(lanes[u], f, out[index[u]]);
    }
}
