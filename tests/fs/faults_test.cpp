/* Fault tests of the locked line editing: a full file system, a read-only
 * directory, a lock directory missing or read-only.  Every edit fails, says
 * so and leaves the file as it was.  Each edit runs in a child process,
 * since a failed write of a kept line ends the process. */
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

TEST(Faults, ReadOnlyDirectoryOrLockDirectoryStopsEveryEdit)
{
    REQUIRE_SANDBOX();
    load_panel_config();
    std::string control = sandbox_path("qmail/control"), locks = sandbox_path("vdo/var/lock/files");
    std::string rcpthosts = control + "/rcpthosts", assign = sandbox_path("qmail/users/assign");
    std::string locking = "Error occurred while locking the file " + assign + ": ";
    write_file(rcpthosts, old_text());
    write_file(assign, old_text());
    /* A read-only directory of the file; a lock directory missing, then
     * read-only.  The message names the file and the reason. */
    const struct {
        std::string setup, path, message, reason;
    } states[] = {
        {"mount --bind " + control + " " + control + " && mount -o remount,bind,ro " + control, rcpthosts,
         "Unable to open file " + rcpthosts, ": Read-only file system"},
        {"rm -r " + locks, assign, locking, locking + "No such file or directory"},
        {"mkdir " + locks + " && mount --bind " + locks + " " + locks + " && mount -o remount,bind,ro " + locks,
         assign, locking, locking + "Read-only file system"},
    };
    for (auto &state : states) {
        ASSERT_NO_FATAL_FAILURE(run_or_fail(state.setup));
        for (const Edit &e : EDITS) {
            Outcome o = edit_in_child(state.path, e);
            EXPECT_EQ(o.code, 1) << e.name;
            EXPECT_TRUE(has(o.err, state.message) && has(o.err, state.reason)) << e.name << ": " << o.err;
            EXPECT_EQ(read_file(state.path), old_text()) << e.name;
            EXPECT_NE(access((state.path + ".tmp").c_str(), F_OK), 0) << e.name;
        }
    }
}
