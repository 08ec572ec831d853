/* rebuild - the pass that rebuilds qmail's whole configuration.
 *
 * The pass holds the five shared qmail files in memory under their named
 * locks and empties them (users/assign keeps its closing "."), prepares the
 * mail names directory, then walks the domains with mail service and, for
 * each, calls the writers in a fixed order: the domain, its unknown-recipient
 * policy, its quota, its aliases, then every mailbox with its postbox,
 * forwards, autoresponder, quota and aliases.  Only when the domains and the
 * antivirus pass are done is each shared file that differs replaced, whole;
 * a mailbox's delivery file is built in memory and replaced at the mailbox's
 * end, only when it differs.  A fatal error (every failed query of the pass
 * is one) or a kill before that leaves the previous files whole.  qmail-send
 * is signalled once, after the files are written.
 *
 * A row that breaks a value rule is skipped with a warning (panel_rows): a
 * domain with everything of it, a mailbox with everything of it (also for a
 * refused stored hash: without its postbox it would accept mail and deliver
 * it nowhere), an alias or forward address alone, a policy with its
 * aliases' reject lines; files an earlier run wrote stay.  A domain or
 * mailbox whose directory is in the way of a foreign object, or behind
 * root's link that cannot be followed, keeps its records and its files.
 * What the pass waits on is started ahead (read_ahead), a check run's
 * memory is check_state's, the summary's counts are finish's.
 */
#include "restore/rebuild.h"

#include "db/component.h"
#include "db/connect.h"
#include "db/get.h"
#include "db/pipeline.h"
#include "filters/antivirus.h"
#include "fs/held_file.h"
#include "fs/path_ops.h"
#include "mailconf/delivery.h"
#include "mailconf/domain.h"
#include "mailconf/domain_alias.h"
#include "mailconf/idn.h"
#include "mailconf/mailbox.h"
#include "mailconf/nonexist_policy.h"
#include "mailconf/quota.h"
#include "mailconf/value_check.h"
#include "restore/check_state.h"
#include "restore/finish.h"
#include "restore/panel_rows.h"
#include "restore/read_ahead.h"
#include "restore/shared_files.h"
#include "runtime/config.h"
#include "runtime/report.h"
#include "runtime/users.h"

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

int short_pop3_names_allowed(MYSQL *conn)
{
    const char *value = get_misc_param("allow_short_pop3_names", conn);

    return !(value != nullptr && strcmp(value, "disabled") == 0);
}

/* add_forward - add a forward address, or skip it with a warning when it
 * breaks rule why */
static void add_forward(const MailDomain *d, const char *mail_name, const char *address, const char *why)
{
    if (why != nullptr)
        skip_row("forward address", address, mail_name, d->name, why);
    else
        add_forward_address(d, mail_name, address);
}

/* apply_quota - write or remove a domain (mail_name null) or mailbox quota */
static void apply_quota(const MailDomain *d, const char *mail_name, const char *value)
{
    long limit = -1;

    if (value == nullptr || sscanf(value, "%ld", &limit) != 1 || limit < 0) {
        remove_mbox_quota(d, mail_name);
        return;
    }
    if (write_mbox_quota(d, mail_name, limit >> 10) == 0)
        report(0, "Warning: unable to write mailbox quota\n");
}

/* run_query - take the prefetched result of a query of the pass, or send
 * it and store its result; a failure ends the process */
static MYSQL_RES *run_query(MYSQL *conn, const char *query, const char *failure)
{
    MYSQL_RES *res;

    if (pipeline_ask(conn, query, &res) != 0 || res == nullptr) {
        errno = 0; /* the server's error text says why */
        report(1, failure, mysql_error(conn));
    }
    return res;
}

/* prepare_mailnames_dir - the mailbox root made when missing, owned by
 * root:gid with mode 0755 (each set only where it differs), and entered */
static void prepare_mailnames_dir(const Effects *fx, unsigned gid)
{
    const char *dir = panel_config.QMAIL_MAILNAMES_D;
    FileStep step = STEP_CHOWN;
    struct stat st;
    PathAt at;
    int fd = -1;

    if (stat(dir, &st) != 0 && errno != ENOENT)
        report(1, "ERROR: Unable to stat for mailnames dir: %s", strerror(errno));
    if (path_at(fx, dir, &at) == 0) {
        fd = at_dir(&at, 0755, nullptr);
        int err = errno;
        path_at_close(&at);
        errno = err;
    }
    if (fd < 0)
        report(1, "ERROR: Unable to mkdir for mailnames dir: %s", strerror(errno));
    if (fd_owner_mode(fx, fd, dir, 0, gid, 0755, &step) != 0) {
        if (step == STEP_CHMOD)
            report(1, "ERROR: Unable to chmod for mailnames dir: %s", strerror(errno));
        report(1, "ERROR: Unable to chown for mailnames dir: %s", strerror(errno));
    }
    /* One that is only reported missing is not entered. */
    if (fstat(fd, &st) == 0 && S_ISDIR(st.st_mode) && fchdir(fd) != 0)
        report(1, "WARNING: Unable to chdir to mailnames dir: %s", strerror(errno));
    close(fd);
}

/* restore_mailbox - row number i of a domain's mailbox list, all its
 * records; its delivery file is held in memory from add_mailbox to the
 * end */
static void restore_mailbox(MYSQL_RES *rows, MYSQL_ROW row, size_t i, const MailDomain *d, int disabled,
                            int full_names_required)
{
    const char *domain = d->name;
    char qmail[PANEL_QUERY_SIZE], query[PANEL_QUERY_SIZE];
    MailboxRow m;

    if (const char *why = mailbox_row(rows, row, &m)) {
        skip_row("mailbox", m.mail_name, nullptr, domain, why);
        return;
    }
    snprintf(qmail, sizeof(qmail), "%s/%s/%s/.qmail", panel_config.QMAIL_MAILNAMES_D, d->ascii, m.mail_name);
    if (held_file_take_rebuilt(d->fx, qmail) != 0)
        report(1, "Unable to lock %s for the rebuild", qmail);
    /* A mailbox whose directories are in the way of a foreign object keeps
     * its records but none of its files on disk changes. */
    int tree_skipped = add_mailbox(d, m.mail_name) != 0;
    run_count(RUN_MAILBOXES);
    check_seen_mailbox(m.mail_name);
    if (m.postbox) {
        const char *hash = m.plain != nullptr ? read_ahead_hash(i, m.plain) : m.password;
        hash = check_known_hash(d->ascii, m.mail_name, m.plain, hash);
        add_postbox(d, m.mail_name, hash, disabled, full_names_required);
    }
    if (m.redirect)
        add_forward(d, m.mail_name, m.redir_addr, m.redir_addr_rule);
    if (m.mail_group) {
        MYSQL_RES *res = run_query(d->db, mailgroup_query(m.id, query),
                                   "Unable to query mailgroup members: %s");
        while (MYSQL_ROW r = mysql_fetch_row(res))
            add_forward(d, m.mail_name, r[0], value_rule(res, r, check_address));
        mysql_free_result(res);
    }
    if (m.autoresponder)
        add_autoresponder(d, m.mail_name);
    if (!tree_skipped)
        apply_quota(d, m.mail_name, m.mbox_quota);
    MYSQL_RES *res = run_query(d->db, mail_aliases_query(m.id, query), "Unable to query alias for mail: %s");
    while (MYSQL_ROW r = mysql_fetch_row(res)) {
        if (const char *why = value_rule(res, r, check_mail_name))
            skip_row("mail alias", r[0], m.mail_name, domain, why);
        else if (add_mail_alias(d, m.mail_name, r[0]) == 0)
            run_count(RUN_ALIASES);
    }
    mysql_free_result(res);
    /* A delivery file that cannot be written ends the run; one that a
     * link or another kind of object keeps standing in the way of (popuser
     * racing the rebuild, or root's link) is left as it is, with a
     * warning. */
    if (tree_skipped) {
        held_file_drop(qmail);
    } else if (held_file_release(qmail) != 0) {
        if (!at_in_the_way(errno))
            report(1, "Unable to write %s", qmail);
        errno = 0;
        report(0, "Skipping %s: a link or another kind of object stands where a file belongs", qmail);
    }
}

/* restore_domain - domain row number k: domain, policy, quota, aliases,
 * mailboxes */
static void restore_domain(const Effects *fx, MYSQL *conn, MYSQL_RES *domains, MYSQL_ROW row, size_t k,
                           int full_names_required)
{
    char query[PANEL_QUERY_SIZE];
    MailDomainRow d;
    MailDomain md;

    if (const char *why = domain_row(domains, row, &d)) {
        skip_row(nullptr, nullptr, nullptr, d.name, why);
        return;
    }
    /* What every writer needs of the domain, worked out once. */
    mail_domain(fx, conn, d.name, &md, "empty domain");
    /* A domain whose directory is root's link that cannot be followed
     * keeps its records; its files on disk stay as they are. */
    int dir_skipped = add_mail_domain(&md, d.disabled) != 0;
    run_count(RUN_DOMAINS);
    /* Every question about the domain itself is asked before the first of
     * its files (.qmail-default, @mbox.quota) is written, the policy's own
     * questions last, just before it writes: a refused one ends the run
     * with the domain's files as they were. */
    const char *limit_value = get_dom_Limit(d.id, "mbox_quota", conn);
    std::string limit = limit_value != nullptr ? limit_value : "";
    MYSQL_RES *aliases = run_query(conn, domain_aliases_query(d.id, query), "Unable to query domain aliases: %s");
    MYSQL_RES *mailboxes = run_query(conn, mailboxes_query(d.id, query), "Unable to query mailnames: %s");
    read_ahead_domain(domains, mailboxes, k);

    int reject_aliases;
    const char *policy_refused = restore_nonexist_policy_checked(&md, &reject_aliases);
    if (policy_refused != nullptr)
        skip_row("unknown-recipient policy", nullptr, nullptr, d.name, policy_refused);
    if (!dir_skipped)
        apply_quota(&md, nullptr, limit.c_str());

    while (MYSQL_ROW a = mysql_fetch_row(aliases)) {
        if (const char *why = value_rule(aliases, a, check_domain_name)) {
            skip_row("domain alias", a[0], nullptr, d.name, why);
            continue;
        }
        add_domain_alias(&md, a[0]);
        run_count(RUN_ALIASES);
        if (reject_aliases)
            add_reject(fx, a[0]);
    }
    mysql_free_result(aliases);

    for (size_t i = 0; MYSQL_ROW m = mysql_fetch_row(mailboxes); i++)
        restore_mailbox(mailboxes, m, i, &md, d.disabled, full_names_required);
    mysql_free_result(mailboxes);
    check_domain_done(md.ascii);
}

void rebuild_mail_configuration(const Effects *fx)
{
    unsigned gid = lookup_user_ids("qmails", 1);

    if (chdir(panel_config.QMAIL_ROOT_D) != 0)
        report(1, "ERROR: Unable to chdir to qmail dir: %s", strerror(errno));
    shared_files_take(fx);
    prepare_mailnames_dir(fx, gid);

    MYSQL *conn = panel_db_open();
    if (conn == nullptr)
        report(1, "Unable to connect to the mysql database");
    /* A query the server refuses ends the run, as one that fails in the
     * middle of a list does: rebox restores a live server, and a refusal
     * read as "no value" would cost configuration that was there before
     * the run (a domain's policy, its quota, users.conf's records).  The
     * shared files are written only at the end, so such a run leaves them
     * as they were.  "No such row" keeps its meaning. */
    get_refusals_fatal(1);
    MYSQL *ahead = panel_db_open();
    if (ahead == nullptr)
        report(1, "Unable to connect to the mysql database");
    pipeline_open(ahead, conn);
    int full_names_required = short_pop3_names_allowed(conn) == 0;

    MYSQL_RES *domains = run_query(conn, DOMAINS_QUERY, "Unable to query domains: %s");
    read_ahead_start(domains);
    for (size_t k = 0; MYSQL_ROW d = mysql_fetch_row(domains); k++)
        restore_domain(fx, conn, domains, d, k, full_names_required);
    read_ahead_stop();
    mysql_free_result(domains);
    pipeline_close();
    mysql_close(ahead);

    if (is_component_installed("drweb") && is_component_installed("drweb-qmail"))
        restore_antivirus_settings(fx, conn);
    check_pass_done();
    shared_files_commit();
    get_refusals_fatal(0);
    mysql_close(conn);
}
