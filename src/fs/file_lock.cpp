/* file_lock - named advisory locks on lock files under the product root
 * (see file_lock.h). */
#define OPENSSL_SUPPRESS_DEPRECATED
#include "fs/file_lock.h"

#include "runtime/config.h"
#include "runtime/report.h"

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/file.h>
#include <unistd.h>

#include <openssl/md5.h>

static const size_t MD5_TEXT_SIZE = 4096;
static const mode_t LOCK_FILE_MODE = 0644;

/* Result buffer of md5_hex(). */
static char md5_hex_buf[2 * MD5_DIGEST_LENGTH + 1];

const char *md5_hex(const char *prefix, const char *text)
{
    char joined[MD5_TEXT_SIZE];
    unsigned char digest[MD5_DIGEST_LENGTH];

    snprintf(joined, sizeof(joined), "%s%s", prefix, text);
    MD5(reinterpret_cast<const unsigned char *>(joined), strlen(joined), digest);
    for (int i = 0; i < MD5_DIGEST_LENGTH; i++)
        snprintf(md5_hex_buf + 2 * i, 3, "%02x", digest[i]);
    return md5_hex_buf;
}

/* product_root - PRODUCT_ROOT_D, from the loaded configuration when it
 * was loaded, else straight from the configuration file */
static const char *product_root(void)
{
    if (panel_config.PRODUCT_ROOT_D)
        return panel_config.PRODUCT_ROOT_D;
    return conf_get("PRODUCT_ROOT_D");
}

/* build_lock_path - the lock file of path: the path itself, or with
 * hashed set its hashed name in the lock directory.  Null when the product
 * root is not configured: a lock file is then never guessed elsewhere. */
static char *build_lock_path(const char *path, short hashed)
{
    const char *root;

    if (!hashed)
        return xasprintf("%s", path);
    root = product_root();
    if (!root || !*root)
        return nullptr;
    return xasprintf("%s/var/lock/files/%s", root, md5_hex("", path));
}

/* off_descriptor_zero - a handle holds its lock only on a descriptor
 * above 0, so a lock file must never keep 0: one that got it (standard
 * input was closed) moves to another descriptor, and /dev/null takes 0 for
 * the rest of the process.  Checked after the open, so that the usual case
 * costs nothing. */
static int off_descriptor_zero(int fd)
{
    if (fd != 0)
        return fd;
    int moved = fcntl(0, F_DUPFD, 1);
    int saved = errno;
    int null_fd = open("/dev/null", O_RDONLY);
    if (null_fd > 0) {
        dup2(null_fd, 0);
        close(null_fd);
    } else {
        close(0);
    }
    errno = saved;
    return moved;
}

/* file_lock_open - a handle for path's lock file, opened with open_flags
 * and locked with the flock operation */
static FileLock *file_lock_open(const char *path, int open_flags, int operation, short hashed)
{
    FileLock *lock = static_cast<FileLock *>(calloc(1, sizeof(FileLock)));

    if (!lock)
        return nullptr;
    lock->path = build_lock_path(path, hashed);
    if (!lock->path) {
        /* No lock directory to use: a handle that does not hold the lock,
         * named after the hash alone for the caller's messages. */
        lock->path = xasprintf("%s", md5_hex("", path));
        lock->fd = -1;
        report_plain(0, "Error: PRODUCT_ROOT_D not defined\n");
        errno = 0; /* a failed handle leaves its cause in errno: here none */
        return lock;
    }
    lock->fd = off_descriptor_zero(open(lock->path, open_flags, LOCK_FILE_MODE));
    if (lock->fd < 0) {
        report(0, "Unable to open file \"%s\": %s.", lock->path, strerror(errno));
        return lock;
    }
    if (flock(lock->fd, operation) != 0) {
        int err = errno;
        close(lock->fd);
        lock->fd = err == EWOULDBLOCK ? 0 : -1;
        errno = err;
    }
    return lock;
}

FileLock *file_lock(const char *path, short hashed)
{
    return file_lock_open(path, O_RDWR | O_CREAT | O_TRUNC, LOCK_EX, hashed);
}

FileLock *file_lock_shared(const char *path, short hashed)
{
    /* A missing lock file has no holder to wait for, and is not made. */
    char *name = build_lock_path(path, hashed);
    int missing = name != nullptr && access(name, F_OK) != 0 && errno == ENOENT;
    free(name);
    if (!missing)
        return file_lock_open(path, O_RDONLY, LOCK_SH, hashed);
    FileLock *lock = static_cast<FileLock *>(calloc(1, sizeof(FileLock)));
    if (lock) {
        lock->path = xasprintf("%s", md5_hex("", path));
        lock->fd = open("/dev/null", O_RDONLY | O_CLOEXEC);
    }
    return lock;
}

FileLock *file_trylock(const char *path, short hashed)
{
    return file_lock_open(path, O_RDWR | O_CREAT | O_TRUNC, LOCK_EX | LOCK_NB, hashed);
}

char *file_lock_path(const char *path)
{
    return build_lock_path(path, 1);
}

int file_lock_held(const FileLock *lock)
{
    return lock && lock->fd > 0;
}

int file_lock_busy(const FileLock *lock)
{
    return !lock || lock->fd == 0;
}

int file_unlock(FileLock *lock)
{
    int result = 0;

    if (!lock)
        return -1;
    if (lock->fd > 0 && close(lock->fd) != 0) {
        report(0, "An error occured during closing '%s' file: %s\n", lock->path, strerror(errno));
        result = -1;
    }
    free(lock->path);
    free(lock);
    return result;
}

FileLock *file_lock_reported(const Effects *fx, const char *path)
{
    FileLock *lock = fx->lock(path, 1);

    if (file_lock_held(lock))
        return lock;
    report(0, "Error occurred while locking the file %s: %s\n", path, strerror(errno));
    int failure = errno; /* the caller's message names the same cause */
    file_unlock(lock);
    errno = failure;
    return nullptr;
}
