/* rebox_run - the real binary in the sandbox, with recording stand-ins. */
#include "support/rebox_run.h"

#include "support/snapshot.h"
#include "support/testdb.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <regex>
#include <sstream>
#include <vector>

void rebox_standins(int qmail_newu_exit, int qmail_init_exit)
{
    mkdir(sandbox_path("vdo/admin/sbin").c_str(), 0755);
    for (const char *stub : {STANDIN_QMAIL_NEWU, STANDIN_QMAIL_INIT, STANDIN_VIRUSCTL, STANDIN_SPAMCTL,
                             "vdo/admin/sbin/spamctl"})
        unlink(sandbox_path(std::string(stub) + ".calls").c_str());
    write_recording_stub(sandbox_path(STANDIN_QMAIL_NEWU), qmail_newu_exit);
    write_recording_stub(sandbox_path(STANDIN_QMAIL_INIT), qmail_init_exit);
    write_recording_stub(sandbox_path(STANDIN_VIRUSCTL), 0);
    write_recording_stub(sandbox_path(STANDIN_SPAMCTL), 0);
    /* The spam pass checks for the utility in admin/sbin, runs admin/bin's. */
    write_recording_stub(sandbox_path("vdo/admin/sbin/spamctl"), 0);
}

size_t standin_calls(const char *standin)
{
    return read_calls(sandbox_path(standin)).size();
}

CommandResult run_rebox(const std::string &args)
{
    return run_command(REBOX_EXE " " + args);
}

void load_sql_file(const std::string &fixture_name)
{
    std::string sql = read_file(std::string(REBOX_TEST_FIXTURES_DIR) + "/" + fixture_name);
    ASSERT_FALSE(sql.empty()) << "empty or missing fixture " << fixture_name;
    testdb_exec(sql.c_str());
}

FreshRun fresh_run(const std::string &command_line, bool empty)
{
    if (empty)
        run_command("cd \"$REBOX_SANDBOX\" && rm -rf qmail/mailnames drweb/* qmail/control/* qmail/users/*");
    rebox_standins();
    FreshRun o;
    o.run = run_command(command_line);
    o.tree = tree_snapshot(sandbox_path("qmail/mailnames")) + tree_snapshot(sandbox_path("qmail/control")) +
             std::regex_replace(tree_snapshot(sandbox_path("qmail/users")), std::regex("\\$1\\$[^:\n]*"), "<hash>") +
             read_file(sandbox_path(STANDIN_SPAMCTL ".calls")) + read_file(sandbox_path(STANDIN_VIRUSCTL ".calls"));
    return o;
}

std::string generated_panel(int domains, int per_domain, int seed)
{
    CommandResult r = run_command(std::string(REBOX_TEST_FIXTURES_DIR) + "/../../bench/generate " +
                                  std::to_string(domains) + " " + std::to_string(per_domain) + " " +
                                  std::to_string(seed));
    EXPECT_EQ(r.status, 0) << r.err;
    return r.out;
}

pid_t start_rebox(const char *args)
{
    std::string out = sandbox_path("rebox.out"), err = sandbox_path("rebox.err");
    std::istringstream words(args);
    std::vector<std::string> list = {REBOX_EXE};
    for (std::string w; words >> w;)
        list.push_back(w);
    std::vector<char *> argv;
    for (std::string &w : list)
        argv.push_back(w.data());
    argv.push_back(nullptr);
    fflush(nullptr);
    pid_t pid = fork();
    if (pid == 0) {
        dup2(open(out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644), 1);
        dup2(open(err.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644), 2);
        execv(REBOX_EXE, argv.data());
        _exit(127);
    }
    return pid;
}

int wait_status(pid_t pid)
{
    int status = 0;
    return waitpid(pid, &status, 0) == pid && WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}
