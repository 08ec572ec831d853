/* mailbox - add and remove a mailbox home, its Maildir and its assign
 * record (see mailbox.h). */
#include "mailconf/mailbox.h"

#include "fs/file_str.h"
#include "fs/held_file.h"
#include "fs/path_ops.h"
#include "fs/replace_file.h"
#include "fs/tree.h"
#include "mailconf/qmail_common.h"
#include "mailconf/value_check.h"
#include "runtime/config.h"
#include "runtime/report.h"

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

/* Directories made in every home, in this order: each inside the home
 * (parent -1) or inside the directory made at index parent; a leaf holds
 * none of the others. */
static const struct {
    const char *name;
    int parent;
    int leaf;
} mailbox_subdirs[] = {
    {"Maildir", -1, 0}, {"tmp", 0, 1}, {"new", 0, 1}, {"cur", 0, 1}, {"@attachments", -1, 1},
};

/* format_mailbox_record - the assign record "=id-name:popuser:uid:gid:home:::" */
static void format_mailbox_record(char *buf, const char *id, const char *mail_name,
                                  const PopuserIds *ids, const char *ascii)
{
    char home[QMAIL_BUF_SIZE];

    snprintf(buf, QMAIL_BUF_SIZE, "=%s-%s:popuser:%d:%d:%s:::", id, mail_name, static_cast<int>(ids->uid),
             static_cast<int>(ids->gid), mail_path(home, ascii, mail_name, nullptr));
}

/* Made - the directories add_mailbox made itself, so that a failed step
 * takes back those and nothing else: one entry a directory, in the order
 * of making (the home first), each with the descriptor of its parent. */
struct Made {
    int parent[8];
    const char *name[8];
    int count;
};

/* undo_and_die - take back the empty directories this call made, newest
 * first, then end the process with the message.  Anything that was there
 * before, mail above all, stays.  The message names the failure's system
 * error (errno at the call). */
[[noreturn]] static void undo_and_die(const Effects *fx, const Made *made, const char *message)
{
    int failure = errno;

    for (int i = made->count - 1; i >= 0; i--)
        fx->remove_dir(made->parent[i], made->name[i]);
    report_errno(failure, 1, "%s", message);
    report_exit(1);
}

/* note_made - a directory this call made, at name in parent, for the
 * undo */
static void note_made(Made *made, int parent, const char *name)
{
    made->parent[made->count] = parent;
    made->name[made->count++] = name;
}

/* make_owned_dir - the directory at (made with mode 0700 when missing; an
 * existing one keeps its mode) given to popuser, or kept to the run when
 * this call made it where nobody else could (*kept 1: the descriptor is
 * then fs/path_at's, given away by path_at_give_fresh); its descriptor, or
 * -1 with *what telling the failing step.  One it made is noted in made,
 * through parent and under name, which outlive the call. */
static int make_owned_dir(PathAt *at, int parent, const char *name, const PopuserIds &ids, const char **what,
                          Made *made, int *kept)
{
    int created = 0;
    int fd = at_dir(at, 0700, &created);

    *kept = 0;
    if (created)
        note_made(made, parent, name);
    if (fd < 0) {
        *what = "make";
        return -1;
    }
    if (created && path_at_keep_fresh(at, fd, ids.uid, ids.gid)) {
        *kept = 1;
        return fd;
    }
    /* Given away only when it is not popuser's already. */
    FileStep step;
    if (fd_owner_mode(at->fx, fd, at->path, ids.uid, ids.gid, static_cast<mode_t>(-1), &step) != 0) {
        int err = errno;
        close(fd);
        errno = err;
        *what = "chown";
        return -1;
    }
    return fd;
}

/* skip_tree - the warning for a mailbox whose tree is left as it is: a
 * link or another kind of object stands where its directory at path
 * belongs (none when its domain's directory was skipped, which the domain
 * writer has told); 1 */
static int skip_tree(const char *path)
{
    if (errno != ENOLINK)
        report_plain(0, "Skipping the mail directories of %s: a link or another kind of object stands "
                        "where a directory belongs",
                     path);
    return 1;
}

/* start_qmail - the home's delivery file started empty, owned by popuser
 * with mode 0600: in the rebuild's memory when it holds the file (written
 * at the mailbox's end, and only when it differs), else replaced on disk
 * through the home's descriptor; then its first line */
static void start_qmail(const Effects *fx, int home_fd, const char *home, const PopuserIds &ids)
{
    char path[QMAIL_BUF_SIZE];
    PathAt at;

    /* A path cut by the buffer would name another file's lock. */
    if (snprintf(path, sizeof(path), "%s/.qmail", home) >= static_cast<int>(sizeof(path)))
        report_plain(1, "Unable to add string to .qmail file\n");
    if (held_file_reset(path, "", 0) == 0) {
        held_file_owner(path, ids.uid, ids.gid, 0600);
    } else {
        /* Emptied by a whole replacement, never cut in place. */
        FileStep step;
        at_child(fx, &at, home_fd, ".qmail", path);
        if (replace_file_at(&at, "", 0, ids.uid, ids.gid, 0600, 0, &step) < 0) {
            if (step == STEP_CHOWN || step == STEP_CHMOD)
                report(1, "Unable to %s .qmail file: %s", step_word(step), strerror(errno));
            report(0, "Unable to truncate or create file %s: %s", path, strerror(errno));
            report(1, "Unable to create %s file\n", ".qmail");
        }
    }
    /* Edited by its full path, as the delivery writers spell it: its named
     * lock is then the one they and the panel's other tools take. */
    if (file_str(fx, path, "| true", FILE_STR_ADD, FILE_STR_AT_END) != 0)
        report(1, "Unable to add string to .qmail file\n");
}

/* subdir_path - the path of mailbox_subdirs[i] in home, into buf */
static const char *subdir_path(char *buf, size_t size, const char *home, size_t i)
{
    int parent = mailbox_subdirs[i].parent;

    snprintf(buf, size, "%s/%s%s%s", home, parent < 0 ? "" : mailbox_subdirs[parent].name, parent < 0 ? "" : "/",
             mailbox_subdirs[i].name);
    return buf;
}

int add_mailbox(const MailDomain *d, const char *mail_name)
{
    char record[QMAIL_BUF_SIZE], path[QMAIL_BUF_SIZE];
    char home[QMAIL_BUF_SIZE], message[QMAIL_BUF_SIZE * 3], sub[QMAIL_BUF_SIZE * 2];
    const char *what = nullptr;
    const size_t n = sizeof(mailbox_subdirs) / sizeof(mailbox_subdirs[0]);
    int fds[n], kept[n];
    PathAt at;
    PopuserIds ids = {d->uid, d->gid};

    if (!mail_name_valid(mail_name))
        report(1, "invalid mailname or domain name.");
    format_mailbox_record(record, d->id, mail_name, &ids, d->ascii);
    qmail_file_path(path, sizeof(path), QMAIL_ASSIGN_FILE);
    if (file_str(d->fx, path, record, FILE_STR_REMOVE, 1) != 0)
        report(0, "Unable to remove record for %s from assign file", mail_name);
    if (file_str(d->fx, path, record, FILE_STR_ADD, FILE_STR_AT_BEGIN) != 0)
        report(1, "Unable to add record for %s to assign file", mail_name);
    set_shared_mode(d->fx, path, 0600);

    /* The home and everything in it are made through directory
     * descriptors: popuser owns the domain directory, and no link or
     * swapped directory there may lead a mkdir, chown or write elsewhere. */
    mail_path(home, d->ascii, mail_name, nullptr);
    Made made = {};
    int home_fd = -1, domain_fd = -1, home_kept = 0, own_domain_fd = 0;
    what = "make";
    if (path_at(d->fx, home, &at) == 0) {
        /* The domain directory, for taking back a home made here: a copy
         * unless path_at keeps it open. */
        own_domain_fd = at.owned;
        domain_fd = own_domain_fd ? dup(at.dir) : at.dir;
        home_fd = make_owned_dir(&at, domain_fd, mail_name, ids, &what, &made, &home_kept);
        path_at_close(&at);
    }
    if (home_fd < 0) {
        if (at_in_the_way(errno)) {
            skip_tree(home);
            if (own_domain_fd && domain_fd >= 0)
                close(domain_fd);
            return 1;
        }
        snprintf(message, sizeof(message), "Unable to %s %s dir: %s", what, home,
                 strerror(errno));
        undo_and_die(d->fx, &made, message);
    }

    /* An existing home is held open for the mailbox's files too. */
    if (!home_kept)
        home_kept = path_at_hold(home, home_fd);
    start_qmail(d->fx, home_fd, home, ids);

    int rc = 0;
    for (size_t i = 0; i < n; i++)
        fds[i] = -1, kept[i] = 0;
    for (size_t i = 0; i < n; i++) {
        int parent = mailbox_subdirs[i].parent;
        const char *name = mailbox_subdirs[i].name;
        struct stat st;
        subdir_path(sub, sizeof(sub), home, i);
        at_child(d->fx, &at, parent < 0 ? home_fd : fds[parent], name, sub);
        /* In a directory the run keeps to itself a leaf is made and given
         * away by name; only one found standing there is looked at. */
        if (mailbox_subdirs[i].leaf && at.fresh != nullptr) {
            int created = 0;
            if (d->fx->new_leaf(&at, 0700, ids.uid, ids.gid, &created) == 0) {
                note_made(&made, at.dir, name);
                continue;
            }
            if (errno != EEXIST) {
                if (created)
                    note_made(&made, at.dir, name);
                snprintf(message, sizeof(message), "Unable to %s %s dir: %s", created ? "chown" : "make", sub,
                         strerror(errno));
                undo_and_die(d->fx, &made, message);
            }
        }
        /* A directory that holds none of the others and is popuser's
         * already needs only a look. */
        if (mailbox_subdirs[i].leaf && fstatat(at.dir, name, &st, AT_SYMLINK_NOFOLLOW) == 0
            && S_ISDIR(st.st_mode) && st.st_uid == ids.uid && st.st_gid == ids.gid)
            continue;
        fds[i] = make_owned_dir(&at, at.dir, name, ids, &what, &made, &kept[i]);
        if (fds[i] >= 0)
            continue;
        if (at_in_the_way(errno)) {
            rc = skip_tree(sub);
            break;
        }
        snprintf(message, sizeof(message), "Unable to %s %s dir: %s", what, sub, strerror(errno));
        undo_and_die(d->fx, &made, message);
    }
    /* A directory kept to the run is given away once what is in it is
     * made. */
    for (size_t i = n; i-- > 0;) {
        if (kept[i] && path_at_give_fresh(d->fx, subdir_path(sub, sizeof(sub), home, i)) != 0) {
            snprintf(message, sizeof(message), "Unable to chown %s dir: %s", sub, strerror(errno));
            undo_and_die(d->fx, &made, message);
        }
        if (!kept[i] && fds[i] >= 0)
            close(fds[i]);
    }
    if (own_domain_fd)
        close(domain_fd);
    if (!home_kept)
        close(home_fd);
    return rc;
}

void mailbox_done(const MailDomain *d, const char *mail_name)
{
    char home[QMAIL_BUF_SIZE];

    mail_path(home, d->ascii, mail_name, nullptr);
    if (path_at_give_fresh(d->fx, home) != 0)
        report(1, "Unable to chown %s dir: %s", home, strerror(errno));
}

int remove_mailbox(const MailDomain *d, const char *mail_name)
{
    char record[QMAIL_BUF_SIZE], path[QMAIL_BUF_SIZE];
    char home[QMAIL_BUF_SIZE];
    PopuserIds ids = {d->uid, d->gid};

    if (!mail_name_valid(mail_name))
        report_plain(1, "empty mailname or maildomain");
    format_mailbox_record(record, d->id, mail_name, &ids, d->ascii);
    qmail_file_path(path, sizeof(path), QMAIL_ASSIGN_FILE);
    if (file_str(d->fx, path, record, FILE_STR_REMOVE, 1) != 0)
        report(0, "Unable to remove %s mailbox record from assign file", mail_name);
    set_shared_mode(d->fx, path, 0600);

    /* The home path's ending, from the slash before the domain: keeps
     * xinfo@example.com and info@example.com.au. */
    snprintf(record, sizeof(record), "/%s/%s", d->ascii, mail_name);
    qmail_file_path(path, sizeof(path), QMAIL_POPPASSWD_FILE);
    if (file_str(d->fx, path, record, FILE_STR_REMOVE_MATCHING, FILE_STR_SUFFIX) != 0)
        report(0, "Unable to remove %s mailbox record from password file\n", mail_name);
    set_shared_mode(d->fx, path, 0600);

    mail_path(home, d->ascii, mail_name, nullptr);
    remove_tree(d->fx, home);
    return 0;
}
