/* rebox_run - the real binary in the sandbox, with recording stand-ins. */
#include "support/rebox_run.h"

#include "support/testdb.h"

#include <sys/stat.h>

void rebox_standins(int qmail_newu_exit, int qmail_init_exit)
{
    mkdir(sandbox_path("vdo/admin/sbin").c_str(), 0755);
    write_recording_stub(sandbox_path(STANDIN_QMAIL_NEWU), qmail_newu_exit);
    write_recording_stub(sandbox_path(STANDIN_QMAIL_INIT), qmail_init_exit);
    write_recording_stub(sandbox_path(STANDIN_VIRUSCTL), 0);
    write_recording_stub(sandbox_path(STANDIN_SPAMCTL), 0);
    /* The spam pass checks for the utility in admin/sbin, runs admin/bin's. */
    write_recording_stub(sandbox_path("vdo/admin/sbin/spamctl"), 0);
}

CommandResult run_rebox(const std::string &args)
{
#ifdef REBOX_EXE
    return run_command(std::string(REBOX_EXE) + " " + args);
#else
    ADD_FAILURE() << "the rebox binary was not built";
    return CommandResult{-1, "", ""};
#endif
}

void load_sql_file(const std::string &fixture_name)
{
    std::string sql = read_file(std::string(REBOX_TEST_FIXTURES_DIR) + "/" + fixture_name);
    ASSERT_FALSE(sql.empty()) << "empty or missing fixture " << fixture_name;
    testdb_exec(sql.c_str());
}
