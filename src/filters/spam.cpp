/* spam - turns spam-filter records of the panel database into spamctl runs.
 *
 * A record's command line is assembled in a fixed ArgVec: the prefix
 * (spamctl, and for a mailbox "--mailname" and its name), then the switch
 * or server entries, the preference entries and one pair per black or white
 * list entry.  When the list does not fit, the vector is run as far as it
 * holds whole pairs and the rest follows in further runs of the prefix and
 * pairs only.
 */
#include "filters/spam.h"

#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>

#include "db/component.h"
#include "db/connect.h"
#include "db/get.h"
#include "filters/argvec.h"
#include "mailconf/qmail_common.h"
#include "mailconf/value_check.h"
#include "runtime/config.h"
#include "runtime/report.h"

static const size_t SPAM_BUF_SIZE = 4096;
static const unsigned SPAM_DEFAULT_MAX_CHILDREN = 5;

/* spam_query - send the query format makes of value and store its whole
 * result; null on failure */
static MYSQL_RES *spam_query(MYSQL *conn, const char *format, const char *value)
{
    char query[SPAM_BUF_SIZE];

    snprintf(query, sizeof query, format, value);
    if (mysql_real_query(conn, query, strlen(query)) != 0)
        return nullptr;
    return mysql_store_result(conn);
}

/* settings_failed - the report for any failed query of one record */
static int settings_failed(const char *name, MYSQL *conn)
{
    report_plain(0, "Unable to get spamassassin settings for '%s': %s", name, mysql_error(conn));
    return -1;
}

/* value_rule - the rule that column col of a fetched row breaks as a
 * value of one line (spamctl writes each into a line of its own), or null */
static const char *value_rule(MYSQL_RES *res, MYSQL_ROW row, unsigned col)
{
    const unsigned long *lengths = mysql_fetch_lengths(res);

    if (const char *why = check_no_nul(row[col], lengths[col]))
        return why;
    return check_line_value(row[col]);
}

/* add_server_entries - "start", the enable options and the child limit of
 * the server-wide record */
static void add_server_entries(ArgVec *vec, MYSQL *conn)
{
    char number[SPAM_BUF_SIZE], value[SPAM_BUF_SIZE];
    unsigned max_children = SPAM_DEFAULT_MAX_CHILDREN;

    /* A refused setting ends the run: read as "off", it would switch the
     * server-wide settings off. */
    argv_add(vec, "start");
    if (starts_true(get_misc_setting(conn, "spamfilter_enabled", value))) {
        argv_add(vec, "--enable-server-configs");
        if (starts_true(get_misc_setting(conn, "spamfilter_use_mailuser_prefs", value)))
            argv_add(vec, "--enable-user-configs");
    }
    if (sscanf(get_misc_setting(conn, "spamfilter_max_children", value), "%u", &max_children) != 1)
        max_children = SPAM_DEFAULT_MAX_CHILDREN;
    argv_add(vec, "--max-children");
    snprintf(number, sizeof number, "%u", max_children);
    argv_add(vec, number);
}

/* add_mailbox_switch - the mailbox's own on/off switch; nothing when no
 * mailbox has this full mail name */
static int add_mailbox_switch(ArgVec *vec, MYSQL *conn, const char *name, const char *escaped,
                              const char *action)
{
    MYSQL_RES *res;
    MYSQL_ROW row;

    if ((res = spam_query(conn, "SELECT spamfilter FROM mail m, domains d WHERE m.dom_id = d.id AND "
                                "CONCAT(m.mail_name, '@', d.name) = '%s'", escaped)) == nullptr)
        return settings_failed(name, conn);
    if ((row = mysql_fetch_row(res)) != nullptr) {
        if (starts_true(row[0])) {
            argv_add(vec, "--enable-mailname");
            argv_add(vec, "--action");
            argv_add(vec, action);
        } else {
            argv_add(vec, "--disable-mailname");
        }
    }
    mysql_free_result(res);
    return 0;
}

/* add_sensitivity - the first score threshold of the record.  A NULL or
 * empty score would send "--sensitivity" without its value, so both
 * entries are left out then; so they are, with a warning, for a value that
 * breaks the line rule. */
static int add_sensitivity(ArgVec *vec, MYSQL *conn, const char *name, const char *id)
{
    MYSQL_RES *res;
    MYSQL_ROW row;

    if ((res = spam_query(conn, "SELECT value FROM spamfilter_preferences WHERE spamfilter_id = %s AND "
                                "preference = 'required_score' ORDER BY prefid", id)) == nullptr)
        return settings_failed(name, conn);
    if ((row = mysql_fetch_row(res)) != nullptr && row[0] != nullptr && row[0][0] != '\0') {
        if (const char *why = value_rule(res, row, 0)) {
            report_plain(0, "Skipping the required_score of the spam filter settings for '%s': %s", name,
                         why);
        } else {
            argv_add(vec, "--sensitivity");
            argv_add(vec, row[0]);
        }
    }
    mysql_free_result(res);
    return 0;
}

/* add_header_rewrite - the first subject rewriting choice of the record;
 * none, with a warning, when it breaks the line rule */
static int add_header_rewrite(ArgVec *vec, MYSQL *conn, const char *name, const char *id)
{
    MYSQL_RES *res;
    MYSQL_ROW row;

    if ((res = spam_query(conn, "SELECT TRIM(TRIM(LEADING 'subject' FROM value)) FROM "
                                "spamfilter_preferences WHERE spamfilter_id = %s AND preference = "
                                "'rewrite_header' AND value LIKE 'subject%%' ORDER BY prefid", id)) == nullptr)
        return settings_failed(name, conn);
    if ((row = mysql_fetch_row(res)) != nullptr) {
        const char *why = row[0] != nullptr ? value_rule(res, row, 0) : nullptr;
        if (why != nullptr) {
            report_plain(0, "Skipping the rewrite_header of the spam filter settings for '%s': %s", name,
                         why);
        } else if (row[0] == nullptr || row[0][0] == '\0') {
            argv_add(vec, "--not-modify-header");
        } else {
            argv_add(vec, "--modify-header");
            argv_add(vec, row[0]);
        }
    }
    mysql_free_result(res);
    return 0;
}

/* pair_fits_alone - whether option and value fit behind the prefix of an
 * otherwise empty vector (two slots, two copies with their terminators) */
static int pair_fits_alone(int32_t prefix_count, size_t prefix_used, const char *option,
                           const char *value)
{
    size_t need = strlen(option) + 1 + strlen(value) + 1;

    return prefix_count + 2 <= ARGVEC_MAX_ENTRIES && need <= ARGVEC_AREA - prefix_used;
}

/* list_row_usable - whether a list row (list name, entry) can be sent as a
 * whole pair.  An empty or NULL entry cannot be an argument, an entry too
 * long for a run of its own can never be sent, and one that breaks the
 * line rule would add lines to the settings; such rows are skipped with a
 * warning, sending neither the option nor half a pair and running no
 * extra batch for them. */
static int list_row_usable(MYSQL_RES *res, MYSQL_ROW row, const char *option,
                           int32_t prefix_count, size_t prefix_used, const char *name)
{
    if (row[0] == nullptr || row[1] == nullptr || row[1][0] == '\0') {
        report_plain(0, "Skipping empty %s entry of the spam filter settings for '%s'",
                     row[0] ? row[0] : "list", name);
        return 0;
    }
    if (const char *why = value_rule(res, row, 1)) {
        report_plain(0, "Skipping %s entry of the spam filter settings for '%s': %s", row[0], name, why);
        return 0;
    }
    if (!pair_fits_alone(prefix_count, prefix_used, option, row[1])) {
        report_plain(0, "Skipping %s entry of the spam filter settings for '%s': too long", row[0],
                     name);
        return 0;
    }
    return 1;
}

/* add_list_pair - append one option and its value; 0 when the vector is
 * full, in which case it is rolled back to its state before the pair */
static int add_list_pair(ArgVec *vec, const char *option, const char *value)
{
    int32_t count = vec->count;
    size_t used = vec->used;

    if (argv_add(vec, option) && argv_add(vec, value))
        return 1;
    argv_cut(vec, count, used);
    return 0;
}

/* add_lists_and_run - the black and white list pairs of the record, run in
 * as many batches as they need, the last batch included; 0, or -1 when a
 * query or a run failed */
static int add_lists_and_run(const Effects *fx, ArgVec *vec, MYSQL *conn, const char *name, const char *id,
                             int32_t prefix_count, size_t prefix_used)
{
    MYSQL_RES *res;
    MYSQL_ROW row;
    int result = 0;

    if ((res = spam_query(conn, "SELECT TRIM(TRAILING '_from' FROM preference), value FROM "
                                "spamfilter_preferences WHERE spamfilter_id = %s AND preference IN "
                                "('blacklist_from', 'whitelist_from', 'unblacklist_from', "
                                "'unwhitelist_from') ORDER BY prefid", id)) == nullptr)
        return settings_failed(name, conn);

    while (result == 0 && (row = mysql_fetch_row(res)) != nullptr) {
        char option[SPAM_BUF_SIZE];

        snprintf(option, sizeof option, "--add-to-%s", row[0] ? row[0] : "");
        if (!list_row_usable(res, row, option, prefix_count, prefix_used, name))
            continue;
        if (add_list_pair(vec, option, row[1]))
            continue;
        /* Full: send what holds whole pairs, start again from the prefix. */
        if (fx->run_util("spamctl", vec->slots) != 0) {
            result = -1;
            break;
        }
        argv_cut(vec, prefix_count, prefix_used);
        add_list_pair(vec, option, row[1]);
    }
    mysql_free_result(res);

    if (result == 0 && fx->run_util("spamctl", vec->slots) != 0)
        result = -1;
    return result;
}

/* apply_record - apply one record on an open connection */
static int apply_record(const Effects *fx, ArgVec *vec, const char *name, MYSQL *conn, int server_wide)
{
    char id[SPAM_BUF_SIZE];
    char action[SPAM_BUF_SIZE];
    MYSQL_RES *res;
    MYSQL_ROW row;

    argv_add(vec, "spamctl");
    if (!server_wide) {
        argv_add(vec, "--mailname");
        argv_add(vec, name);
    }
    int32_t prefix_count = vec->count;
    size_t prefix_used = vec->used;

    char *escaped = db_escape(conn, name);
    if ((res = spam_query(conn, "SELECT id, IF(reject_spam = 'true', 'delete', 'save') FROM spamfilter "
                                "WHERE username = '%s'", escaped)) == nullptr) {
        free(escaped);
        return settings_failed(name, conn);
    }
    if ((row = mysql_fetch_row(res)) == nullptr) {
        mysql_free_result(res);
        free(escaped);
        return 0;
    }
    snprintf(id, sizeof id, "%s", row[0] ? row[0] : "");
    snprintf(action, sizeof action, "%s", row[1] ? row[1] : "");
    mysql_free_result(res);

    if (server_wide) {
        add_server_entries(vec, conn);
    } else if (add_mailbox_switch(vec, conn, name, escaped, action) != 0) {
        free(escaped);
        return -1;
    }
    free(escaped);

    if (add_sensitivity(vec, conn, name, id) != 0 || add_header_rewrite(vec, conn, name, id) != 0)
        return -1;
    return add_lists_and_run(fx, vec, conn, name, id, prefix_count, prefix_used);
}

int apply_spam_settings(const Effects *fx, const char *name, MYSQL *conn)
{
    ArgVec vec;
    char path[SPAM_BUF_SIZE];
    struct stat st;

    argv_init(&vec);
    if (!is_component_installed("vdo-spamassassin"))
        return 0;

    snprintf(path, sizeof path, "%s/admin/sbin/spamctl", panel_config.PRODUCT_ROOT_D);
    if (stat(path, &st) != 0) {
        report(0, "vdo-spamassassin package is installed but '%s' does not exist", path);
        return -1;
    }
    if (name == nullptr || name[0] == '\0') {
        report_plain(0, "empty full mailname");
        return -1;
    }
    MYSQL *c = db_open_own(conn, "Unable to connect to mysql database\n");
    if (c == nullptr)
        return -1;
    int result = apply_record(fx, &vec, name, c, strncmp(name, "*@*", 3) == 0);
    db_close_own(c, conn);
    return result;
}

int apply_server_spam_settings(const Effects *fx, MYSQL *conn)
{
    return apply_spam_settings(fx, "*@*", conn);
}

int apply_mailbox_spam_settings(const Effects *fx, const char *local_part, const char *domain, MYSQL *conn)
{
    char name[SPAM_BUF_SIZE];

    if (local_part == nullptr || local_part[0] == '\0' || domain == nullptr
        || domain[0] == '\0') {
        report_plain(0, "empty mailname or maildomain");
        return -1;
    }
    snprintf(name, sizeof name, "%s@%s", local_part, domain);
    return apply_spam_settings(fx, name, conn);
}

/* mailbox_row_usable - whether a mailbox name of the domain can make a full
 * mail name: it follows the rules of mail names, as in the rebuild pass */
static int mailbox_row_usable(MYSQL_RES *res, MYSQL_ROW row, const char *domain)
{
    char shown[VALUE_PRINTABLE_SIZE], dom[VALUE_PRINTABLE_SIZE];
    const char *why = check_no_nul(row[0], mysql_fetch_lengths(res)[0]);

    if (why == nullptr)
        why = check_mail_name(row[0]);
    if (why == nullptr)
        return 1;
    report_plain(0, "Skipping spam filter settings of mailbox '%s' of mail domain '%s': %s",
                 value_printable(row[0], shown, sizeof shown), value_printable(domain, dom, sizeof dom),
                 why);
    return 0;
}

void restore_spam_settings(const Effects *fx, MYSQL *conn, const MailDomainRow *const *domains, size_t count,
                           int server_wide)
{
    char shown[VALUE_PRINTABLE_SIZE];
    MYSQL_RES *mailboxes;
    MYSQL_ROW box;

    if (server_wide)
        apply_server_spam_settings(fx, conn);
    /* The name goes into every full mail name: a row the rebuild skips is
     * skipped here too, each named before the first mailbox is applied. */
    for (size_t k = 0; k < count; k++)
        if (domains[k]->rule != nullptr)
            report_plain(0, "Skipping spam filter settings of domain '%s': %s",
                         value_printable(domains[k]->name, shown, sizeof shown), domains[k]->rule);
    for (size_t k = 0; k < count; k++) {
        const MailDomainRow *d = domains[k];
        if (d->rule != nullptr)
            continue;
        if ((mailboxes = spam_query(conn, "SELECT mail_name FROM mail WHERE dom_id=%s ORDER BY id", d->id)) == nullptr)
            report_plain(1, "Unable to query mailnames: %s", mysql_error(conn));
        while ((box = mysql_fetch_row(mailboxes)) != nullptr)
            if (mailbox_row_usable(mailboxes, box, d->name))
                apply_mailbox_spam_settings(fx, box[0], d->name, conn);
        mysql_free_result(mailboxes);
    }
}
