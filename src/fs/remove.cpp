/* remove - removal of whole trees and setting objects aside, through
 * directory descriptors (see remove.h). */
#include "fs/remove.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>
#include <vector>

void (*aside_hook)(int dir, const char *name);

int random_letters(char *buf, int n)
{
    static const char letters[] =
        "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789";
    unsigned char rnd[16];

    if (n > static_cast<int>(sizeof(rnd)) || getrandom(rnd, n, 0) != n)
        return -1;
    for (int i = 0; i < n; i++)
        buf[i] = letters[rnd[i] % (sizeof(letters) - 1)];
    return 0;
}

/* Level - a directory the removal has descended into: its device and inode,
 * to know it again when the removal climbs back through "..", and its name
 * in the directory above */
struct Level {
    dev_t dev;
    ino_t ino;
    std::string name;
};

/* empty_files - unlink every entry of the open directory dir that is not a
 * directory, and copy the name of one directory entry into sub (256
 * bytes); 1 when there is such a directory, 0 when dir is now empty, -1
 * with errno */
static int empty_files(int dir, char *sub)
{
    int list_fd = dup(dir);
    DIR *d = list_fd < 0 ? nullptr : fdopendir(list_fd);
    int found = 0;

    if (d == nullptr) {
        if (list_fd >= 0)
            close(list_fd);
        return -1;
    }
    errno = 0;
    while (struct dirent *ent = readdir(d)) {
        const char *name = ent->d_name;
        struct stat st;
        if (strcmp(name, ".") == 0 || strcmp(name, "..") == 0)
            continue;
        int is_dir = ent->d_type == DT_DIR;
        if (ent->d_type == DT_UNKNOWN) {
            if (fstatat(dir, name, &st, AT_SYMLINK_NOFOLLOW) != 0)
                continue;
            is_dir = S_ISDIR(st.st_mode);
        }
        if (is_dir) {
            if (!found)
                snprintf(sub, 256, "%s", name);
            found = 1;
        } else if (unlinkat(dir, name, 0) != 0 && errno != ENOENT) {
            found = -1;
            break;
        }
        errno = 0;
    }
    int err = errno;
    closedir(d);
    errno = err;
    return err != 0 ? -1 : found;
}

/* same_dir - 1 when the open directory fd is the one level describes */
static int same_dir(int fd, const Level &level)
{
    struct stat st;

    return fstat(fd, &st) == 0 && st.st_dev == level.dev && st.st_ino == level.ino;
}

int remove_tree_at(int parent, const char *name)
{
    /* Bounded whatever a directory holds from others: a tree that keeps
     * being refilled while it is removed is given up. */
    static const int REFILLS_MAX = 1000;
    struct stat st;
    char sub[256];
    int refills = 0;

    if (fstatat(parent, name, &st, AT_SYMLINK_NOFOLLOW) != 0)
        return errno == ENOENT ? 0 : -1;
    if (!S_ISDIR(st.st_mode))
        return unlinkat(parent, name, 0) == 0 || errno == ENOENT ? 0 : -1;

    int cur = openat(parent, name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
    if (cur < 0 || fstat(cur, &st) != 0)
        goto failed;
    {
        std::vector<Level> levels;
        levels.push_back(Level{st.st_dev, st.st_ino, name});
        for (;;) {
            int found = empty_files(cur, sub);
            if (found < 0)
                goto failed;
            if (found > 0) {
                int fd = openat(cur, sub, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
                if (fd < 0) {
                    /* Gone, or no longer a directory: looked at again. */
                    if (errno != ENOENT && errno != ELOOP && errno != ENOTDIR)
                        goto failed;
                    continue;
                }
                if (fstat(fd, &st) != 0) {
                    close(fd);
                    goto failed;
                }
                levels.push_back(Level{st.st_dev, st.st_ino, sub});
                close(cur);
                cur = fd;
                continue;
            }
            if (levels.size() == 1)
                break;
            int up = openat(cur, "..", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
            if (up < 0 || !same_dir(up, levels[levels.size() - 2])) {
                if (up >= 0)
                    close(up);
                errno = ESTALE;
                goto failed;
            }
            close(cur);
            cur = up;
            std::string gone = levels.back().name;
            levels.pop_back();
            if (unlinkat(cur, gone.c_str(), AT_REMOVEDIR) != 0 && errno != ENOENT
                && (errno != ENOTEMPTY || ++refills > REFILLS_MAX))
                goto failed;
        }
    }
    close(cur);
    return unlinkat(parent, name, AT_REMOVEDIR) == 0 || errno == ENOENT ? 0 : -1;

failed:
    int err = errno;
    if (cur >= 0)
        close(cur);
    errno = err;
    return -1;
}

int rename_aside_at(int dir, const char *name, char *aside)
{
    static const char PREFIX[] = ".rebox-aside-";

    if (aside_hook != nullptr)
        aside_hook(dir, name);

    for (int attempt = 0; attempt < 100; attempt++) {
        memcpy(aside, PREFIX, sizeof(PREFIX) - 1);
        if (random_letters(aside + sizeof(PREFIX) - 1, 6) != 0)
            return -1;
        aside[sizeof(PREFIX) - 1 + 6] = '\0';
        /* Never over an entry of that name: the one move is the whole
         * step. */
        if (renameat2(dir, name, dir, aside, RENAME_NOREPLACE) == 0)
            return 0;
        if (errno != EEXIST)
            return -1;
    }
    return -1;
}

