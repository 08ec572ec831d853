/* Tests of the named locks: lock file names, blocking and non-blocking
 * locks between real processes, and the lock files left behind. */
#include "fs/file_lock.h"

#include "runtime/config.h"

#include "support/sandbox.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>

TEST(FileLock, Md5NamesAndLockPath)
{
    REQUIRE_SANDBOX();
    load_panel_config();
    EXPECT_STREQ(md5_hex("", "/var/qmail/users/assign"), "2b41cfc09d5551bc725fc1f754631002");
    EXPECT_STREQ(md5_hex("/var/qmail/", "users/assign"), "2b41cfc09d5551bc725fc1f754631002");
    const unsigned char digest[16] = {0x00, 0x01, 0xab, 0xff, 0x10, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0x7f};
    EXPECT_STREQ(md5_hex_digest(digest), "0001abff10000000000000000000007f");

    char *path = file_lock_path("/var/qmail/users/assign");
    EXPECT_EQ(std::string(path), sandbox_path("vdo/var/lock/files/2b41cfc09d5551bc725fc1f754631002"));
    free(path);
    /* A relative spelling is another lock. */
    path = file_lock_path("users/assign");
    EXPECT_EQ(std::string(path).find("2b41cfc09d5551bc725fc1f754631002"), std::string::npos);
    free(path);
}

TEST(FileLock, HeldReleasedAndLockFileStays)
{
    REQUIRE_SANDBOX();
    load_panel_config();
    std::string lock_file = sandbox_path("vdo/var/lock/files/") + md5_hex("", "/data/file");

    FileLock *lock = file_lock("/data/file", 1);
    ASSERT_NE(lock, nullptr);
    EXPECT_TRUE(file_lock_held(lock));
    EXPECT_FALSE(file_lock_busy(lock));
    EXPECT_EQ(std::string(lock->path), lock_file);
    EXPECT_EQ(file_unlock(lock), 0);

    struct stat st;
    ASSERT_EQ(stat(lock_file.c_str(), &st), 0);
    EXPECT_EQ(st.st_size, 0);
    EXPECT_EQ(st.st_mode & 0777, 0644 & ~umask(022));
    EXPECT_EQ(file_unlock(nullptr), -1);
    EXPECT_TRUE(file_lock_busy(nullptr));
    EXPECT_FALSE(file_lock_held(nullptr));

    /* Without the hashed name the path itself is the lock file. */
    std::string plain = sandbox_path("plain.lock");
    lock = file_trylock(plain.c_str(), 0);
    EXPECT_TRUE(file_lock_held(lock));
    EXPECT_EQ(access(plain.c_str(), F_OK), 0);
    EXPECT_EQ(file_lock_dispose(lock), 0);
}

TEST(FileLock, MissingLockDirectoryIsReportedNotHeld)
{
    REQUIRE_SANDBOX();
    load_panel_config();
    ASSERT_EQ(rmdir(sandbox_path("vdo/var/lock/files").c_str()), 0);
    testing::internal::CaptureStderr();
    FileLock *lock = file_lock("/data/file", 1);
    std::string err = testing::internal::GetCapturedStderr();
    ASSERT_NE(lock, nullptr);
    EXPECT_LT(lock->fd, 0);
    EXPECT_FALSE(file_lock_held(lock));
    EXPECT_FALSE(file_lock_busy(lock));
    EXPECT_NE(err.find("Unable to open file \"" + std::string(lock->path) + "\": "), std::string::npos);
    EXPECT_EQ(file_unlock(lock), 0);
}

TEST(FileLock, SecondProcessWaitsAndTrylockSeesBusy)
{
    REQUIRE_SANDBOX();
    load_panel_config();
    int ready[2], go[2];
    ASSERT_EQ(pipe(ready), 0);
    ASSERT_EQ(pipe(go), 0);
    std::string marks = sandbox_path("marks");

    pid_t holder = fork();
    if (holder == 0) {
        FileLock *lock = file_lock("/shared", 1);
        char c = file_lock_held(lock) ? 'y' : 'n';
        (void)!write(ready[1], &c, 1);
        (void)!read(go[0], &c, 1);
        int fd = open(marks.c_str(), O_WRONLY | O_APPEND | O_CREAT, 0644);
        (void)!write(fd, "holder-out\n", 11);
        close(fd);
        _exit(file_unlock(lock) == 0 ? 0 : 1);
    }
    char c = 0;
    ASSERT_EQ(read(ready[0], &c, 1), 1);
    ASSERT_EQ(c, 'y');

    FileLock *busy = file_trylock("/shared", 1);
    ASSERT_NE(busy, nullptr);
    EXPECT_EQ(busy->fd, 0);
    EXPECT_TRUE(file_lock_busy(busy));
    EXPECT_FALSE(file_lock_held(busy));
    EXPECT_EQ(file_unlock(busy), 0);

    pid_t waiter = fork();
    if (waiter == 0) {
        FileLock *lock = file_lock("/shared", 1);
        int fd = open(marks.c_str(), O_WRONLY | O_APPEND | O_CREAT, 0644);
        (void)!write(fd, "waiter-in\n", 10);
        close(fd);
        _exit(file_lock_held(lock) && file_unlock(lock) == 0 ? 0 : 1);
    }
    usleep(300000);
    EXPECT_NE(access(marks.c_str(), F_OK), 0) << "the waiter got the lock while it was held";
    ASSERT_EQ(write(go[1], "g", 1), 1);

    int status;
    ASSERT_EQ(waitpid(holder, &status, 0), holder);
    EXPECT_EQ(WEXITSTATUS(status), 0);
    ASSERT_EQ(waitpid(waiter, &status, 0), waiter);
    EXPECT_EQ(WEXITSTATUS(status), 0);
    EXPECT_EQ(read_file(marks), "holder-out\nwaiter-in\n");
}

TEST(FileLock, ClosedStandardInputIsNeverTakenForBusy)
{
    REQUIRE_SANDBOX();
    load_panel_config();
    pid_t child = fork();
    if (child == 0) {
        close(0);
        FileLock *lock = file_lock("/data/file", 1);
        int ok = lock && lock->fd > 0 && file_lock_held(lock) && fcntl(0, F_GETFD) != -1;
        _exit(ok && file_unlock(lock) == 0 ? 0 : 1);
    }
    int status;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
}
