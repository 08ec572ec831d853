/* writer_env - set-up shared by the tests of the qmail writers. */
#include "mailconf/writer_env.h"

#include "runtime/config.h"
#include "support/sandbox.h"
#include "support/testdb.h"

#include <stdio.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

void writers_setup(void)
{
    load_panel_config();
    testdb_reset();
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

void add_domain_row(int id, const char *name)
{
    std::string sql = "INSERT INTO domains (id, name) VALUES (" + std::to_string(id) + ", '" +
                      name + "')";
    testdb_exec(sql.c_str());
}

std::string ownership(const std::string &path)
{
    struct stat st;
    char buf[64];

    if (lstat(path.c_str(), &st) != 0)
        return "";
    snprintf(buf, sizeof(buf), "%u:%u:%o", static_cast<unsigned>(st.st_uid),
             static_cast<unsigned>(st.st_gid), static_cast<unsigned>(st.st_mode & 07777));
    return buf;
}

std::string popuser_owned(unsigned mode)
{
    char buf[64];

    snprintf(buf, sizeof(buf), "%s:%s:%o", getenv("REBOX_POPUSER_UID"),
             getenv("REBOX_POPUSER_GID"), mode);
    return buf;
}

void break_db_login(void)
{
    unlink("/etc/vdo/.vdo.shadow");
}
