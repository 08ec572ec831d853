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
 * What the pass asks of a domain is domain_facts' (each domain's questions
 * sent ahead over a second connection), the passwords are hashed ahead on
 * every processor (hash_pool) with the salt the table of effects gives, the
 * summary's counts are finish's; the table of effects remembers what a
 * check run needs to report surplus directories and unchanged passwords.
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
#include "restore/domain_facts.h"
#include "restore/domain_scope.h"
#include "restore/finish.h"
#include "restore/panel_rows.h"
#include "restore/progress.h"
#include "restore/hash_pool.h"
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

#include <algorithm>
#include <deque>
#include <string>

int short_pop3_names_allowed(MYSQL *conn)
{
    char value[PANEL_QUERY_SIZE];

    return strcmp(get_misc_setting(conn, "allow_short_pop3_names", value), "disabled") != 0;
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

/* prepare_mailnames_dir - the mailbox root made when missing, owned by
 * root:gid with mode 0755 (each set only where it differs), and entered */
static void prepare_mailnames_dir(const Effects *fx, unsigned gid)
{
    const char *dir = panel_config.QMAIL_MAILNAMES_D;
    FileStep step = STEP_CHOWN;
    struct stat st;
    PathAt at;
    int fd = -1, made = 0, kept = 0;

    if (stat(dir, &st) != 0 && errno != ENOENT)
        report(1, "ERROR: Unable to stat for mailnames dir: %s", strerror(errno));
    if (path_at(fx, dir, &at) == 0) {
        fd = at_dir(&at, 0755, &made);
        int err = errno;
        /* Made by this run: nothing is looked up in it before it is made
         * there, until the pass ends. */
        kept = fd >= 0 && made && path_at_keep_fresh(&at, fd, static_cast<uid_t>(-1), static_cast<gid_t>(-1));
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
    if (!kept)
        close(fd);
}

/* Pass - what the pass hands each domain: the run's table of effects and
 * connection, popuser's ids (looked up at the first domain), the password
 * rule of the panel, and whether qmail-send is to reread its control files
 * once they are written */
struct Pass {
    const Effects *fx;
    MYSQL *conn;
    PopuserIds popuser;
    int full_names_required;
    int reread_due;
    Progress progress;
};

/* restore_mailbox - a mailbox with its lists, all its records; its
 * delivery file is held in memory from add_mailbox to the end */
static void restore_mailbox(Pass *pass, const MailboxRow &m, const MailboxLists &lists, const MailDomain *d,
                            int disabled)
{
    const char *domain = d->name;
    char qmail[QMAIL_BUF_SIZE], home[QMAIL_BUF_SIZE];
    MYSQL_RES *group = lists.group, *aliases = lists.aliases;

    if (m.rule != nullptr) {
        skip_row("mailbox", m.mail_name, nullptr, domain, m.rule);
        return;
    }
    /* A plain password crypt refuses (it takes at most 511 bytes) gives
     * no hash but crypt's failure token, a login that can never succeed:
     * such a mailbox is skipped like a row that breaks a rule. */
    mail_path(home, d->ascii, m.mail_name, nullptr);
    const char *hash = m.postbox && m.plain != nullptr ? hash_pool_get(m.id, home, m.plain) : m.password;
    if (m.postbox && m.plain != nullptr && (hash == nullptr || *hash == '*')) {
        skip_row("mailbox", m.mail_name, nullptr, domain, "its password cannot be hashed");
        return;
    }
    mail_path(qmail, d->ascii, m.mail_name, DELIVERY_FILE);
    if (held_file_take_rebuilt(d->fx, qmail) != 0)
        report(1, "Unable to lock %s for the rebuild", qmail);
    /* A mailbox whose directories are in the way of a foreign object keeps
     * its records but none of its files on disk changes. */
    int tree_skipped = add_mailbox(d, m.mail_name) != 0;
    run_count(RUN_MAILBOXES);
    progress_mailbox(&pass->progress);
    d->fx->panel_has(home);
    if (m.postbox) {
        add_postbox(d, m.mail_name, hash, disabled, pass->full_names_required);
    }
    if (m.redirect)
        add_forward(d, m.mail_name, m.redir_addr, m.redir_addr_rule);
    while (MYSQL_ROW r = group != nullptr ? mysql_fetch_row(group) : nullptr)
        add_forward(d, m.mail_name, r[0], value_rule(group, r, check_address));
    if (m.autoresponder)
        add_autoresponder(d, m.mail_name);
    if (!tree_skipped)
        apply_quota(d, m.mail_name, m.mbox_quota);
    while (MYSQL_ROW r = mysql_fetch_row(aliases)) {
        if (const char *why = value_rule(aliases, r, check_mail_name))
            skip_row("mail alias", r[0], m.mail_name, domain, why);
        else if (add_mail_alias(d, m.mail_name, r[0]) == 0)
            run_count(RUN_ALIASES);
    }
    /* A delivery file that cannot be written ends the run; one that a
     * link or another kind of object keeps standing in the way of (popuser
     * racing the rebuild, or root's link) is left as it is, with a
     * warning. */
    if (tree_skipped) {
        held_file_drop(qmail);
    } else if (held_file_release(qmail) != 0) {
        if (!at_in_the_way(errno))
            report(1, "Unable to write %s", qmail);
        report_plain(0, "Skipping %s: a link or another kind of object stands where a file belongs", qmail);
    }
    mailbox_done(d, m.mail_name);
}

/* restore_domain - the domain of row d with the panel's facts of it:
 * domain, policy, quota, aliases, mailboxes */
static void restore_domain(Pass *pass, const MailDomainRow *d, const DomainFacts &facts)
{
    MailDomain md;
    char dir[QMAIL_BUF_SIZE];

    if (d->rule != nullptr) {
        skip_row(nullptr, nullptr, nullptr, d->name, d->rule);
        return;
    }
    if (pass->popuser.uid == 0 && !popuser_lookup(&pass->popuser)) {
        report_plain(1, "Unable to define UID or GID for user popuser");
    }
    /* What every writer needs of the domain, worked out once. */
    mail_domain(pass->fx, d, &pass->popuser, &md, "empty domain");
    md.reread_due = &pass->reread_due;
    /* A domain whose directory is root's link that cannot be followed
     * keeps its records; its files on disk stay as they are. */
    int dir_skipped = add_mail_domain(&md, d->disabled) != 0;
    run_count(RUN_DOMAINS);

    int reject_aliases;
    const char *policy_refused = restore_nonexist_policy_checked(&md, &facts.policy, &reject_aliases);
    if (policy_refused != nullptr)
        skip_row("unknown-recipient policy", nullptr, nullptr, d->name, policy_refused);
    if (!dir_skipped)
        apply_quota(&md, nullptr, facts.limit);

    while (MYSQL_ROW a = mysql_fetch_row(facts.aliases)) {
        if (const char *why = value_rule(facts.aliases, a, check_domain_name)) {
            skip_row("domain alias", a[0], nullptr, d->name, why);
            continue;
        }
        add_domain_alias(&md, a[0]);
        run_count(RUN_ALIASES);
        if (reject_aliases)
            add_reject(pass->fx, a[0]);
    }

    for (size_t i = 0; i < facts.boxes.size(); i++)
        restore_mailbox(pass, facts.boxes[i], facts.lists[i], &md, d->disabled);
    mail_domain_done(&md);
    pass->fx->panel_has(mail_path(dir, md.ascii, nullptr, nullptr));
    pass->fx->dir_done(dir);
    progress_domain(&pass->progress);
}

/* mailbox_total - the number of mailboxes of the domains with mail
 * service, for the progress line (0 when the server does not say) */
static size_t mailbox_total(MYSQL *conn)
{
    char count[PANEL_QUERY_SIZE];

    if (get_answer(conn, "SELECT COUNT(*) FROM mail m, DomainServices s WHERE m.dom_id=s.dom_id AND s.type='mail'",
                   0, count) != GET_FOUND)
        return 0;
    return strtoul(count, nullptr, 10);
}

/* The domains whose facts are on the wire or read ahead of the one being
 * written: deep enough that the server always has questions queued behind
 * the one the pass waits on, so that it answers them in one go instead of
 * going to sleep between two.  Reruns of 10,000 mailboxes in domains of
 * ten took 0.67 s when only the next domain's facts were asked ahead,
 * 0.48 with two domains, 0.43 with four and 0.40 with eight or sixteen
 * (the pipeline's window holds about four domains' questions; the rest
 * wait in memory). */
enum { FACTS_AHEAD = 8 };

/* restore_domains - the domains of rows, in that order.  Every question
 * about a domain is answered before the first of its records is written,
 * so that a refused one ends the run with the domain's files as they were.
 * The questions go out ahead over the pipeline, and its answers are taken
 * in the order they were sent: the facts of a domain FACTS_AHEAD rows on,
 * and the lists of a domain's mailboxes as soon as its facts name them.
 * While one domain is written, the server answers the facts and lists of
 * the next ones. */
static void restore_domains(Pass *pass, const std::vector<const MailDomainRow *> &rows)
{
    std::deque<DomainFacts> ahead; /* read, lists asked: rows[k], rows[k + 1], ... */
    size_t asked = 0, read = 0;

    for (size_t k = 0; k < rows.size(); k++) {
        for (; read < std::min(k + FACTS_AHEAD, rows.size()); read++) {
            for (; asked < std::min(read + FACTS_AHEAD, rows.size()); asked++)
                domain_facts_prefetch(rows[asked]);
            ahead.emplace_back();
            domain_facts(pass->conn, rows[read], &ahead.back());
            domain_lists_prefetch(&ahead.back());
        }
        domain_lists(pass->conn, &ahead.front());
        restore_domain(pass, rows[k], ahead.front());
        domain_facts_free(&ahead.front());
        ahead.pop_front();
    }
}

void rebuild_mail_configuration(const Effects *fx, MailDomains *domains, int progress, DomainScope *scope)
{
    unsigned gid = lookup_user_ids("qmails", 1);
    Pass pass = {fx, nullptr, {0, 0}, 0, 0, {}};

    if (chdir(panel_config.QMAIL_ROOT_D) != 0)
        report(1, "ERROR: Unable to chdir to qmail dir: %s", strerror(errno));
    shared_files_take(fx, scope, domains);
    prepare_mailnames_dir(fx, gid);

    /* A query the server refuses ends the run, as one that fails in the
     * middle of a list does: rebox restores a live server, and a refusal
     * read as "no value" would cost configuration that was there before
     * the run (a domain's policy, its quota, users.conf's records).  The
     * shared files are written only at the end, so such a run leaves them
     * as they were.  "No such row" keeps its meaning. */
    pass.conn = panel_db_open();
    if (pass.conn == nullptr)
        report_plain(1, "Unable to connect to the mysql database");
    MYSQL *ahead = panel_db_open();
    if (ahead == nullptr)
        report_plain(1, "Unable to connect to the mysql database");
    pipeline_open(ahead, pass.conn);
    pass.full_names_required = short_pop3_names_allowed(pass.conn) == 0;

    if (domains->res == nullptr)
        read_mail_domains(pass.conn, domains);
    std::vector<const MailDomainRow *> rows = scope_domain_rows(scope, domains);
    /* Without a connection of its own (the server may allow no third one)
     * the pass hashes the passwords itself, without a word. */
    char err[PANEL_QUERY_SIZE];
    hash_pool_start(db_open_session(err, sizeof(err)), nullptr, fx->login_salt, domains->rows.data(),
                    domains->rows.size(), scope != nullptr ? scope->ids_sql.c_str() : nullptr);
    progress_start(&pass.progress, progress && scope == nullptr, rows.size(),
                   progress && scope == nullptr ? mailbox_total(pass.conn) : 0);
    restore_domains(&pass, rows);
    progress_end(&pass.progress);
    path_at_give_fresh(fx, panel_config.QMAIL_MAILNAMES_D);
    hash_pool_stop();
    pipeline_close();
    mysql_close(ahead);

    if (is_component_installed("drweb") && is_component_installed("drweb-qmail"))
    {
        AvScope av = {scope != nullptr ? scope->ids_sql.c_str() : nullptr, scope != nullptr ? &scope->conf_names : nullptr};
        restore_antivirus_settings(fx, pass.conn, scope != nullptr ? &av : nullptr);
    }
    /* A limited run has no word on the other domains' directories, and
     * tells qmail-send to reread its files when it finishes. */
    if (scope == nullptr)
        fx->dir_done(panel_config.QMAIL_MAILNAMES_D);
    shared_files_commit(scope);
    /* Once, after the control files are written. */
    if (pass.reread_due && scope == nullptr)
        fx->signal("qmail-se", 1);
    mysql_close(pass.conn);
}
