/* Tests of the named locks: the lock file's name, owner and mode, and the
 * lock file left in place. */
#include "fs/file_lock.h"

#include "runtime/config.h"

#include "support/sandbox.h"
#include "support/snapshot.h"

#include <fcntl.h>
#include <stdlib.h>
#include <gtest/gtest.h>
#include <unistd.h>

TEST(FileLock, NamesAndLockFilesLeftInPlace)
{
    REQUIRE_SANDBOX();
    load_panel_config();
    umask(022);
    const char *data = "/var/qmail/users/assign", *sum = "2b41cfc09d5551bc725fc1f754631002";
    std::string lock_file = sandbox_path("vdo/var/lock/files/") + sum;
    EXPECT_STREQ(md5_hex("", data), sum);
    EXPECT_STREQ(md5_hex("/var/qmail/", "users/assign"), sum);
    write_file(lock_file, "stale");
    FileLock *lock = file_lock(data, 1);
    ASSERT_TRUE(file_lock_held(lock));
    EXPECT_EQ(std::string(lock->path), lock_file);
    EXPECT_EQ(file_unlock(lock), 0);
    EXPECT_EQ(file_meta(lock_file), "0644 0 0");
    EXPECT_EQ(read_file(lock_file), "");
    EXPECT_EQ(file_unlock(nullptr), -1);
    char *named = file_lock_path(data);
    EXPECT_EQ(std::string(named), lock_file);
    free(named);

    /* A lock held through another handle (even of this process) is busy
     * for the non-waiting attempt, and free for it once released. */
    FileLock *holder = file_lock(data, 1), *tries[2];
    for (FileLock *&attempt : tries) {
        attempt = file_trylock(data, 1);
        file_unlock(holder);
        holder = nullptr;
    }
    EXPECT_EQ(file_lock_busy(tries[0]) * 2 + file_lock_held(tries[0]), 2);
    EXPECT_EQ(file_lock_busy(tries[1]) * 2 + file_lock_held(tries[1]), 1);
    EXPECT_EQ(file_lock_busy(nullptr), 1);
    file_unlock(tries[0]);
    file_unlock(tries[1]);

    /* Standard input closed: the lock file must not take descriptor 0,
     * which a handle reads as "busy". */
    int saved_stdin = dup(0);
    close(0);
    lock = file_lock(data, 1);
    EXPECT_GT(lock->fd, 0);
    EXPECT_TRUE(file_lock_held(lock));
    EXPECT_EQ(fcntl(0, F_GETFD), 0) << "descriptor 0 is left open on /dev/null";
    file_unlock(lock);
    dup2(saved_stdin, 0);
    close(saved_stdin);
}
