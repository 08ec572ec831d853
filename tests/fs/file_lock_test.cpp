/* Tests of the named locks: lock file names, blocking and non-blocking
 * locks between real processes, and the lock files left behind. */
#include "fs/file_lock.h"

#include "runtime/config.h"

#include "fs_test_helpers.h"
#include "support/sandbox.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <stdlib.h>

#include <string>

TEST(FileLock, NamesAndLockFilesLeftInPlace)
{
    REQUIRE_SANDBOX();
    load_panel_config();
    umask(022);
    const char *data = "/var/qmail/users/assign", *sum = "2b41cfc09d5551bc725fc1f754631002";
    std::string lock_file = sandbox_path("vdo/var/lock/files/") + sum;
    EXPECT_STREQ(md5_hex("", data), sum);
    EXPECT_STREQ(md5_hex("/var/qmail/", "users/assign"), sum);
    char *path = file_lock_path(data);
    EXPECT_EQ(std::string(path), lock_file);
    free(path);

    write_file(lock_file, "stale");
    FileLock *lock = file_lock(data, 1);
    ASSERT_TRUE(file_lock_held(lock) && !file_lock_busy(lock));
    EXPECT_EQ(std::string(lock->path), lock_file);
    EXPECT_EQ(file_unlock(lock), 0);
    expect_owner_mode(lock_file, 0, 0, 0644);
    EXPECT_EQ(read_file(lock_file), "");
    EXPECT_TRUE(file_unlock(nullptr) == -1 && file_lock_busy(nullptr));

    /* Without the hashed name the path itself is the lock file. */
    std::string plain = sandbox_path("plain.lock");
    EXPECT_TRUE(file_lock_held(lock = file_trylock(plain.c_str(), 0)) && access(plain.c_str(), F_OK) == 0);
    EXPECT_EQ(file_lock_dispose(lock), 0);
}

TEST(FileLock, OtherProcessesWaitOrSeeBusy)
{
    REQUIRE_SANDBOX();
    load_panel_config();
    std::string marks = sandbox_path("marks");
    FileLock *lock = file_lock("/shared", 1);
    ASSERT_TRUE(file_lock_held(lock));

    /* The children drop the inherited descriptor: only the parent holds it. */
    EXPECT_EQ(exit_code(spawn([&] {
                  close(lock->fd);
                  FileLock *busy = file_trylock("/shared", 1);
                  int ok = busy && busy->fd == 0 && file_lock_busy(busy) && !file_lock_held(busy);
                  return ok && file_unlock(busy) == 0 ? 0 : 1;
              })),
              0);
    /* The waiter has no standard input: its lock must not land on
     * descriptor 0, the busy marker. */
    pid_t waiter = spawn([&] {
        close(lock->fd);
        close(0);
        FileLock *mine = file_lock("/shared", 1);
        write_file(marks, read_file(marks) + "waiter-in\n");
        return file_lock_held(mine) && fcntl(0, F_GETFD) != -1 ? file_unlock(mine) : 1;
    });
    usleep(300000);
    EXPECT_NE(access(marks.c_str(), F_OK), 0) << "the waiter got the lock while it was held";
    write_file(marks, "holder-out\n");
    EXPECT_EQ(file_unlock(lock), 0);
    EXPECT_EQ(exit_code(waiter), 0);
    EXPECT_EQ(read_file(marks), "holder-out\nwaiter-in\n");
}
