/* check_effects - the effects of a check run: compare and report (see
 * check_effects.h). */
#include "restore/check_effects.h"

#include "fs/at_name.h"
#include "fs/path_ops.h"
#include "fs/file_lock.h"
#include "fs/file_str.h"
#include "fs/path_at.h"
#include "fs/replace_file.h"
#include "restore/check_report.h"
#include "runtime/config.h"
#include "runtime/report.h"

#include <dirent.h>
#include <errno.h>
#include <stdio.h>
#include <fcntl.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <set>
#include <string>
#include <unordered_map>

/* check_missing_dir - below a missing directory the walk goes on absent */
static int check_missing_dir(const char *)
{
    return absent_dir_fd();
}

/* check_new_dir - a directory at_dir found missing or of another kind,
 * reported unless it lies in one already reported; the walk goes on below
 * it absent */
static int check_new_dir(PathAt *at, mode_t, int *)
{
    if (!at->absent)
        check_note(errno == ENOENT ? "missing" : "foreign", at->path);
    return absent_dir_fd();
}

/* check_new_leaf - a directory at_dir would make; a check keeps no
 * directory to itself, so it is reported missing as at check_new_dir */
static int check_new_leaf(PathAt *at, mode_t, uid_t, gid_t, int *made)
{
    *made = 0;
    if (!at->absent)
        check_note("missing", at->path);
    return 0;
}

/* check_give - nothing was kept, so nothing is given */
static int check_give(int, uid_t, gid_t)
{
    return 0;
}

/* check_owner_mode_fx - the owner, group and mode an object would get */
static int check_owner_mode_fx(int fd, const char *path, uid_t uid, gid_t gid, mode_t mode,
                               FileStep *step)
{
    struct stat st;

    *step = STEP_CHOWN;
    if (fstat(fd, &st) != 0)
        return -1;
    if (!is_absent_dir(fd))
        check_owner_mode(path, st.st_uid, st.st_gid, st.st_mode, uid, gid, mode);
    return 0;
}

/* check_set_aside - a foreign object the run would set aside */
static int check_set_aside(PathAt *at, const char *)
{
    check_note("foreign", at->path);
    errno = EEXIST;
    return -1;
}

/* read_file_at - the whole content of the file reached through at into
 * text (empty at first); 0, or -1 with errno when it cannot be opened */
static int read_file_at(PathAt *at, TextBuf *text, struct stat *st)
{
    int fd = at_open(at, O_RDONLY, 0);

    if (fd < 0)
        return -1;
    int rc = fstat(fd, st);
    if (rc == 0 && text_buf_read(text, fd) != 0)
        report(0, "Unable to read file %s: %s\n", at->path, strerror(errno));
    close(fd);
    return rc;
}

/* diff_shared - a shared file's report: the unified diff of its text on
 * disk (none when missing) and the new one, poppasswd's hashes masked, and
 * its owner and mode where they differ */
static void diff_shared(PathAt *at, const char *text, size_t len, uid_t uid, gid_t gid, mode_t mode)
{
    TextBuf disk = {};
    struct stat st;
    int found = read_file_at(at, &disk, &st) == 0;
    size_t plen = strlen(at->path);

    check_diff(at->path, disk.data ? disk.data : "", disk.len, text, len,
               plen >= 10 && strcmp(at->path + plen - 10, "/poppasswd") == 0);
    if (found)
        check_owner_mode(at->path, st.st_uid, st.st_gid, st.st_mode, uid, gid, mode);
    text_buf_free(&disk);
}

/* report_drift - what is wrong with a file that does not match; nothing
 * when it lies in a directory already reported missing */
static void report_drift(PathAt *at, const char *text, size_t len, uid_t uid, gid_t gid, mode_t mode)
{
    struct stat st;

    if (at->absent)
        return;
    int fd = openat(at->dir, at->name, O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY | O_NOFOLLOW);
    if (fd < 0 && errno == ENOENT)
        check_note("missing", at->path);
    else if (fd < 0 || fstat(fd, &st) != 0 || !S_ISREG(st.st_mode) || (at->guarded && st.st_nlink != 1))
        check_note("foreign", at->path);
    else {
        check_owner_mode(at->path, st.st_uid, st.st_gid, st.st_mode, uid, gid, mode);
        if (st.st_size != static_cast<off_t>(len) || !same_bytes(fd, text, len))
            check_note("wrong-content", at->path);
    }
    if (fd >= 0)
        close(fd);
}

/* check_replace_prepare - a replacement the run would make, reported; never
 * ready to commit */
static int check_replace_prepare(PathAt *at, const char *text, size_t len, uid_t uid, gid_t gid,
                                 mode_t mode, int durable, FileStep *, PathAt *, char *)
{
    if (durable)
        diff_shared(at, text, len, uid, gid, mode);
    else if (!file_matches_at(at, text, len, uid, gid, mode))
        report_drift(at, text, len, uid, gid, mode);
    return 0;
}

/* check_replace_commit - nothing is ever prepared, so nothing commits */
static int check_replace_commit(PathAt *, PathAt *, int, FileStep *)
{
    return 0;
}

/* check_edit - a file that is not held, edited in place: what the edit
 * would write, compared with what is there.  A missing file gets the
 * edit's own result; one the edit would create is reported missing. */
static int check_edit(PathAt *at, const char *const *lines, int operation, int mode)
{
    TextBuf disk = {}, edited = {};
    struct stat st;
    int rc = 0;

    if (read_file_at(at, &disk, &st) != 0) {
        rc = errno == ENOENT ? line_edit_missing(at->path, operation, mode) : -1;
        /* Nothing more where the directory is already reported missing or
         * the object was reported foreign as it was opened. */
        if (rc < 0 && errno != EEXIST && !at->absent)
            check_note(errno == ENOENT ? "missing" : "foreign", at->path);
        return rc < 0 ? 0 : rc;
    }
    if (line_edit_apply(disk.data, disk.len, lines, operation, mode, &edited) < 0)
        report(1, "Cannot allocate memory: %s", strerror(ENOMEM));
    if (edited.len != disk.len || (disk.len && memcmp(edited.data, disk.data, disk.len) != 0))
        check_note("wrong-content", at->path);
    text_buf_free(&disk);
    text_buf_free(&edited);
    return 0;
}

/* check_remove - an object the panel no longer has */
static int check_remove(PathAt *at)
{
    check_note("surplus", at->path);
    return 0;
}

/* check_move - an object a restore would move to a deferred name: one
 * the panel no longer has */
static int check_move(PathAt *from, PathAt *)
{
    check_note("surplus", from->path);
    return 0;
}

/* check_remove_dir - nothing was made, so nothing is taken back */
static int check_remove_dir(int, const char *)
{
    return 0;
}

/* check_drop_leftover - a leftover temporary file stays */
static void check_drop_leftover(PathAt *)
{
}

/* check_signal - no process is signalled */
static int check_signal(const char *, int)
{
    return 0;
}

/* check_run_util - no program is run */
static int check_run_util(const char *, char *const[])
{
    return 0;
}

static const size_t LINE_SIZE = 4096;

/* The directories the panel has (domains' and mailboxes'). */
static std::set<std::string> panel_dirs;

/* read_disk_hashes - the hashes of users/poppasswd's "name:[!]hash:popuser:home"
 * lines, by home */
static std::unordered_map<std::string, std::string> *read_disk_hashes(void)
{
    auto *hashes = new std::unordered_map<std::string, std::string>;
    char path[LINE_SIZE], line[LINE_SIZE];

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
        (*hashes)[rest + 1] = hash;
    }
    if (f != nullptr)
        fclose(f);
    return hashes;
}

/* check_login_salt - the hash on disk of the mailbox at home, "" when the
 * disk has none; users/poppasswd is read once, at the first call (from
 * whichever thread), and only read after */
static const char *check_login_salt(const char *home)
{
    static const std::unordered_map<std::string, std::string> *disk_hashes = read_disk_hashes();

    auto known = disk_hashes->find(home);
    return known == disk_hashes->end() ? "" : known->second.c_str();
}

/* check_panel_has - the panel has the directory at path */
static void check_panel_has(const char *path)
{
    panel_dirs.insert(path);
}

/* check_dir_done - dir's surplus directories reported, in name order;
 * set-aside directories are left out */
static void check_dir_done(const char *dir)
{
    std::set<std::string> surplus;
    DIR *d = path_opendir(&CHECK_EFFECTS, dir);
    struct stat st;

    for (struct dirent *e; d != nullptr && (e = readdir(d)) != nullptr;) {
        std::string name = e->d_name, path = std::string(dir) + "/" + name;
        if (name == "." || name == ".." || name.starts_with("__deleted") || panel_dirs.count(path)
            || fstatat(dirfd(d), e->d_name, &st, AT_SYMLINK_NOFOLLOW) != 0
            || !(S_ISDIR(st.st_mode) || S_ISLNK(st.st_mode)))
            continue;
        surplus.insert(path);
    }
    if (d != nullptr)
        closedir(d);
    for (const std::string &path : surplus)
        check_note("surplus", path.c_str());
}

const Effects CHECK_EFFECTS = {
    .new_dir = check_new_dir,
    .new_leaf = check_new_leaf,
    .give = check_give,
    .owner_mode = check_owner_mode_fx,
    .set_aside = check_set_aside,
    .replace_prepare = check_replace_prepare,
    .replace_commit = check_replace_commit,
    .edit = check_edit,
    .remove = check_remove,
    .move = check_move,
    .remove_dir = check_remove_dir,
    .drop_leftover = check_drop_leftover,
    .lock = file_lock_shared,
    .missing_dir = check_missing_dir,
    .signal = check_signal,
    .run_util = check_run_util,
    .login_salt = check_login_salt,
    .panel_has = check_panel_has,
    .dir_done = check_dir_done,
};
