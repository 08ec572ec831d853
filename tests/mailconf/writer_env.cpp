/* writer_env - set-up shared by the tests of the qmail writers. */
#include "mailconf/writer_env.h"

#include "runtime/config.h"
#include "support/sandbox.h"
#include "support/testdb.h"

#include <stdio.h>
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

std::string ownership(const std::string &path)
{
    struct stat st;
    char buf[64];

    if (lstat(path.c_str(), &st) != 0)
        return "";
    snprintf(buf, sizeof(buf), "%u:%u:%o", (unsigned)st.st_uid, (unsigned)st.st_gid,
             (unsigned)(st.st_mode & 07777));
    return buf;
}

std::string popuser_owned(unsigned mode)
{
    char buf[64];

    snprintf(buf, sizeof(buf), "7781:7781:%o", mode);
    return buf;
}

void break_db_login(void)
{
    unlink("/etc/vdo/.vdo.shadow");
}
