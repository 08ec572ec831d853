/* antivirus - rebuild of the antivirus per-address file users.conf.
 *
 * The file starts with the head (the template users.conf.in when there is
 * one, else the line "[version=2]") followed by one record
 * "allow <direction> regex ^<address>$" per address.  Each record replaces
 * every earlier record form of its address, so an address appears once,
 * with the direction of the last row that named it.
 */
#include "filters/antivirus.h"

#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include "fs/file_str.h"
#include "fs/file_util.h"
#include "fs/held_file.h"
#include "fs/line_merge.h"
#include "fs/path_ops.h"
#include "mailconf/value_check.h"
#include "proc/exec.h"
#include "runtime/config.h"
#include "runtime/report.h"

#include <string_view>

static const size_t AV_BUF_SIZE = 4096;

/* The four row sources of the file, in the order their records are
 * written, each with the message for its failure.  Each ends in an ORDER
 * BY of its rows' identifiers (it answers none the pass could order by):
 * in the order the server happens to pick, a rerun on an unchanged panel
 * would rewrite users.conf. */
static const struct {
    const char *query;
    const char *failure;
    const char *domain; /* the column of the mailbox's domain */
} av_queries[] = {
    {"SELECT m.virusfilter, m.mail_name, d.name FROM mail m LEFT JOIN domains d ON m.dom_id=d.id "
     "WHERE m.virusfilter!='none' ORDER BY m.id",
     "Unable to query drweb mailnames: %s", "m.dom_id"},
    {"SELECT m.virusfilter, m.mail_name, da.name FROM mail m LEFT JOIN domainaliases da ON "
     "m.dom_id=da.dom_id WHERE m.virusfilter!='none' AND da.mail='true' AND da.status='0' ORDER BY m.id, da.id",
     "Unable to query drweb mailnames on domain aliases: %s", "m.dom_id"},
    {"SELECT mn.virusfilter, ma.alias, d.name FROM mail mn, domains d, mail_aliases ma WHERE "
     "ma.mn_id=mn.id AND mn.dom_id=d.id AND mn.virusfilter!='none' ORDER BY ma.id",
     "Unable to query drweb mail aliases: %s", "mn.dom_id"},
    {"SELECT mn.virusfilter, ma.alias, da.name FROM mail mn, domains d, mail_aliases ma, "
     "domainaliases da WHERE mn.dom_id=da.dom_id AND ma.mn_id=mn.id AND mn.dom_id=d.id AND "
     "mn.virusfilter!='none' ORDER BY ma.id, da.id",
     "Unable to query drweb mail aliases on domain aliases: %s", "mn.dom_id"},
};

/* users_conf_path - the file's path; the directory and the name are joined
 * with "%s/%s" and the name carries its own slash, so the text holds "//".
 * The named lock is derived from this exact text, as the other panel
 * utilities derive it. */
static void users_conf_path(char *buf, size_t size)
{
    snprintf(buf, size, "%s/%s", panel_config.DRWEB_ETC_D, "/users.conf");
}

int remove_antivirus_records(const Effects *fx, const char *domain, const char *local_part)
{
    char path[AV_BUF_SIZE];
    char address[AV_BUF_SIZE];

    users_conf_path(path, sizeof path);
    snprintf(address, sizeof address, "%s@%s", local_part, domain);

    char *forms[] = {
        xasprintf("allow\tfrom\tregex\t^%s$", address),
        xasprintf("allow\tto\tregex\t^%s$", address),
        xasprintf("allow\tany\tregex\t^%s$", address),
        xasprintf("allow\tfrom\texact\t%s", address),
        xasprintf("allow\tto\texact\t%s", address),
        xasprintf("allow\tany\texact\t%s", address),
        nullptr,
    };

    /* A missing file has nothing to remove: the result is not an error. */
    file_str_list(fx, path, forms, FILE_STR_REMOVE, FILE_STR_AT_END);
    set_owner_mode(fx, path, 0, 0, 0644);
    for (char **form = forms; *form; form++)
        free(*form);
    return 0;
}

int add_antivirus_record(const Effects *fx, const char *domain, const char *local_part,
                         const char *virusfilter)
{
    char path[AV_BUF_SIZE];
    char address[AV_BUF_SIZE];
    char record[AV_BUF_SIZE];
    const char *direction = virusfilter;

    remove_antivirus_records(fx, domain, local_part);

    if (strncmp(direction, "outgoing", 8) == 0)
        direction = "from";
    if (strncmp(direction, "incoming", 8) == 0)
        direction = "to";

    users_conf_path(path, sizeof path);
    snprintf(address, sizeof address, "%s@%s", local_part, domain);
    /* A record cut by the buffer would lose the pattern's end: not written,
     * with no system error behind the message. */
    if (snprintf(record, sizeof record, "allow\t%s\tregex\t^%s$", direction, address)
        >= static_cast<int>(sizeof record)) {
        report_plain(0, "Unable to add record for '%s' to '%s' file", address, path);
        return -1;
    }
    if (file_str(fx, path, record, FILE_STR_ADD, FILE_STR_AT_END) != 0) {
        report(0, "Unable to add record for '%s' to '%s' file", address, path);
        return -1;
    }
    set_owner_mode(fx, path, 0, 0, 0644);
    return 0;
}

/* av_row_usable - whether a row (virusfilter, local part, domain) can make
 * a record.  Query 1 joins the domains with LEFT JOIN, so a mailbox whose
 * domain row is gone comes with a NULL domain name; such a row, or any row
 * with a NULL column, is skipped with a warning rather than formatted.  So
 * is a row whose local part or domain name breaks the rules of mail and
 * domain names (a line break or a control byte would split the record, a
 * NUL byte cut it), naming both and the rule. */
static int av_row_usable(MYSQL_RES *res, MYSQL_ROW row)
{
    char local[VALUE_PRINTABLE_SIZE], domain[VALUE_PRINTABLE_SIZE];

    if (!(row[0] && row[1] && row[2])) {
        if (row[1] && !row[2])
            report_plain(0, "Skipping antivirus record for '%s': no domain name",
                         value_printable(row[1], local, sizeof local));
        else
            report_plain(0, "Skipping antivirus record: incomplete database row");
        return 0;
    }
    const unsigned long *lengths = mysql_fetch_lengths(res);
    const char *why = check_no_nul(row[1], lengths[1]);
    if (why == nullptr)
        why = check_no_nul(row[2], lengths[2]);
    if (why == nullptr)
        why = check_mail_name(row[1]);
    if (why == nullptr)
        why = check_domain_name(row[2]);
    if (why == nullptr)
        return 1;
    report_plain(0, "Skipping antivirus record of mailbox '%s' of mail domain '%s': %s",
                 value_printable(row[1], local, sizeof local),
                 value_printable(row[2], domain, sizeof domain), why);
    return 0;
}

/* av_run_query - one row source: a record per usable row.  A refused
 * query ends the process, users.conf still as it was: written with part of
 * its records, the file would lift the checking of every address left
 * out. */
static void av_run_query(const Effects *fx, MYSQL *conn, const char *query, const char *failure)
{
    MYSQL_RES *res;
    MYSQL_ROW row;

    if (mysql_real_query(conn, query, strlen(query)) != 0
        || (res = mysql_store_result(conn)) == nullptr)
        report_plain(1, failure, mysql_error(conn));
    while ((row = mysql_fetch_row(res)) != nullptr)
        if (av_row_usable(res, row))
            add_antivirus_record(fx, row[2], row[1], row[0]);
    mysql_free_result(res);
}

int reset_users_conf(const Effects *fx)
{
    char path[AV_BUF_SIZE], tmpl[AV_BUF_SIZE];
    struct stat st;
    FileStep step;

    users_conf_path(path, sizeof path);
    if (snprintf(tmpl, sizeof tmpl, "%s.in", path) < static_cast<int>(sizeof tmpl) && stat(tmpl, &st) == 0
        && copy_file_locked(fx, tmpl, path) == 0)
        return 0;
    if (held_file_reset(path, "[version=2]\n", 12) == 0
        || file_put(fx, path, "[version=2]\n", geteuid(), getegid(), 0644, &step) >= 0)
        return 0;
    if (step == STEP_OPEN || step == STEP_LOCK)
        report(0, "Unable to open %s file for writing: %s\n", path, strerror(errno));
    else
        report(0, "An error occured during writing the file %s: %s\n", path, strerror(errno));
    return -1;
}

/* av_owned - whether a line of users.conf is a record rebox writes
 * ("allow <direction> regex ^<address>$") of an address in one of the
 * AvScope arg's domains */
static int av_owned(const char *line, size_t len, const void *arg)
{
    const AvScope *only = static_cast<const AvScope *>(arg);
    std::string_view text(line, len);
    size_t first = text.find('\t'), second = text.find('\t', first + 1);

    if (!text.starts_with("allow\t") || second == std::string_view::npos
        || text.compare(second, 8, "\tregex\t^") != 0 || !text.ends_with("$"))
        return 0;
    size_t at = text.rfind('@');
    return at != std::string_view::npos && at > second
           && only->domains->count(std::string(text.substr(at + 1, text.size() - at - 2))) > 0;
}

/* limited_query - query limited to the mailboxes of the domains only->ids
 * (before its ORDER BY), in a new string; null when it does not fit */
static char *limited_query(const char *query, const char *column, const AvScope *only)
{
    const char *order = strstr(query, " ORDER BY");

    return xasprintf("%.*s AND %s IN (%s)%s", static_cast<int>(order - query), query, column, only->ids, order);
}

void restore_antivirus_settings(const Effects *fx, MYSQL *conn, const AvScope *only)
{
    char path[AV_BUF_SIZE], util[AV_BUF_SIZE];
    TextBuf before = {}, kept = {};

    /* The file is held in memory under its lock, from its head through
     * every record, and replaced once, only when it differs, before
     * virusctl reads it: a run that ends before (a refused query) leaves
     * it as it was, which a file rebuilt on the disk could not.  A record
     * is added by removing its old forms and appending it, once per
     * mailbox and alias.  It is root's with mode 0644 whatever it was
     * before, also when no mailbox has checking on. */
    users_conf_path(path, sizeof path);
    if (held_file_take(fx, path, 1) != 0)
        report(1, "Unable to lock %s for the rebuild", path);
    if (only != nullptr) {
        if (path_read(fx, path, &before) != 0)
            report(1, "Unable to read file %s: %s\n", path, strerror(errno));
        if (line_filter(&before, av_owned, only, &kept) != 0)
            report(1, "Cannot allocate memory: %s", strerror(ENOMEM));
        held_file_reset(path, kept.data, kept.len);
    } else {
        reset_users_conf(fx);
    }
    set_owner_mode(fx, path, 0, 0, 0644);
    for (const auto &q : av_queries) {
        char *limited = only != nullptr ? limited_query(q.query, q.domain, only) : nullptr;
        av_run_query(fx, conn, only != nullptr ? limited : q.query, q.failure);
        free(limited);
    }
    if (only != nullptr) {
        TextBuf rebuilt = {}, merged = {};
        if (held_file_text(path, &rebuilt) != 0 || line_merge(&before, &rebuilt, av_owned, only, &merged) != 0)
            report(1, "Cannot allocate memory: %s", strerror(ENOMEM));
        held_file_reset(path, merged.data, merged.len);
        text_buf_free(&rebuilt);
        text_buf_free(&merged);
    }
    text_buf_free(&before);
    text_buf_free(&kept);
    held_file_release(path);
    /* Started with its full path in slot 0, the result not examined. */
    char reload[] = "-r";
    char *virusctl[] = {const_cast<char *>(admin_util_path("virusctl", util, sizeof util)), reload, nullptr};
    if (virusctl[0] != nullptr)
        fx->run_util("virusctl", virusctl);
}
