/* md5_crypt - MD5-crypt hashes of several passwords made together.
 *
 * An MD5-crypt hash is a thousand rounds of MD5 over the password, the salt
 * and the digest of the round before.  Every password's round has the same
 * pieces in the same order (of its own lengths), so md5_crypt_lanes() runs
 * the rounds of up to MD5_LANES passwords at once, one password a lane of
 * the processor's vector unit.  Its result is crypt()'s, byte for byte;
 * what it does not take (a salt of another kind, a password longer than
 * MD5_LANE_MAX bytes) it leaves to crypt().
 */
#pragma once

enum {
    MD5_LANES = 16,
    MD5_LANE_MAX = 47,  /* the longest password a lane takes */
    MD5_CRYPT_SIZE = 40 /* room for "$1$", the salt, "$" and the digest */
};

/* md5_crypt_lanes - the MD5-crypt hash of plain[k] with salt[k] ("$1$"
 * and up to eight characters, up to a "$") into out[k], for each k below
 * n (at most MD5_LANES); out[k] is "" where crypt() is to make it */
void md5_crypt_lanes(const char *const plain[], const char *const salt[], int n, char out[][MD5_CRYPT_SIZE]);
