/* Tests of the "@mbox.quota" files and their named lock. */
#include "mailconf/quota.h"
#include "mailconf/writer_env.h"
#include "fs/file_lock.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

TEST(MboxQuota, SmallerOverLargerRemovalAndMissingHome)
{
    REQUIRE_SANDBOX();
    ASSERT_NO_FATAL_FAILURE(writers_setup());
    mkdir(mailnames_path("xn--bcher-kva.de").c_str(), 0700);
    mkdir(mailnames_path("xn--bcher-kva.de/info").c_str(), 0700);
    std::string box = mailnames_path("xn--bcher-kva.de/info/@mbox.quota");
    EXPECT_EQ(write_mbox_quota("bücher.de", "info", 1024), 1);
    EXPECT_EQ(write_mbox_quota("bücher.de", "info", 0), 1);
    EXPECT_EQ(read_file(box), "0\n");
    EXPECT_EQ(write_mbox_quota("bücher.de", nullptr, 5), 1);

    testing::internal::CaptureStdout();
    EXPECT_EQ(remove_mbox_quota("bücher.de", "info"), 1);
    EXPECT_EQ(remove_mbox_quota("bücher.de", "info"), 1); /* none left: still fine, no message */
    EXPECT_EQ(write_mbox_quota("bücher.de", "nobody", 1), 0); /* no home to write in */
    EXPECT_EQ(testing::internal::GetCapturedStdout().find("Unable to open file "), 0u);
    EXPECT_EQ(file_meta(box), "missing");
    EXPECT_EQ(read_file(mailnames_path("xn--bcher-kva.de/@mbox.quota")), "5\n");
    EXPECT_EQ(file_meta(mailnames_path("xn--bcher-kva.de/@mbox.quota")), "0640 7781 7781");
}

TEST(MboxQuota, WrittenOnlyUnderTheFileLock)
{
    REQUIRE_SANDBOX();
    ASSERT_NO_FATAL_FAILURE(writers_setup());
    mkdir(mailnames_path("example.com").c_str(), 0700);
    std::string path = mailnames_path("example.com/@mbox.quota");
    int ready[2];
    char c;
    ASSERT_EQ(pipe(ready), 0);
    pid_t pid = fork();
    if (pid == 0) {
        /* Hold the lock a while: the file must not appear meanwhile. */
        FileLock *lock = file_lock(path.c_str(), 1);
        if (write(ready[1], "x", 1) != 1)
            _exit(2);
        usleep(300000);
        int seen = access(path.c_str(), F_OK) == 0;
        file_unlock(lock);
        _exit(seen);
    }
    ASSERT_EQ(read(ready[0], &c, 1), 1);
    EXPECT_EQ(write_mbox_quota("example.com", nullptr, 7), 1);
    int status = 0;
    waitpid(pid, &status, 0);
    EXPECT_EQ(status, 0) << "the file was written while another process held its lock";
    EXPECT_EQ(read_file(path), "7\n");
}
