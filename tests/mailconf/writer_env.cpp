/* writer_env - set-up and checks shared by the tests of the qmail writers. */
#include "mailconf/writer_env.h"

#include "runtime/config.h"
#include "support/testdb.h"

#include <sys/stat.h>
#include <unistd.h>

void writers_setup(std::initializer_list<const char *> domain_rows)
{
    load_panel_config();
    testdb_reset();
    for (const char *row : domain_rows) {
        std::string r = row, sp = r.substr(0, r.find(' '));
        testdb_exec(("INSERT INTO domains (id, name, cl_id) VALUES (" + sp + ", '" +
                     r.substr(sp.size() + 1) + "', 5)").c_str());
    }
    mkdir(panel_config.QMAIL_MAILNAMES_D, 0755);
    write_file(qmail_path("users/assign"), ".\n");
    for (const char *name : {"users/poppasswd", "control/rcpthosts", "control/virtualdomains"})
        write_file(qmail_path(name), "");
}

std::string qmail_path(const std::string &relative)
{
    return sandbox_path("qmail/" + relative);
}

std::string mailnames_path(const std::string &relative)
{
    return sandbox_path("qmail/mailnames/" + relative);
}

void block_file(const std::string &path)
{
    unlink(path.c_str());
    ASSERT_EQ(mkdir(path.c_str(), 0755), 0) << path;
}

void break_db_login(void)
{
    unlink("/etc/vdo/.vdo.shadow");
}

void expect_refused(const std::vector<Writer> &writers, std::initializer_list<const char *> values)
{
    std::string before = tree_snapshot(sandbox_root());
    for (const char *v : values)
        for (const Writer &w : writers)
            EXPECT_EXIT(w.call(v), testing::ExitedWithCode(1), w.message) << (v ? v : "(null)");
    EXPECT_EQ(tree_snapshot(sandbox_root()), before);
}
