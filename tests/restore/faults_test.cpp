/* Faults met by the real binary's rebuild pass: shared files stay whole,
 * and a pass that could not write everything ends with status 1 and leaves
 * qmail-newu and the restart alone. */
#include "fs/file_str.h"
#include "restore/apply_effects.h"
#include "runtime/config.h"
#include "support/rebox_run.h"
#include "support/snapshot.h"
#include "support/testdb.h"

#include <gtest/gtest.h>

#include <string.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/wait.h>
#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <map>
#include <random>
#include <sstream>
#include <string>
#include <vector>

namespace {

const char *const SHARED[] = {"control/rcpthosts", "control/virtualdomains", "control/rejectnonexist",
                              "users/assign", "users/poppasswd"};

typedef std::map<std::string, std::string> Files;

/* One stored hash for every mailbox: runs in different seconds write the
 * same POP3 lines. */
const char STORED_HASHES[] = "UPDATE accounts SET type='crypt', password='$1$abcdefgh$0123456789abcdefghijkl';"
                             "UPDATE mail SET account_id = (SELECT MIN(id) FROM accounts); COMMIT";

std::string qmail(const std::string &rel)
{
    return sandbox_path("qmail/" + rel);
}

std::vector<std::string> lines_of(const std::string &text)
{
    std::vector<std::string> out;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);)
        out.push_back(line);
    return out;
}

void run_or_fail(const std::string &command)
{
    CommandResult r = run_command(command);
    ASSERT_EQ(r.status, 0) << command << ": " << r.err;
}

/* shared_files - the content of each shared file, "(missing)" for none */
Files shared_files(void)
{
    Files f;
    for (const char *rel : SHARED)
        f[rel] = access(qmail(rel).c_str(), F_OK) == 0 ? read_file(qmail(rel)) : "(missing)";
    return f;
}

/* prepare_qmail - the qmail directories, fresh stand-ins, and a previous
 * content of its own in every shared file */
Files prepare_qmail(void)
{
    for (const char *dir : {"control", "users", "bin"})
        mkdir(qmail(dir).c_str(), 0755);
    rebox_standins();
    for (const char *rel : SHARED)
        write_file(qmail(rel), std::string("previous.") + (strrchr(rel, '/') + 1) + ".example\n");
    return shared_files();
}

/* qmail_left_alone - neither qmail-newu nor the init script was run */
bool qmail_left_alone(void)
{
    return standin_calls(STANDIN_QMAIL_NEWU) + standin_calls(STANDIN_QMAIL_INIT) == 0;
}

/* debris - entries of control/ and users/ but the shared files and their
 * temporaries */
std::string debris(void)
{
    return run_command("cd \"$REBOX_SANDBOX/qmail\" && ls -d control/* users/* | grep -v -x -E "
                       "'(control/(rcpthosts|virtualdomains|rejectnonexist)|users/(assign|poppasswd))(\\.tmp)?'").out;
}

/* check_after_failure - every shared file its previous or its complete new
 * content, no debris, and unless all are new, status 1 and qmail alone */
void check_after_failure(const CommandResult &r, const Files &before, const Files &complete, const std::string &where)
{
    Files now = shared_files();
    for (const char *rel : SHARED)
        EXPECT_TRUE(now[rel] == before.at(rel) || now[rel] == complete.at(rel)) << where << ": " << rel
                                                                                 << " is torn: [" << now[rel] << "]";
    EXPECT_EQ(debris(), "") << where;
    if (now != complete) {
        EXPECT_EQ(r.status, 1) << where << ": " << r.err;
        EXPECT_TRUE(qmail_left_alone()) << where;
    }
}

struct Usage {
    unsigned long blocks, inodes;
};

Usage usage(const std::string &dir)
{
    struct statvfs s;
    EXPECT_EQ(statvfs(dir.c_str(), &s), 0);
    return Usage{s.f_blocks - s.f_bfree, s.f_files - s.f_ffree};
}

/* editor - editor p's 2,500 edits of lines of its own (appended, put
 * first, removed, removed by ending), run when path is given; the lines
 * they leave */
std::vector<std::string> editor(int p, const char *path, int *failures)
{
    std::mt19937 rng(p + 1);
    std::vector<std::string> live;
    for (int i = 0; i < 2500; i++) {
        int kind = rng() % 8;
        std::string line = "ed-" + std::to_string(p) + "-" + std::to_string(i) + ".example";
        if (kind < 4 || live.empty()) {
            int mode = kind == 0 ? FILE_STR_AT_BEGIN : FILE_STR_AT_END;
            if (path)
                *failures += file_str(&APPLY_EFFECTS, path, line.c_str(), FILE_STR_ADD, mode) != 0;
            live.push_back(line);
            continue;
        }
        size_t k = rng() % live.size();
        line = live[k];
        live.erase(live.begin() + k);
        if (path && kind < 7)
            *failures += file_str(&APPLY_EFFECTS, path, line.c_str(), FILE_STR_REMOVE, 1) != 0;
        else if (path)
            *failures += file_str(&APPLY_EFFECTS, path, line.substr(2).c_str(), FILE_STR_REMOVE_MATCHING, FILE_STR_SUFFIX) != 0;
    }
    return live;
}

class RebuildFaults : public testing::Test {
protected:
    void SetUp() override
    {
        REQUIRE_SANDBOX();
        ASSERT_NO_FATAL_FAILURE(testdb_reset());
    }
    void TearDown() override
    {
        if (!db_dir.empty())
            run_command(std::string(REBOX_TEST_SUPPORT_DIR) + "/db-server stop " + db_dir);
    }
    /* own_db_server - a server of this test's own, which it may stop */
    void own_db_server(void)
    {
        db_dir = sandbox_path("db");
        ASSERT_NO_FATAL_FAILURE(run_or_fail(std::string(REBOX_TEST_SUPPORT_DIR) + "/db-server start " + db_dir));
        ASSERT_NO_FATAL_FAILURE(run_or_fail("ln -sfn " + db_dir + "/mysqld.sock \"$REBOX_DB_SOCKET\""));
        ASSERT_NO_FATAL_FAILURE(testdb_reset());
    }
    /* mount_qmail - the qmail root on a tmpfs of its own, qmail/bin kept on
     * disk for the stand-ins' records */
    void mount_qmail(const std::string &options)
    {
        std::string root = sandbox_path("qmail");
        run_command("umount -R " + root + " 2>/dev/null");
        mkdir(sandbox_path("qmail-bin").c_str(), 0755);
        ASSERT_NO_FATAL_FAILURE(run_or_fail("mount -t tmpfs -o " + options + " tmpfs " + root + " && mkdir " + root +
                                            "/bin && mount --bind " + sandbox_path("qmail-bin") + " " + root + "/bin"));
    }
    /* rebuilt - the shared files of the full panel (sql run after it)
     * rebuilt once, on a tmpfs when mount options are given */
    Files rebuilt(const char *sql = STORED_HASHES, const std::string &mount = "")
    {
        load_sql_file("panel_full.sql");
        if (sql != nullptr)
            testdb_exec(sql);
        if (!mount.empty())
            mount_qmail(mount);
        prepare_qmail();
        CommandResult r = run_rebox("--without-spam");
        EXPECT_EQ(r.status, 0) << r.err;
        return shared_files();
    }
    std::string db_dir;
};

} // namespace

TEST_F(RebuildFaults, FullFileSystemLeavesSharedFilesWholeAndQmailAlone)
{
    std::string sql = generated_panel(12, 6, 7) + STORED_HASHES;
    ASSERT_NO_FATAL_FAILURE(testdb_exec(sql.c_str()));
    std::string root = sandbox_path("qmail");

    /* The complete contents, and the blocks and inodes a pass takes. */
    ASSERT_NO_FATAL_FAILURE(mount_qmail("size=64m"));
    prepare_qmail();
    Usage base = usage(root);
    CommandResult r = run_rebox("--without-spam");
    ASSERT_EQ(r.status, 0) << r.err;
    Files complete = shared_files();
    Usage full = usage(root);
    ASSERT_GT(full.blocks, base.blocks + 20);

    /* The file system filling up at points of the pass, by blocks or inodes. */
    for (double part : {0.1, 0.5, 0.9, 0.99})
        for (int by_inodes = 0; by_inodes < 2; by_inodes++) {
            unsigned long blocks = by_inodes ? 16384 : base.blocks + (unsigned long)(part * (full.blocks - base.blocks));
            unsigned long inodes = by_inodes ? base.inodes + (unsigned long)(part * (full.inodes - base.inodes)) : 100000;
            std::string where = std::to_string(blocks) + " blocks, " + std::to_string(inodes) + " inodes";
            ASSERT_NO_FATAL_FAILURE(mount_qmail("size=" + std::to_string(blocks * 4096) + ",nr_inodes=" +
                                                std::to_string(inodes)));
            Files before = prepare_qmail();
            r = run_rebox("--without-spam");
            check_after_failure(r, before, complete, where);
            EXPECT_NE(r.err.find("No space left on device"), std::string::npos) << where << ": " << r.err;
            /* No quota file is left empty either. */
            CommandResult q = run_command("find " + root + "/mailnames -name @mbox.quota -empty");
            EXPECT_EQ(q.out, "") << where;
        }
}

TEST_F(RebuildFaults, DeniedWriteRenameOrLockStopsThePassCleanly)
{
    Files complete = rebuilt();
    CommandResult r;

    /* The fatal message comes last, and no shared file changes; a domain's
     * half-made mailbox is removed. */
    std::string control = qmail("control"), assign = qmail("users/assign"), pinned = sandbox_path("pinned");
    std::string locks = sandbox_path("vdo/var/lock/files"), locking = "Error occurred while locking the file ";
    std::string domain = qmail("mailnames/example.com");
    struct {
        std::string mount, target, error;
        bool locked;
    } cases[] = {
        {"mount --bind " + control + " " + control + " && mount -o remount,bind,ro " + control, control,
         "Read-only file system", false},
        {"mount --bind " + pinned + " " + assign, assign, "Device or resource busy", false},
        {"mkdir -p -m 700 " + domain + " && chown \"$REBOX_POPUSER_UID:$REBOX_POPUSER_GID\" " + domain +
             " && mount --bind " + domain + " " + domain + " && mount -o remount,bind,ro " + domain,
         domain, "Read-only file system", false},
        {"rm -r " + locks, locking + qmail("control/rcpthosts: No such file or directory"),
         "No such file or directory", true},
        {"mkdir " + locks + " && mount --bind " + locks + " " + locks + " && mount -o remount,bind,ro " + locks,
         locking + qmail("control/rcpthosts: Read-only file system"), "Read-only file system", true},
    };
    for (auto &c : cases) {
        SCOPED_TRACE(c.mount);
        Files before = prepare_qmail();
        write_file(pinned, before["users/assign"]);
        run_command("rm -rf " + qmail("mailnames"));
        ASSERT_NO_FATAL_FAILURE(run_or_fail(c.mount));
        r = run_rebox("--without-spam");
        EXPECT_NE(r.err.find(c.target), std::string::npos) << r.err;
        EXPECT_NE(r.err.find(c.error, r.err.rfind("rebox: ")), std::string::npos) << r.err;
        EXPECT_EQ(shared_files(), before);
        if (c.locked) {
            EXPECT_NE(access(qmail("mailnames").c_str(), F_OK), 0);
        }
        check_after_failure(r, before, complete, c.error);
        if (!c.locked)
            run_command("umount " + c.target);
    }
}

TEST_F(RebuildFaults, DatabaseStoppedHalfwayEndsThePassWithFinishedFilesIntact)
{
    ASSERT_NO_FATAL_FAILURE(own_db_server());
    Files complete = rebuilt();
    CommandResult r;
    std::string first = sandbox_path("qmail/mailnames/example.com");
    std::string finished = tree_snapshot(first);

    /* Mailbox 7's aliases, in the second domain, take a minute to read. */
    testdb_exec("RENAME TABLE mail_aliases TO mail_alias_rows;"
                "INSERT INTO mail_alias_rows (mn_id, alias) VALUES (7, 'slow');"
                "CREATE VIEW mail_aliases AS SELECT id, mn_id, "
                "IF(mn_id = 7 AND SLEEP(60) = 0, alias, alias) AS alias FROM mail_alias_rows");
    Files before = prepare_qmail();
    pid_t pass = start_rebox("--without-spam");
    std::string reading;
    for (int i = 0; i < 3000 && reading != "1\n"; i++) {
        usleep(10000);
        reading = run_command("mariadb --no-defaults -uroot -N -B --socket=" + db_dir + "/mysqld.sock -e \"SELECT "
                              "COUNT(*) FROM information_schema.processlist WHERE info LIKE 'SELECT alias FROM "
                              "mail_aliases WHERE mn_id=7%'\"").out;
    }
    ASSERT_EQ(reading, "1\n") << "the pass never reached mailbox 7";
    ASSERT_NO_FATAL_FAILURE(run_or_fail(std::string(REBOX_TEST_SUPPORT_DIR) + "/db-server stop " + db_dir));
    db_dir.clear();
    r = CommandResult{wait_status(pass), "", read_file(sandbox_path("rebox.err"))};
    EXPECT_NE(r.err.find("rebox: Unable to query alias for mail: "), std::string::npos) << r.err;
    EXPECT_EQ(r.status, 1) << r.err;
    EXPECT_TRUE(qmail_left_alone());
    check_after_failure(r, before, complete, "database stopped");
    /* What the pass had finished, the first domain's tree, is intact. */
    EXPECT_EQ(tree_snapshot(first), finished);
}

TEST_F(RebuildFaults, ConcurrentEditorsAndAPassLoseNothing)
{
    std::string sql = generated_panel(30, 4, 7) + STORED_HASHES;
    ASSERT_NO_FATAL_FAILURE(testdb_exec(sql.c_str()));
    ASSERT_NO_FATAL_FAILURE(mount_qmail("size=256m"));
    prepare_qmail();
    load_panel_config();
    std::string path = std::string(panel_config.QMAIL_ROOT_D) + "/control/rejectnonexist";

    /* The pass alone, from an empty file: the lines it owns. */
    write_file(path, "");
    CommandResult r = run_rebox("--without-spam");
    ASSERT_EQ(r.status, 0) << r.err;
    std::vector<std::string> want = lines_of(read_file(path));
    ASSERT_FALSE(want.empty());

    /* Again, with four editors of the same file at work. */
    write_file(path, "");
    pid_t pass = start_rebox("--without-spam");
    std::vector<pid_t> editors;
    for (int p = 0; p < 4; p++) {
        pid_t pid = fork();
        if (pid == 0) {
            int failures = 0;
            editor(p, path.c_str(), &failures);
            _exit(failures > 0);
        }
        editors.push_back(pid);
    }
    EXPECT_EQ(wait_status(pass), 0) << read_file(sandbox_path("rebox.err"));
    for (pid_t pid : editors)
        EXPECT_EQ(wait_status(pid), 0);

    for (int p = 0; p < 4; p++)
        for (const std::string &line : editor(p, nullptr, nullptr))
            want.push_back(line);
    std::vector<std::string> got = lines_of(read_file(path));
    std::sort(want.begin(), want.end());
    std::sort(got.begin(), got.end());
    EXPECT_EQ(got.size(), want.size());
    EXPECT_TRUE(got == want) << "lines lost or doubled";
}

/* fill_inodes - files in dir until the file system has no inode left */
void fill_inodes(const std::string &dir)
{
    mkdir(dir.c_str(), 0700);
    for (int i = 0;; i++) {
        int fd = open((dir + "/" + std::to_string(i)).c_str(), O_WRONLY | O_CREAT | O_EXCL, 0600);
        if (fd < 0)
            break;
        close(fd);
    }
}

/* A failed step on an existing mailbox or domain directory ends the run
 * with its message; the mail tree, its mail and shared files stay. */
TEST_F(RebuildFaults, FailedStepsKeepWhatWasThere)
{
    rebuilt(nullptr, "size=64m,nr_inodes=4000");
    std::string names = qmail("mailnames"), home = names + "/example.com/alpha";
    write_file(home + "/Maildir/new/1.mail", "stored mail\n");
    write_file(home + "/Maildir/cur/2.mail", "read mail\n");
    struct {
        const char *what, *setup, *message;
        int status;
    } rows[] = {
        {"no inode for a missing directory", "rmdir alpha/@attachments",
         "Unable to make %s/alpha/@attachments dir: No space left on device", 1},
        {"chown of an existing Maildir refused", "chown 0:0 alpha/Maildir && chattr +i alpha/Maildir",
         "Unable to chown %s/alpha/Maildir dir: Operation not permitted", 1},
        {"chmod of an existing domain directory refused", "chmod 750 . && chattr +i .",
         "ERROR: Unable to chmod %s: Operation not permitted", 255},
    };
    for (auto &row : rows) {
        SCOPED_TRACE(row.what);
        ASSERT_NO_FATAL_FAILURE(run_or_fail("cd " + names + "/example.com && " + row.setup));
        if (strstr(row.what, "inode"))
            fill_inodes(qmail("fill"));
        Files before = prepare_qmail();
        std::string tree = tree_snapshot(names);
        CommandResult r = run_rebox("--without-spam");
        EXPECT_EQ(r.status, row.status) << r.err;
        char message[512];
        snprintf(message, sizeof(message), row.message, (names + "/example.com").c_str());
        EXPECT_TRUE(has(r.err, message)) << r.err;
        EXPECT_EQ(tree_snapshot(names), tree);
        EXPECT_EQ(read_file(home + "/Maildir/new/1.mail"), "stored mail\n");
        EXPECT_EQ(shared_files(), before);
        EXPECT_TRUE(qmail_left_alone());
        run_command("cd " + names + "/example.com && chattr -i . alpha/Maildir; rm -rf " + qmail("fill"));
        ASSERT_EQ(run_rebox("--without-spam").status, 0);
    }
}

/* plant_deep - a chain of depth directories at path */
void plant_deep(const std::string &path, int depth)
{
    ASSERT_EQ(mkdir(path.c_str(), 0700), 0) << path;
    int fd = open(path.c_str(), O_RDONLY | O_DIRECTORY);
    for (int i = 0; i < depth && fd >= 0; i++) {
        mkdirat(fd, "d", 0700);
        int next = openat(fd, "d", O_RDONLY | O_DIRECTORY);
        close(fd);
        fd = next;
    }
    ASSERT_GE(fd, 0);
    close(fd);
}

/* open_fds - how many descriptors process pid has open */
int open_fds(pid_t pid)
{
    std::string dir = "/proc/" + std::to_string(pid) + "/fd";
    int n = 0;
    if (DIR *d = opendir(dir.c_str())) {
        while (readdir(d) != nullptr)
            n++;
        closedir(d);
    }
    return n;
}

/* Trees 100,000 levels deep planted where a file belongs are removed with
 * a handful of descriptors, the mailbox as without them. */
TEST_F(RebuildFaults, DeepPlantedTreesAreRemovedWithFewDescriptors)
{
    /* tmpfs: a disk file system makes the planting itself take minutes. */
    rebuilt(nullptr, "size=256m");
    std::string names = qmail("mailnames"), home = names + "/example.com/alpha";
    std::string tree = tree_snapshot(names);
    for (const char *name : {"/.qmail", "/@mbox.quota"}) {
        SCOPED_TRACE(name);
        unlink((home + name).c_str());
        ASSERT_NO_FATAL_FAILURE(plant_deep(home + name, 100000));
        pid_t pid = start_rebox("--without-spam");
        int most = 0, status = -1;
        for (;;) {
            most = std::max(most, open_fds(pid));
            int st;
            if (waitpid(pid, &st, WNOHANG) == pid) {
                status = WIFEXITED(st) ? WEXITSTATUS(st) : -1;
                break;
            }
            usleep(10000);
        }
        EXPECT_EQ(status, 0) << read_file(sandbox_path("rebox.err"));
        EXPECT_LT(most, 64);
        EXPECT_EQ(tree_snapshot(names), tree);
    }
}

/* A refused query ends the run with status 1 and its purpose, changing no
 * file (not even a quota changed earlier in the domain) and running
 * neither qmail-newu nor the restart. */
TEST_F(RebuildFaults, RefusedQueryEndsTheRunAndChangesNothing)
{
    const char *setup = "DELETE FROM Parameters WHERE parameter='catch_addr';"
                        "UPDATE Components SET version='4.33' WHERE name='drweb';"
                        "INSERT INTO Components (name, version) VALUES ('drweb-qmail', '1.0');"
                        "UPDATE mail SET virusfilter='any' WHERE id IN (1, 2)";
    const struct {
        const char *refuse, *message, *mode = "--without-spam";
    } cases[] = {
        {"RENAME TABLE Parameters TO Parameters_gone", "Unable to query domain parameter nonexist_mail: "},
        {"RENAME TABLE Limits TO Limits_gone", "Unable to query domain limit mbox_quota: "},
        {"RENAME TABLE clients TO clients_gone", "Unable to define clients email: "},
        {"ALTER TABLE mail RENAME COLUMN virusfilter TO virusfilter_gone", "Unable to query drweb mailnames: "},
        {"UPDATE Limits SET value='20971520' WHERE id=1; RENAME TABLE mail TO mail_gone",
         "Unable to query mailnames: "},
        /* Read as "off", a refused setting would switch the server-wide
         * spam filter off: spamctl is not run at all. */
        {"UPDATE Components SET version='3.4' WHERE name='vdo-spamassassin';"
         "INSERT INTO spamfilter (id, username) VALUES (99, '*@*');"
         "REPLACE INTO misc (param, val) VALUES ('spamfilter_enabled', 'true'); RENAME TABLE misc TO misc_rows;"
         "CREATE VIEW misc AS SELECT param, IF(param = 'spamfilter_enabled', (SELECT 1 UNION SELECT 2), val) AS val"
         " FROM misc_rows",
         "Unable to query parameter by query select val from misc where param='spamfilter_enabled': ",
         "--spam-only"},
    };
    const char *stamps = "cd \"$REBOX_SANDBOX\" && find qmail drweb -printf '%p %i %T@ %C@\\n' | sort";
    for (const auto &c : cases) {
        SCOPED_TRACE(c.refuse);
        ASSERT_NO_FATAL_FAILURE(testdb_reset());
        rebuilt(setup);
        ASSERT_NE(read_file(sandbox_path("drweb/users.conf")), "[version=2]\n");
        rebox_standins();
        std::string before = tree_snapshot(qmail("")) + tree_snapshot(sandbox_path("drweb")) + run_command(stamps).out;
        testdb_exec(c.refuse);
        CommandResult r = run_rebox(c.mode);
        EXPECT_EQ(r.status, 1) << r.err;
        EXPECT_NE(r.err.find(c.message), std::string::npos) << r.err;
        EXPECT_EQ(standin_calls(STANDIN_SPAMCTL), 0u);
        EXPECT_EQ(tree_snapshot(qmail("")) + tree_snapshot(sandbox_path("drweb")) + run_command(stamps).out, before);
        EXPECT_TRUE(qmail_left_alone());
    }
}

/* Quota files whose replacement fails on a full file system keep their
 * previous numbers. */
TEST_F(RebuildFaults, FullFileSystemKeepsTheQuotaNumbers)
{
    rebuilt(STORED_HASHES, "size=8m");
    std::string domain = qmail("mailnames/example.com/@mbox.quota"), mailbox = qmail("mailnames/example.com/alpha/@mbox.quota");
    ASSERT_EQ(read_file(domain), "10240\n");
    ASSERT_EQ(read_file(mailbox), "1024\n");
    testdb_exec("UPDATE Limits SET value='20971520' WHERE id=1; UPDATE mail SET mbox_quota=2097152 WHERE id=1");
    run_command("dd if=/dev/zero of=" + qmail("filler") + " bs=64k");
    CommandResult r = run_rebox("--without-spam");
    EXPECT_NE(r.err.find("No space left on device"), std::string::npos) << r.err;
    EXPECT_EQ(read_file(domain), "10240\n");
    EXPECT_EQ(read_file(mailbox), "1024\n");
}

/* An administrator's link in place of a shared file stays a link to the
 * panel's text; a cut run's temporary file beside one is removed unread. */
TEST_F(RebuildFaults, LinkedSharedFileAndLeftoverTemporary)
{
    rebuilt();
    Files complete = shared_files();
    std::string real = sandbox_path("etc-mail/rcpthosts-real"), link = qmail("control/rcpthosts");
    mkdir(sandbox_path("etc-mail").c_str(), 0755);
    write_file(real, "previous.example\n");
    unlink(link.c_str());
    ASSERT_EQ(symlink(real.c_str(), link.c_str()), 0);
    write_file(qmail("users/assign.tmp"), "junk:line\n");
    CommandResult r = run_rebox("--without-spam");
    EXPECT_EQ(r.status, 0) << r.err;
    struct stat st;
    EXPECT_TRUE(lstat(link.c_str(), &st) == 0 && S_ISLNK(st.st_mode));
    EXPECT_EQ(read_file(real), complete["control/rcpthosts"]);
    EXPECT_EQ(shared_files(), complete);
    EXPECT_NE(access(qmail("users/assign.tmp").c_str(), F_OK), 0);
    EXPECT_NE(access((real + ".tmp").c_str(), F_OK), 0);
}
