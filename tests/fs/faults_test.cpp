/* Fault tests of the locked line editing: a file system that fills up, a
 * directory that refuses writes, and a lock directory that is missing or
 * refuses writes.  Every edit fails, says so, and leaves the file as it
 * was: never a part of the edit, never a cut copy.
 * Each edit runs in a child process, since a failed write of a kept line
 * ends the process. */
#include "fs/file_str.h"
#include "runtime/config.h"

#include "fs_test_helpers.h"
#include "support/sandbox.h"

#include <gtest/gtest.h>

#include <errno.h>
#include <fcntl.h>

#include <string>

namespace {

/* old_text - a file of 4091 bytes: an appended line crosses into a new page */
std::string old_text(void)
{
    std::string text;
    for (int i = 0; text.size() < 4000; i++)
        text += "host" + std::to_string(i) + ".example\n";
    return text + std::string(4090 - text.size(), 'x') + "\n";
}

struct Edit {
    const char *name, *line;
    int operation, mode;
};

/* Every kind of edit, each with a line it changes in old_text(). */
const Edit EDITS[] = {
    {"append", "appended.example.org", FILE_STR_ADD, FILE_STR_AT_END},
    {"prepend", "first.example", FILE_STR_ADD, FILE_STR_AT_BEGIN},
    {"remove", "host7.example", FILE_STR_REMOVE, 1},
    {"remove by prefix", "host", FILE_STR_REMOVE_MATCHING, FILE_STR_PREFIX},
    {"remove by suffix", "t7.example", FILE_STR_REMOVE_MATCHING, FILE_STR_SUFFIX},
    {"remove by substring", ".example", FILE_STR_REMOVE_MATCHING, FILE_STR_SUBSTRING},
};

struct Outcome {
    int code;        /* file_str's result, or the exit status of the process */
    std::string err; /* what it printed on standard error */
};

/* edit_in_child - one edit of path in a child process */
Outcome edit_in_child(const std::string &path, const Edit &e)
{
    std::string errfile = sandbox_path("child.err");
    fflush(nullptr);
    pid_t pid = spawn([&] {
        int fd = open(errfile.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        dup2(fd, 2);
        dup2(open("/dev/null", O_WRONLY), 1);
        return file_str(path.c_str(), e.line, e.operation, e.mode);
    });
    int code = exit_code(pid);
    return Outcome{code, read_file(errfile)};
}

void run_or_fail(const std::string &command)
{
    CommandResult r = run_command(command);
    ASSERT_EQ(r.status, 0) << command << ": " << r.err;
}

/* fill - take every free block of the file system under dir */
void fill(const std::string &dir)
{
    int fd = open((dir + "/filler").c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
    ASSERT_GE(fd, 0);
    char block[4096] = {};
    while (write(fd, block, sizeof(block)) > 0)
        ;
    EXPECT_EQ(errno, ENOSPC);
    close(fd);
}

} // namespace

TEST(Faults, FullFileSystemLeavesEveryFileWhole)
{
    REQUIRE_SANDBOX();
    load_panel_config();
    std::string dir = sandbox_path("full"), path = dir + "/rcpthosts";
    ASSERT_EQ(mkdir(dir.c_str(), 0755), 0);
    ASSERT_NO_FATAL_FAILURE(run_or_fail("mount -t tmpfs -o size=64k tmpfs " + dir));
    for (const Edit &e : EDITS) {
        run_command("rm -f " + dir + "/*");
        write_file(path, old_text());
        ASSERT_NO_FATAL_FAILURE(fill(dir));
        /* Every edit needs a block more than there is. */
        Outcome o = edit_in_child(path, e);
        std::string now = read_file(path);
        EXPECT_NE(o.code, 0) << e.name;
        EXPECT_TRUE(has(o.err, path)) << e.name << ": " << o.err;
        EXPECT_TRUE(now == old_text()) << e.name << " left " << now.size() << " bytes ending in ["
                                       << now.substr(now.size() - 30) << "]";
    }
}

TEST(Faults, ReadOnlyDirectoryRefusesEveryEdit)
{
    REQUIRE_SANDBOX();
    load_panel_config();
    std::string dir = sandbox_path("qmail/control"), path = dir + "/rcpthosts";
    write_file(path, old_text());
    ASSERT_NO_FATAL_FAILURE(run_or_fail("mount --bind " + dir + " " + dir + " && mount -o remount,bind,ro " + dir));
    for (const Edit &e : EDITS) {
        Outcome o = edit_in_child(path, e);
        EXPECT_EQ(o.code, 1) << e.name;
        EXPECT_TRUE(has(o.err, "Unable to open file " + path) && has(o.err, ": Read-only file system"))
            << e.name << ": " << o.err;
        EXPECT_EQ(read_file(path), old_text()) << e.name;
        EXPECT_NE(access((path + ".tmp").c_str(), F_OK), 0) << e.name;
    }
}

TEST(Faults, LockDirectoryMissingOrReadOnlyStopsEveryEdit)
{
    REQUIRE_SANDBOX();
    load_panel_config();
    std::string locks = sandbox_path("vdo/var/lock/files"), path = sandbox_path("qmail/users/assign");
    write_file(path, old_text());
    std::pair<std::string, std::string> states[] = {
        {"rmdir " + locks, "No such file or directory"},
        {"mkdir " + locks + " && mount --bind " + locks + " " + locks + " && mount -o remount,bind,ro " + locks,
         "Read-only file system"},
    };
    for (auto &state : states) {
        ASSERT_NO_FATAL_FAILURE(run_or_fail(state.first));
        for (const Edit &e : EDITS) {
            Outcome o = edit_in_child(path, e);
            EXPECT_EQ(o.code, 1) << e.name;
            EXPECT_TRUE(has(o.err, "Error occurred while locking the file " + path + ": " + state.second))
                << e.name << ": " << o.err;
            EXPECT_EQ(read_file(path), old_text()) << e.name;
            EXPECT_NE(access((path + ".tmp").c_str(), F_OK), 0) << e.name;
        }
    }
}
