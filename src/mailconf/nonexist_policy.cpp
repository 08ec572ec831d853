/* nonexist_policy - reject, bounce or catch-all for unknown recipients of
 * a domain (see nonexist_policy.h). */
#include "mailconf/nonexist_policy.h"

#include "db/get.h"
#include "fs/file_str.h"
#include "fs/file_util.h"
#include "mailconf/idn.h"
#include "mailconf/qmail_common.h"
#include "runtime/config.h"
#include "runtime/report.h"

#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

/* The popuser ids of add_bounce, looked up once per process. */
static PopuserIds bounce_popuser;

/* mail_parameter - a parameter of the domain's mail service copied into
 * buf; the empty text when absent or unreadable */
static const char *mail_parameter(const char *domain_id, const char *name, MYSQL *conn,
                                  char *buf)
{
    const char *value = get_DomainService_Parameter(domain_id, "mail", name, conn);

    snprintf(buf, QMAIL_BUF_SIZE, "%s", value ? value : "");
    return buf;
}

int restore_nonexist_policy(const char *domain, const char *domain_id, MYSQL *conn)
{
    char policy[QMAIL_BUF_SIZE], value[QMAIL_BUF_SIZE];
    /* Held zero-filled in a buffer of its own, like any other text. */
    char default_text[QMAIL_BUF_SIZE] = DEFAULT_BOUNCE_TEXT;

    mail_parameter(domain_id, "nonexist_mail", conn, policy);
    if (*policy == '\0') {
        set_bounce_message(domain, default_text);
    } else if (strcmp(policy, "catch") == 0) {
        mail_parameter(domain_id, "catch_addr", conn, value);
        if (*value == '\0') {
            const char *email = get_client_email(domain_id, conn);
            if (email != nullptr && *email != '\0')
                snprintf(value, sizeof(value), "%s", email);
            else
                snprintf(value, sizeof(value), "root@%s", domain);
        }
        set_catch_all(domain, value);
    } else if (strcmp(policy, "bounce") == 0) {
        mail_parameter(domain_id, "bounce_mess", conn, value);
        set_bounce_message(domain, *value != '\0' ? value : default_text);
    } else {
        set_reject(domain, 0);
        set_reject(domain, 1);
    }
    return 0;
}

int set_reject(const char *domain, int on)
{
    char path[QMAIL_BUF_SIZE];
    int failed;

    if (domain == nullptr || *domain == '\0')
        report(1, "set_reject: empty domain");
    char *ascii = domain_ascii(domain);
    qmail_file_path(path, sizeof(path), QMAIL_REJECTNONEXIST_FILE);
    if (create_file(path) != 0)
        report(1, "set_reject: Unable to create %s file.", path);
    if (on)
        failed = file_str(path, ascii, FILE_STR_ADD, FILE_STR_AT_END);
    else
        failed = file_str(path, ascii, FILE_STR_REMOVE, 1);
    if (failed)
        report(1, "set_reject: Unable to update %s file.", path);
    free(ascii);
    if (chmod(path, 0644) != 0)
        report(1, "set_reject: chmod %s failed: %s\n", path, strerror(errno));
    return 0;
}

int add_reject(const char *domain)
{
    set_reject(domain, 0);
    return set_reject(domain, 1);
}

int remove_reject(const char *domain)
{
    return set_reject(domain, 0);
}

int add_bounce(const char *domain, const char *line)
{
    char path[QMAIL_BUF_SIZE];

    if (domain == nullptr || *domain == '\0')
        report(1, "add_bounce: empty domain");
    char *ascii = domain_ascii(domain);
    if (!popuser_known(&bounce_popuser))
        report(1, "add_bounce: Unable to define UID or GID for user popuser");
    snprintf(path, sizeof(path), "%s/%s/.qmail-default", panel_config.QMAIL_MAILNAMES_D,
             ascii);
    free(ascii);

    unlink(path);
    if (file_str(path, line, FILE_STR_ADD, FILE_STR_AT_END) != 0)
        report(1, "add_bounce: Unable to add record to %s file.", path);
    if (chown(path, bounce_popuser.uid, bounce_popuser.gid) != 0)
        report(1, "add_bounce: chown %s failed: %s", path, strerror(errno));
    if (chmod(path, 0600) != 0)
        report(1, "add_bounce: chmod %s failed: %s\n", path, strerror(errno));
    return 0;
}

int set_bounce_message(const char *domain, const char *text)
{
    /* A null text bounces with an empty message rather than crashing. */
    std::string copy = text ? text : "";

    for (char &c : copy)
        if (c == '\n')
            c = ' ';
    std::string line = "|bouncesaying " + shell_escape(copy);
    set_reject(domain, 0);
    return add_bounce(domain, line.c_str());
}

int set_catch_all(const char *domain, const char *address)
{
    char line[QMAIL_BUF_SIZE];
    char *converted = idn_email_toascii_safe(address);

    /* At most 4095 bytes, like every line of the writers. */
    snprintf(line, sizeof(line), "&%s", converted);
    free(converted);
    set_reject(domain, 0);
    return add_bounce(domain, line);
}
