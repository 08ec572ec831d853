/* nonexist_policy - reject, bounce or catch-all for unknown recipients of
 * a domain (see nonexist_policy.h). */
#include "mailconf/nonexist_policy.h"

#include "db/get.h"
#include "db/pipeline.h"
#include "fs/file_str.h"
#include "fs/at_name.h"
#include "mailconf/idn.h"
#include "mailconf/qmail_common.h"
#include "mailconf/value_check.h"
#include "runtime/config.h"
#include "runtime/report.h"

#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

/* mail_parameter - a parameter of the domain's mail service copied into
 * buf; the empty text when absent.  The rebuild makes a refused query end
 * the run (get_refusals_fatal), so there "" is never a refusal read as
 * "no policy", which would turn a rejecting or catch-all domain into a
 * bouncing one. */
static const char *mail_parameter(const char *domain_id, const char *name, MYSQL *conn,
                                  char *buf)
{
    const char *value = get_DomainService_Parameter(domain_id, "mail", name, conn);

    snprintf(buf, QMAIL_BUF_SIZE, "%s", value ? value : "");
    return buf;
}

/* catch_address - the address a "catch" domain delivers to, into buf: its
 * catch_addr, else its client's e-mail, else root at the domain */
static void catch_address(const char *domain, const char *domain_id, MYSQL *conn, char *buf)
{
    mail_parameter(domain_id, "catch_addr", conn, buf);
    if (*buf != '\0')
        return;
    const char *email = get_client_email(domain_id, conn);
    if (email != nullptr && *email != '\0')
        snprintf(buf, QMAIL_BUF_SIZE, "%s", email);
    else
        snprintf(buf, QMAIL_BUF_SIZE, "root@%s", domain);
}

/* catch_line - the catch-all line "&" and the converted address, into line;
 * null, or why the address cannot make it: the conversion's error text, or
 * the rule of check_forward_address it breaks */
static const char *catch_line(const char *address, char *line)
{
    char *converted = idn_email_toascii(address);

    if (converted == nullptr)
        return idn_error_text(idn_last_error);
    const char *why = check_forward_address(converted);
    /* At most 4095 bytes, like every line of the writers (an address that
     * passes the rule is far shorter). */
    if (why == nullptr)
        snprintf(line, QMAIL_BUF_SIZE, "&%s", converted);
    free(converted);
    return why;
}

/* policy_nul_query - the query of policy_has_nul into buf */
static const char *policy_nul_query(const char *domain_id, char *buf, size_t size)
{
    snprintf(buf, size,
             "SELECT COUNT(*) FROM DomainServices s, Parameters r WHERE s.dom_id='%s' AND "
             "s.type='mail' AND s.parameters_id=r.id AND r.parameter IN ('nonexist_mail', "
             "'catch_addr', 'bounce_mess') AND INSTR(r.value, CHAR(0)) > 0",
             domain_id);
    return buf;
}

/* policy_has_nul - 1 when one of the domain's policy parameters holds a
 * NUL byte, which the parameter lookups would silently cut the value at.
 * A refused query ends the process: read as "no NUL", it would let a cut
 * value replace the domain's policy. */
static int policy_has_nul(const char *domain_id, MYSQL *conn)
{
    char query[QMAIL_BUF_SIZE];
    MYSQL_RES *res;

    if (pipeline_ask(conn, policy_nul_query(domain_id, query, sizeof(query)), &res) != 0) {
        errno = 0;
        report(1, "Unable to query the unknown-recipient policy of domain id %s: %s\n", domain_id,
               mysql_error(conn));
    }
    MYSQL_ROW row = res != nullptr ? mysql_fetch_row(res) : nullptr;
    int found = row != nullptr && row[0] != nullptr && strcmp(row[0], "0") != 0;
    if (res != nullptr)
        mysql_free_result(res);
    return found;
}

void nonexist_policy_prefetch(const char *domain_id)
{
    char query[QMAIL_BUF_SIZE];

    if (strpbrk(domain_id, "'\\") != nullptr)
        return;
    pipeline_prefetch(policy_nul_query(domain_id, query, sizeof(query)));
    pipeline_prefetch(domain_service_parameter_query(domain_id, "mail", "nonexist_mail", query,
                                                     sizeof(query)));
}

/* work_out - read the domain's policy, each parameter once: its
 * nonexist_mail value into policy, and into value the catch-all address
 * ("catch") or the bounce text (a bounce, the default one included) */
static void work_out(const char *domain, const char *domain_id, MYSQL *conn, char *policy,
                     char *value)
{
    mail_parameter(domain_id, "nonexist_mail", conn, policy);
    *value = '\0';
    if (strcmp(policy, "catch") == 0)
        catch_address(domain, domain_id, conn, value);
    else if (strcmp(policy, "bounce") == 0)
        mail_parameter(domain_id, "bounce_mess", conn, value);
    if (*policy == '\0' || (strcmp(policy, "bounce") == 0 && *value == '\0'))
        snprintf(value, QMAIL_BUF_SIZE, "%s", DEFAULT_BOUNCE_TEXT);
}

/* reject_line - the domain's ASCII name taken out of or put last into
 * control/rejectnonexist (made when missing), its mode 0644 after */
static void reject_line(const Effects *fx, const char *ascii, int on)
{
    char path[QMAIL_BUF_SIZE];
    int failed;

    qmail_file_path(path, sizeof(path), QMAIL_REJECTNONEXIST_FILE);
    /* Made when missing: an addition of no lines creates the file (in
     * the rebuild's memory when it holds the file). */
    const char *none[] = {nullptr};
    if (file_str_list(fx, path, none, FILE_STR_ADD, FILE_STR_AT_END) != 0)
        report(1, "set_reject: Unable to create %s file.", path);
    if (on)
        failed = file_str(fx, path, ascii, FILE_STR_ADD, FILE_STR_AT_END);
    else
        failed = file_str(fx, path, ascii, FILE_STR_REMOVE, 1);
    if (failed)
        report(1, "set_reject: Unable to update %s file.", path);
    FileStep step;
    if (file_owner_mode(fx, path, static_cast<uid_t>(-1), static_cast<gid_t>(-1), 0644, &step) != 0)
        report(1, "set_reject: chmod %s failed: %s\n", path, strerror(errno));
}

/* put_default - the .qmail-default of domain d holding the one line,
 * owned by popuser with mode 0600 */
static void put_default(const MailDomain *d, const char *line)
{
    char path[QMAIL_BUF_SIZE];

    snprintf(path, sizeof(path), "%s/%s/.qmail-default", panel_config.QMAIL_MAILNAMES_D, d->ascii);
    /* The file holds the one line: replaced whole, and only when its line,
     * owner or mode differ, so the delivery programs never find it empty. */
    std::string text = std::string(line) + "\n";
    FileStep step;
    if (file_put(d->fx, path, text.c_str(), d->uid, d->gid, 0600, &step) < 0) {
        /* Popuser's own directory: a link or another kind of object that
         * keeps standing where the file belongs (or root's link there)
         * leaves the file as it is, with a warning, and the run goes on;
         * so does a domain directory skipped by the domain writer. */
        if (at_in_the_way(errno)) {
            if (errno == ENOLINK)
                return;
            errno = 0;
            report(0, "Skipping %s: a link or another kind of object stands where a file belongs", path);
            return;
        }
        switch (step) {
        case STEP_CHOWN:
            report(1, "add_bounce: chown %s failed: %s", path, strerror(errno));
            break;
        case STEP_CHMOD:
            report(1, "add_bounce: chmod %s failed: %s\n", path, strerror(errno));
            break;
        default:
            break;
        }
        report(1, "add_bounce: Unable to add record to %s file.", path);
    }
}

/* bounce_line - the line that bounces with text: one line, each newline
 * turned into a space and every other byte, a carriage return too, left
 * to shell_escape; a null text bounces with an empty message */
static std::string bounce_line(const char *text)
{
    std::string copy = text ? text : "";

    for (char &c : copy)
        if (c == '\n')
            c = ' ';
    return "|bouncesaying " + shell_escape(copy);
}

/* apply - write the policy work_out() found for domain d */
static void apply(const MailDomain *d, const char *policy, const char *value)
{
    char line[QMAIL_BUF_SIZE], shown[VALUE_PRINTABLE_SIZE];

    if (*policy == '\0' || strcmp(policy, "bounce") == 0) {
        reject_line(d->fx, d->ascii, 0);
        put_default(d, bounce_line(value).c_str());
    } else if (strcmp(policy, "catch") == 0) {
        if (const char *why = catch_line(value, line)) {
            errno = 0;
            report(1, "%s(%s) failed: %s", "idn_email_toascii_safe", value_printable(value, shown, sizeof(shown)),
                   why);
        }
        reject_line(d->fx, d->ascii, 0);
        put_default(d, line);
    } else {
        reject_line(d->fx, d->ascii, 0);
        reject_line(d->fx, d->ascii, 1);
    }
}

/* restore_nonexist_policy_checked - restore_nonexist_policy, with the
 * values tested first: null when the policy was applied, else why not (a
 * static text), nothing then written.  A policy value holds a NUL byte,
 * or the catch-all address is refused; a bounce text always makes a line
 * (its newlines become spaces and shell_escape quotes the rest).
 * *rejects tells whether a reject policy was applied. */
const char *restore_nonexist_policy_checked(const MailDomain *d, int *rejects)
{
    MYSQL *conn = d->db;
    static char reason[QMAIL_BUF_SIZE];
    char policy[QMAIL_BUF_SIZE], value[QMAIL_BUF_SIZE], line[QMAIL_BUF_SIZE];
    char shown[VALUE_PRINTABLE_SIZE];

    *rejects = 0;
    if (conn != nullptr && policy_has_nul(d->id, conn))
        return "a policy value must not contain a NUL byte";
    work_out(d->name, d->id, conn, policy, value);
    if (strcmp(policy, "catch") == 0) {
        if (const char *why = catch_line(value, line)) {
            snprintf(reason, sizeof(reason), "catch-all address '%s': %s",
                     value_printable(value, shown, sizeof(shown)), why);
            return reason;
        }
    }
    apply(d, policy, value);
    *rejects = strcmp(policy, "reject") == 0;
    return nullptr;
}

int restore_nonexist_policy(const MailDomain *d)
{
    char policy[QMAIL_BUF_SIZE], value[QMAIL_BUF_SIZE];

    work_out(d->name, d->id, d->db, policy, value);
    apply(d, policy, value);
    return 0;
}

/* reject_ascii - the ASCII form of a domain or alias name for its reject
 * line (caller frees); an empty or refused name ends the process */
static char *reject_ascii(const char *domain)
{
    if (domain == nullptr || *domain == '\0') {
        errno = 0;
        report(1, "set_reject: empty domain");
    }
    return domain_ascii_valid(domain, "set_reject: empty domain");
}

int set_reject(const Effects *fx, const char *domain, int on)
{
    char *ascii = reject_ascii(domain);

    reject_line(fx, ascii, on);
    free(ascii);
    return 0;
}

int add_reject(const Effects *fx, const char *domain)
{
    char *ascii = reject_ascii(domain);

    /* Taken out, then put last: the name stands in the file once. */
    reject_line(fx, ascii, 0);
    reject_line(fx, ascii, 1);
    free(ascii);
    return 0;
}

int remove_reject(const Effects *fx, const char *domain)
{
    return set_reject(fx, domain, 0);
}

int add_bounce(const MailDomain *d, const char *line)
{
    /* A line that would break in two is refused like a bad domain name:
     * the file holds exactly one line (a carriage return is no line break
     * there, only a byte of it). */
    if (line == nullptr || strchr(line, '\n') != nullptr)
        value_refused("add_bounce: empty domain");
    put_default(d, line);
    return 0;
}

int set_bounce_message(const MailDomain *d, const char *text)
{
    set_reject(d->fx, d->name, 0);
    return add_bounce(d, bounce_line(text).c_str());
}

int set_catch_all(const MailDomain *d, const char *address)
{
    char line[QMAIL_BUF_SIZE], shown[VALUE_PRINTABLE_SIZE];

    /* An address that does not convert, or that would make the line a
     * program, a file or a special instruction, ends the process with the
     * conversion's message, before anything is touched. */
    if (const char *why = catch_line(address, line)) {
        errno = 0;
        report(1, "%s(%s) failed: %s", "idn_email_toascii_safe",
               value_printable(address, shown, sizeof(shown)), why);
    }
    set_reject(d->fx, d->name, 0);
    return add_bounce(d, line);
}
