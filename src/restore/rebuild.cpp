/* rebuild - the pass that rebuilds qmail's whole configuration.
 *
 * The pass empties control/rcpthosts, control/virtualdomains, users/assign
 * (left holding the closing ".") and users/poppasswd, prepares the mail
 * names directory, then walks the domains with mail service and, for each,
 * calls the writers in a fixed order: the domain, its unknown-recipient
 * policy, its quota, its aliases, then every mailbox with its postbox,
 * forwards, autoresponder, quota and aliases.  Any failed or refused query
 * of the pass is fatal, never taken as an absent value; the writers handle
 * their own file failures.
 *
 * Names, addresses and hashes are the panel customers' own input, and one
 * bad row must not stop the restore of everybody else: before a row reaches
 * a writer (which would end the process on it) it is tested with the rules
 * of value_check, and a row that breaks one is skipped with a warning that
 * names its domain, its mailbox or alias or address, and the rule; the run
 * goes on and its exit status does not change.  This is deliberate and
 * stays so: the writers still end the process on such a value, and the
 * pass alone chooses to go on without the row.  A skipped domain leaves
 * out everything of it (directory, records, policy, quota, aliases,
 * mailboxes), a skipped mailbox everything of it (home, assign record,
 * password line, delivery file, quota, aliases), a skipped alias or
 * forward address only itself, a skipped unknown-recipient policy the
 * domain's policy (and its aliases' reject lines) while the files it wrote
 * in an earlier run stay as they are.  A mailbox whose stored crypt hash is
 * refused is skipped whole: without its postbox it would accept mail and
 * deliver it nowhere, while without the mailbox the sender is told (or the
 * domain's catch-all gets it).  A database value holding a NUL byte
 * (its length longer than its text) breaks the line rule.
 *
 * The pass takes the named locks of the five shared
 * qmail files once, in a fixed order, and keeps them to its end: the
 * emptying and every file_str edit of them go to an in-memory copy, and
 * only when the domains and the antivirus pass are done is each file that
 * differs from the disk replaced, whole, through a temporary file flushed
 * to the disk and a rename.  A fatal error or a kill before that leaves the
 * previous files whole: the mail server never sees them empty or half
 * rebuilt.  A mailbox's delivery file is computed in memory the same way
 * and, at the mailbox's end, compared with the disk and only when it
 * differs locked and replaced.  qmail-send is
 * signalled once, after the files are written.  The system users the
 * files are given to are looked up once for the whole pass.
 *
 * The work a mailbox waits on is started ahead: when a domain's mailbox
 * list arrives, the mailboxes' own queries (group members, aliases) are
 * queued over a second connection, so that the server answers them while
 * the mailboxes before them are written; the questions the writers ask of
 * every domain (its identifier, policy, quota, aliases and mailbox list)
 * follow them for the next domain.  A hashing thread, on a third
 * connection, reads the domains' mailbox lists from the start of the pass
 * and hashes their plain passwords ahead of it.  Every question is still
 * asked in its own words: the pipeline hands it the queued answer of the
 * very same query text, or asks the server when there is none, and a hash
 * made ahead is taken only for the very same password text, so what was
 * done ahead can make the pass faster but never changes its answers.
 */
#include "restore/rebuild.h"

#include "db/component.h"
#include "db/connect.h"
#include "db/get.h"
#include "db/pipeline.h"
#include "filters/antivirus.h"
#include "fs/file_str.h"
#include "fs/held_file.h"
#include "fs/path_at.h"
#include "fs/replace_file.h"
#include "mailconf/delivery.h"
#include "mailconf/domain.h"
#include "mailconf/domain_alias.h"
#include "mailconf/idn.h"
#include "mailconf/mailbox.h"
#include "mailconf/nonexist_policy.h"
#include "mailconf/quota.h"
#include "mailconf/value_check.h"
#include "proc/send_sig.h"
#include "proc/service.h"
#include "restore/hash_ahead.h"
#include "restore/check_report.h"
#include "runtime/config.h"
#include "runtime/report.h"
#include "runtime/users.h"

#include <crypt.h>
#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <set>
#include <string>
#include <unordered_map>
#include <vector>

static const size_t QUERY_SIZE = 4096;

/* The shared qmail files the pass holds, in the order of locking. */
static const char *const SHARED_FILES[] = {
    "/control/rcpthosts", "/control/virtualdomains", "/users/assign", "/users/poppasswd",
    "/control/rejectnonexist",
};

/* The salt of this run: "$1$", eight characters, a terminating zero. */
static char run_salt[12];

/* What a check run has seen of the panel, to tell what on disk is surplus
 * to it: the domains' directory names and the current domain's mailbox
 * names; and the hashes of users/poppasswd on disk by home directory, to
 * verify the panel's plain passwords against. */
static std::set<std::string> seen_domains, seen_mailboxes;
static std::unordered_map<std::string, std::string> disk_hashes;

/* What the pass did, for the summary line of the run. */
static struct {
    unsigned domains, mailboxes, aliases, skipped;
} counts;

/* db_flag_on - a flag column is on unless it says "false"; a NULL (which
 * the panel never stores there) is taken as off rather than compared */
static int db_flag_on(const char *value)
{
    return value != nullptr && strcmp(value, "false") != 0;
}

void make_salt(char *buf, int n)
{
    for (int i = 0; i < n; i++) {
        int k = static_cast<int>(rand() * 64.0 * 4.656612873077393e-10);
        buf[i] = SALT_ALPHABET[(k + 1) % 64];
    }
}

int short_pop3_names_allowed(MYSQL *conn)
{
    const char *value = get_misc_param("allow_short_pop3_names", conn);

    return !(value != nullptr && strcmp(value, "disabled") == 0);
}

/* column_rule - the rule that column col of a fetched row breaks, or null:
 * a NUL byte inside it, or a rule of check (a value_check function) */
static const char *column_rule(MYSQL_RES *res, MYSQL_ROW row, unsigned col,
                               const char *(*check)(const char *))
{
    const unsigned long *lengths = mysql_fetch_lengths(res);

    if (const char *why = check_no_nul(row[col], lengths[col]))
        return why;
    return check(row[col]);
}

/* skip_row - warn that a row is left out: what it is (kind, and its value
 * if it has one; no kind for the domain itself), the mailbox it belongs to
 * if any, its domain and the rule it breaks; values are shown printable */
static void skip_row(const char *kind, const char *value, const char *mailbox,
                     const char *domain, const char *why)
{
    char v[VALUE_PRINTABLE_SIZE], m[VALUE_PRINTABLE_SIZE], d[VALUE_PRINTABLE_SIZE];

    counts.skipped++;
    value_printable(domain, d, sizeof(d));
    /* Deliberately no system error line: the warning is about what a table
     * holds, and an errno left by some earlier call would only mislead. */
    errno = 0;
    if (kind == nullptr)
        report(0, "Skipping mail domain '%s': %s", d, why);
    else if (value == nullptr)
        report(0, "Skipping the %s of mail domain '%s': %s", kind, d, why);
    else if (mailbox == nullptr)
        report(0, "Skipping %s '%s' of mail domain '%s': %s", kind,
               value_printable(value, v, sizeof(v)), d, why);
    else
        report(0, "Skipping %s '%s' of mailbox '%s' of mail domain '%s': %s", kind,
               value_printable(value, v, sizeof(v)), value_printable(mailbox, m, sizeof(m)), d,
               why);
}

/* mailbox_rule - the rule a mailbox row breaks, or null: a NUL byte in its
 * name or password columns, its name, or (postbox on, stored crypt hash)
 * its hash */
static const char *mailbox_rule(MYSQL_RES *res, MYSQL_ROW m)
{
    const unsigned long *lengths = mysql_fetch_lengths(res);

    for (unsigned col : {3u, 4u})
        if (const char *why = check_no_nul(m[col], lengths[col]))
            return why;
    if (const char *why = column_rule(res, m, 1, check_mail_name))
        return why;
    if (db_flag_on(m[2]) && m[3] != nullptr && strcmp(m[3], "crypt") == 0 && m[4] != nullptr)
        return check_crypt_hash(m[4]);
    return nullptr;
}

/* add_forward_row - add the forward address in column col of a row, or
 * skip it with a warning */
static void add_forward_row(MYSQL_RES *res, MYSQL_ROW row, unsigned col, const char *mail_name,
                            const char *domain)
{
    if (const char *why = column_rule(res, row, col, check_address))
        skip_row("forward address", row[col], mail_name, domain, why);
    else
        add_forward_address(mail_name, domain, row[col]);
}

/* apply_quota - write or remove a domain (mail_name null) or mailbox quota */
static void apply_quota(const char *domain, const char *mail_name, const char *value)
{
    long limit = -1;

    if (value == nullptr || sscanf(value, "%ld", &limit) != 1 || limit < 0) {
        remove_mbox_quota(domain, mail_name);
        return;
    }
    if (write_mbox_quota(domain, mail_name, limit >> 10) == 0)
        report(0, "Warning: unable to write mailbox quota\n");
}

/* run_query - take the prefetched result of a query of the pass, or send
 * it and store its result; a failure ends the process */
static MYSQL_RES *run_query(MYSQL *conn, const char *query, const char *failure)
{
    MYSQL_RES *res;

    if (pipeline_ask(conn, query, &res) != 0 || res == nullptr)
        report(1, failure, mysql_error(conn));
    return res;
}

/* domain_aliases_query - the query of a domain's mail aliases, into buf */
static const char *domain_aliases_query(const char *id, char *buf)
{
    snprintf(buf, QUERY_SIZE,
             "SELECT name FROM domainaliases WHERE dom_id=%s AND status=%u AND mail='true'", id, 0u);
    return buf;
}

/* mailgroup_query - the query of a mailbox's group members, into buf */
static const char *mailgroup_query(const char *mailbox_id, char *buf)
{
    snprintf(buf, QUERY_SIZE, "SELECT address FROM mail_redir WHERE mn_id=%s", mailbox_id);
    return buf;
}

/* mail_aliases_query - the query of a mailbox's aliases, into buf */
static const char *mail_aliases_query(const char *mailbox_id, char *buf)
{
    snprintf(buf, QUERY_SIZE, "SELECT alias FROM mail_aliases WHERE mn_id=%s", mailbox_id);
    return buf;
}

/* mailboxes_query - the query of a domain's mailbox list, into buf */
static const char *mailboxes_query(const char *id, char *buf)
{
    snprintf(buf, QUERY_SIZE,
             "SELECT m.id, m.mail_name, m.postbox, a.type, a.password, m.redirect, m.redir_addr, "
             "m.mail_group, m.autoresponder, m.mbox_quota FROM mail m LEFT JOIN accounts a ON "
             "a.id = m.account_id WHERE dom_id=%s",
             id);
    return buf;
}

/* domain_row_restored - 1 when restore_domain() will ask the questions of
 * a domain row: its identifier is a number and its name passes the rule */
static int domain_row_restored(MYSQL_RES *domains, MYSQL_ROW d)
{
    const char *id = d[0];

    return id != nullptr && id[strspn(id, "0123456789")] == '\0'
           && column_rule(domains, d, 1, check_domain_name) == nullptr;
}

/* prefetch_domain - queue the questions restore_domain() asks of every
 * domain row it does not skip, in its order, so that the server answers
 * them while the domain before is written */
static void prefetch_domain(MYSQL_RES *domains, MYSQL_ROW d)
{
    char query[QUERY_SIZE];
    const char *id = d[0];

    if (!domain_row_restored(domains, d))
        return;
    char *ascii = idn_toascii(d[1]);
    if (ascii != nullptr)
        pipeline_prefetch(dom_id_query(ascii, query, sizeof(query)));
    free(ascii);
    pipeline_prefetch(dom_limit_query(id, "mbox_quota", query, sizeof(query)));
    pipeline_prefetch(domain_aliases_query(id, query));
    pipeline_prefetch(mailboxes_query(id, query));
    nonexist_policy_prefetch(id);
}

/* prefetch_next_domain - prefetch_domain() for the row after the current
 * one, which stays the current one */
static void prefetch_next_domain(MYSQL_RES *domains)
{
    MYSQL_ROW_OFFSET here = mysql_row_tell(domains);

    if (MYSQL_ROW next = mysql_fetch_row(domains))
        prefetch_domain(domains, next);
    mysql_row_seek(domains, here);
}

/* row_plain - the plain password a mailbox row's postbox is hashed from
 * (the empty text for a missing account), or null when the row has no
 * postbox or stores a crypt hash */
static const char *row_plain(MYSQL_ROW m)
{
    if (!db_flag_on(m[2]) || (m[3] != nullptr && strcmp(m[3], "crypt") == 0))
        return nullptr;
    return m[4] ? m[4] : "";
}

/* start_mailboxes - queue the queries restore_mailbox() will ask of each
 * row of a domain's mailbox list, in its order; the list is rewound for
 * the walk that writes the mailboxes */
static void start_mailboxes(MYSQL_RES *rows)
{
    char query[QUERY_SIZE];

    while (MYSQL_ROW m = mysql_fetch_row(rows)) {
        if (mailbox_rule(rows, m) != nullptr)
            continue;
        if (db_flag_on(m[7]))
            pipeline_prefetch(mailgroup_query(m[0], query));
        pipeline_prefetch(mail_aliases_query(m[0], query));
    }
    mysql_data_seek(rows, 0);
}

/* start_hashing - hand the hashing thread a connection of its own and the
 * mailbox list query of every domain row, in the pass's order, so that it
 * hashes the plain passwords ahead of the pass for the whole run.  Without
 * a connection (the server may allow no third one) the pass hashes them
 * itself, as fast as ever, without a word. */
static void start_hashing(MYSQL_RES *domains, std::vector<std::string> &queries,
                          std::vector<const char *> &texts)
{
    char query[QUERY_SIZE], err[QUERY_SIZE];

    while (MYSQL_ROW d = mysql_fetch_row(domains))
        queries.push_back(domain_row_restored(domains, d) ? mailboxes_query(d[0], query) : "");
    mysql_data_seek(domains, 0);
    for (const std::string &q : queries)
        texts.push_back(q.empty() ? nullptr : q.c_str());
    hash_ahead_start(db_open_session(err, sizeof(err)), texts.data(), texts.size(), row_plain,
                     run_salt);
}

/* empty_qmail_files - empty the held copies of the domain data, assign
 * keeping its "."; the disk keeps the old files until the pass has
 * succeeded */
static void empty_qmail_files(void)
{
    char path[QUERY_SIZE];

    for (const char *name : SHARED_FILES) {
        snprintf(path, sizeof(path), "%s%s", panel_config.QMAIL_ROOT_D, name);
        if (strcmp(name, "/control/rejectnonexist") != 0)
            held_file_reset(path, strcmp(name, "/users/assign") == 0 ? ".\n" : "");
    }
}

/* prepare_mailnames_dir - make the mailbox root, owned by root:gid, 0755;
 * owner and mode are set only where they differ (a check run reports
 * them) */
static void prepare_mailnames_dir(unsigned gid)
{
    const char *dir = panel_config.QMAIL_MAILNAMES_D;
    const char *step = "chown";
    struct stat st;

    if (stat(dir, &st) != 0) {
        if (errno != ENOENT)
            report(1, "ERROR: Unable to stat for mailnames dir: %s", strerror(errno));
        if (check_run) {
            check_note("missing", dir);
            return;
        }
        if (mkdir(dir, 0755) != 0)
            report(1, "ERROR: Unable to mkdir for mailnames dir: %s", strerror(errno));
    }
    int fd = open(dir, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0 || fd_owner_mode(fd, dir, 0, gid, 0755, &step) != 0) {
        if (strcmp(step, "chmod") == 0)
            report(1, "ERROR: Unable to chmod for mailnames dir: %s", strerror(errno));
        report(1, "ERROR: Unable to chown for mailnames dir: %s", strerror(errno));
    }
    close(fd);
    if (chdir(dir) != 0)
        report(1, "WARNING: Unable to chdir to mailnames dir: %s", strerror(errno));
}

/* batch_end - release the held files' locks, signal once */
static void batch_end(void)
{
    held_files_release();
    get_refusals_fatal(0);
    get_dom_id_share(nullptr);
    users_remember(0);
    kill_by_name_defer(0);
}

/* batch_begin - lock and hold the shared files for the whole pass.  Nothing
 * of them reaches the disk before batch_end: a fatal error or a kill
 * leaves the previous files whole. */
static void batch_begin(void)
{
    char path[QUERY_SIZE];

    for (const char *name : SHARED_FILES) {
        snprintf(path, sizeof(path), "%s%s", panel_config.QMAIL_ROOT_D, name);
        if (held_file_take(path, 1) != 0)
            report(1, "Unable to lock %s for the rebuild", path);
    }
    kill_by_name_defer(1);
    users_remember(1);
}

/* load_disk_hashes - a check run's map of users/poppasswd on disk: home
 * directory to hash ("name:[!]hash:popuser:home" lines) */
static void load_disk_hashes(void)
{
    char path[QUERY_SIZE], line[QUERY_SIZE];

    snprintf(path, sizeof(path), "%s%s", panel_config.QMAIL_ROOT_D, "/users/poppasswd");
    FILE *f = fopen(path, "r");
    while (f != nullptr && fgets(line, sizeof(line), f) != nullptr) {
        line[strcspn(line, "\n")] = '\0';
        char *hash = strchr(line, ':');
        char *home = hash ? strchr(hash + 1, ':') : nullptr;
        char *rest = home ? strchr(home + 1, ':') : nullptr;
        if (rest == nullptr)
            continue;
        *home = '\0';
        hash += 1 + (hash[1] == '!');
        disk_hashes[rest + 1] = hash;
    }
    if (f != nullptr)
        fclose(f);
}

/* known_hash - in a check run, the hash on disk of a mailbox's plain
 * password when it verifies the password (so that the run's new salt does
 * not count as a change), else hash */
static const char *known_hash(const char *ascii, const char *mail_name, const char *plain,
                              const char *hash)
{
    static struct crypt_data data;
    char home[QUERY_SIZE];

    snprintf(home, sizeof(home), "%s/%s/%s", panel_config.QMAIL_MAILNAMES_D, ascii, mail_name);
    auto known = disk_hashes.find(home);
    if (known == disk_hashes.end())
        return hash;
    const char *again = crypt_r(plain, known->second.c_str(), &data);
    return again != nullptr && known->second == again ? known->second.c_str() : hash;
}

/* note_surplus - a check run's line for each directory (or link) in dir
 * that names nothing the panel has, in name order; set-aside directories
 * are left out */
static void note_surplus(const char *dir, const std::set<std::string> &seen)
{
    std::set<std::string> surplus;
    DIR *d = path_opendir(dir);
    struct stat st;

    for (struct dirent *e; d != nullptr && (e = readdir(d)) != nullptr;) {
        std::string name = e->d_name;
        if (name == "." || name == ".." || name.starts_with("__deleted") || seen.count(name)
            || fstatat(dirfd(d), e->d_name, &st, AT_SYMLINK_NOFOLLOW) != 0
            || !(S_ISDIR(st.st_mode) || S_ISLNK(st.st_mode)))
            continue;
        surplus.insert(std::string(dir) + "/" + name);
    }
    if (d != nullptr)
        closedir(d);
    for (const std::string &path : surplus)
        check_note("surplus", path.c_str());
}

/* restore_mailbox - row number i of a domain's mailbox list, all its
 * records; its delivery file is held in memory from add_mailbox to the
 * end */
static void restore_mailbox(MYSQL *conn, MYSQL_RES *rows, MYSQL_ROW m, size_t i,
                            const char *domain, const char *ascii, int disabled,
                            int full_names_required)
{
    char qmail[QUERY_SIZE], query[QUERY_SIZE];
    const char *mail_name = m[1];

    if (const char *why = mailbox_rule(rows, m)) {
        skip_row("mailbox", mail_name, nullptr, domain, why);
        return;
    }
    snprintf(qmail, sizeof(qmail), "%s/%s/%s/.qmail", panel_config.QMAIL_MAILNAMES_D, ascii, mail_name);
    if (held_file_take_rebuilt(qmail) != 0)
        report(1, "Unable to lock %s for the rebuild", qmail);
    /* A mailbox whose directories are in the way of a foreign object keeps
     * its records but none of its files on disk changes. */
    int tree_skipped = add_mailbox(mail_name, domain) != 0;
    counts.mailboxes++;
    seen_mailboxes.insert(mail_name);
    if (db_flag_on(m[2])) {
        const char *plain = row_plain(m);
        const char *hash = plain != nullptr ? hash_ahead_get(i, plain) : m[4];
        if (check_run && plain != nullptr)
            hash = known_hash(ascii, mail_name, plain, hash);
        add_postbox(mail_name, domain, hash, disabled, full_names_required);
    }
    if (db_flag_on(m[5]) && m[6] != nullptr && m[6][0] != 0)
        add_forward_row(rows, m, 6, mail_name, domain);
    if (db_flag_on(m[7])) {
        MYSQL_RES *res = run_query(conn, mailgroup_query(m[0], query),
                                   "Unable to query mailgroup members: %s");
        while (MYSQL_ROW r = mysql_fetch_row(res))
            add_forward_row(res, r, 0, mail_name, domain);
        mysql_free_result(res);
    }
    if (db_flag_on(m[8]))
        add_autoresponder(mail_name, domain);
    if (!tree_skipped)
        apply_quota(domain, mail_name, m[9]);
    MYSQL_RES *res = run_query(conn, mail_aliases_query(m[0], query),
                               "Unable to query alias for mail: %s");
    while (MYSQL_ROW r = mysql_fetch_row(res)) {
        if (const char *why = column_rule(res, r, 0, check_mail_name))
            skip_row("mail alias", r[0], mail_name, domain, why);
        else if (add_mail_alias(mail_name, domain, r[0]) == 0)
            counts.aliases++;
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
static void restore_domain(MYSQL *conn, MYSQL_RES *domains, MYSQL_ROW d, size_t k,
                           int full_names_required)
{
    char query[QUERY_SIZE];
    const char *id = d[0];
    const char *name = d[1];
    int disabled = (d[2] && atoi(d[2]) != 0) || (d[3] && atoi(d[3]) != 0);

    if (const char *why = column_rule(domains, d, 1, check_domain_name)) {
        skip_row(nullptr, nullptr, nullptr, name, why);
        return;
    }
    /* A domain whose directory is root's link that cannot be followed
     * keeps its records; its files on disk stay as they are. */
    int dir_skipped = add_mail_domain(name, disabled) != 0;
    counts.domains++;
    /* The name converts: check_domain_name has just converted it. */
    char *ascii = idn_toascii(name);
    /* Every question about the domain itself is asked before the first of
     * its files (.qmail-default, @mbox.quota) is written, the policy's own
     * questions last, just before it writes: a refused one ends the run
     * with the domain's files as they were. */
    const char *limit_value = get_dom_Limit(id, "mbox_quota", conn);
    std::string limit = limit_value != nullptr ? limit_value : "";
    MYSQL_RES *aliases = run_query(conn, domain_aliases_query(id, query), "Unable to query domain aliases: %s");
    MYSQL_RES *res = run_query(conn, mailboxes_query(id, query), "Unable to query mailnames: %s");
    hash_ahead_domain(k);
    start_mailboxes(res);
    prefetch_next_domain(domains);

    int reject_aliases;
    const char *policy_refused = restore_nonexist_policy_checked(name, id, conn, &reject_aliases);
    if (policy_refused != nullptr)
        skip_row("unknown-recipient policy", nullptr, nullptr, name, policy_refused);
    if (!dir_skipped)
        apply_quota(name, nullptr, limit.c_str());

    while (MYSQL_ROW a = mysql_fetch_row(aliases)) {
        if (const char *why = column_rule(aliases, a, 0, check_domain_name)) {
            skip_row("domain alias", a[0], nullptr, name, why);
            continue;
        }
        add_domain_alias(name, a[0]);
        counts.aliases++;
        if (reject_aliases)
            add_reject(a[0]);
    }
    mysql_free_result(aliases);

    for (size_t i = 0; MYSQL_ROW m = mysql_fetch_row(res); i++)
        restore_mailbox(conn, res, m, i, name, ascii, disabled, full_names_required);
    mysql_free_result(res);
    if (check_run) {
        snprintf(query, sizeof(query), "%s/%s", panel_config.QMAIL_MAILNAMES_D, ascii);
        note_surplus(query, seen_mailboxes);
        seen_mailboxes.clear();
        seen_domains.insert(ascii);
    }
    free(ascii);
}

void rebuild_mail_configuration(void)
{
    unsigned gid = lookup_user_ids("qmails", 1);

    if (chdir(panel_config.QMAIL_ROOT_D) != 0)
        report(1, "ERROR: Unable to chdir to qmail dir: %s", strerror(errno));
    if (check_run)
        load_disk_hashes();
    batch_begin();
    empty_qmail_files();
    prepare_mailnames_dir(gid);

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
    get_dom_id_share(conn);
    MYSQL *ahead = panel_db_open();
    if (ahead == nullptr)
        report(1, "Unable to connect to the mysql database");
    pipeline_open(ahead, conn);
    int full_names_required = short_pop3_names_allowed(conn) == 0;

    MYSQL_RES *domains = run_query(conn,
        "SELECT d.id, d.name, d.status, s.status FROM domains d LEFT JOIN DomainServices s "
        "ON d.id=s.dom_id WHERE s.type='mail'",
        "Unable to query domains: %s");

    srand(time(nullptr));
    memcpy(run_salt, "$1$", 3);
    make_salt(run_salt + 3, 8);
    run_salt[11] = 0;

    std::vector<std::string> queries;
    std::vector<const char *> texts;
    start_hashing(domains, queries, texts);
    prefetch_next_domain(domains);
    for (size_t k = 0; MYSQL_ROW d = mysql_fetch_row(domains); k++)
        restore_domain(conn, domains, d, k, full_names_required);
    hash_ahead_stop();
    mysql_free_result(domains);
    pipeline_close();
    mysql_close(ahead);

    if (is_component_installed("drweb") && is_component_installed("drweb-qmail"))
        restore_antivirus_settings(conn);
    if (check_run)
        note_surplus(panel_config.QMAIL_MAILNAMES_D, seen_domains);
    /* The pass has succeeded: the shared files are replaced now, each only
     * when it differs, before qmail's user database is rebuilt from them;
     * files that cannot be written end the run here. */
    if (held_files_write() != 0)
        report(1, "Unable to write the rebuilt qmail files");
    batch_end();
    mysql_close(conn);
}

void rebuild_log_summary(double seconds)
{
    report_syslog_info("summary: %u domains, %u mailboxes and %u aliases restored, %u rows skipped, "
                       "%lu files replaced, %.1f seconds",
                       counts.domains, counts.mailboxes, counts.aliases, counts.skipped,
                       replace_count(), seconds);
}

int run_qmail_newu(void)
{
    char command[QUERY_SIZE];

    snprintf(command, sizeof(command), "%s%s", panel_config.QMAIL_ROOT_D, "/bin/qmail-newu");
    int status = system(command);
    return (status >> 8) & 0xff;
}

int restart_qmail(int really)
{
    if (really == 0)
        return 0;
    return service_control("qmail", "restart");
}
