/* nonexist_policy - reject, bounce or catch-all for unknown recipients of
 * a domain (see nonexist_policy.h). */
#include "mailconf/nonexist_policy.h"

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

#include <string>

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

/* reject_line - the domain's ASCII name taken out of or put last into
 * control/rejectnonexist (made when missing), its mode 0644 after */
static void reject_line(const Effects *fx, const char *ascii, int on)
{
    char path[QMAIL_BUF_SIZE];

    qmail_file_path(path, sizeof(path), QMAIL_REJECTNONEXIST_FILE);
    /* Made when missing: an addition of no lines creates the file (in
     * the rebuild's memory when it holds the file). */
    const char *none[] = {nullptr};
    if (file_str_list(fx, path, none, FILE_STR_ADD, FILE_STR_AT_END) != 0)
        report(1, "set_reject: Unable to create %s file.", path);
    int failed = on ? file_str(fx, path, ascii, FILE_STR_ADD, FILE_STR_AT_END)
                    : file_str(fx, path, ascii, FILE_STR_REMOVE, 1);
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

    mail_path(path, d->ascii, nullptr, DEFAULT_DELIVERY_FILE);
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
            if (errno != ENOLINK)
                report_plain(0, "Skipping %s: a link or another kind of object stands where a file belongs", path);
            return;
        }
        if (step == STEP_CHOWN || step == STEP_CHMOD)
            report(1, step == STEP_CHOWN ? "add_bounce: chown %s failed: %s" : "add_bounce: chmod %s failed: %s\n",
                   path, strerror(errno));
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

/* bounce_text - the text a bouncing policy sends: the domain's own, or
 * the default one when it has none or no policy at all */
static const char *bounce_text(const NonexistPolicy *p)
{
    if (p->choice[0] == '\0' || p->value[0] == '\0')
        return DEFAULT_BOUNCE_TEXT;
    return p->value;
}

/* apply - write policy p of domain d; line is the catch-all line a
 * "catch" policy makes */
static void apply(const MailDomain *d, const NonexistPolicy *p, const char *line)
{
    reject_line(d->fx, d->ascii, 0);
    if (p->choice[0] == '\0' || strcmp(p->choice, "bounce") == 0)
        put_default(d, bounce_line(bounce_text(p)).c_str());
    else if (strcmp(p->choice, "catch") == 0)
        put_default(d, line);
    else
        reject_line(d->fx, d->ascii, 1);
}

const char *restore_nonexist_policy_checked(const MailDomain *d, const NonexistPolicy *p, int *rejects)
{
    static char reason[QMAIL_BUF_SIZE];
    char line[QMAIL_BUF_SIZE], shown[VALUE_PRINTABLE_SIZE];

    *rejects = 0;
    if (p->has_nul)
        return "a policy value must not contain a NUL byte";
    if (strcmp(p->choice, "catch") == 0) {
        if (const char *why = catch_line(p->value, line)) {
            snprintf(reason, sizeof(reason), "catch-all address '%s': %s",
                     value_printable(p->value, shown, sizeof(shown)), why);
            return reason;
        }
    }
    apply(d, p, line);
    *rejects = strcmp(p->choice, "reject") == 0;
    return nullptr;
}

int restore_nonexist_policy(const MailDomain *d, const NonexistPolicy *p)
{
    char line[QMAIL_BUF_SIZE], shown[VALUE_PRINTABLE_SIZE];

    if (strcmp(p->choice, "catch") == 0)
        if (const char *why = catch_line(p->value, line))
            report_plain(1, "%s(%s) failed: %s", "idn_email_toascii_safe",
                         value_printable(p->value, shown, sizeof(shown)), why);
    apply(d, p, line);
    return 0;
}

int set_reject(const Effects *fx, const char *domain, int on)
{
    char *ascii = domain_ascii_valid(domain, "set_reject: empty domain");

    reject_line(fx, ascii, on);
    free(ascii);
    return 0;
}

int add_reject(const Effects *fx, const char *domain)
{
    char *ascii = domain_ascii_valid(domain, "set_reject: empty domain");

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
    if (const char *why = catch_line(address, line))
        report_plain(1, "%s(%s) failed: %s", "idn_email_toascii_safe",
                     value_printable(address, shown, sizeof(shown)), why);
    set_reject(d->fx, d->name, 0);
    return add_bounce(d, line);
}
