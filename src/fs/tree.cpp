/* tree - whole trees removed by path, at once or deferred (see tree.h). */
#include "fs/tree.h"

#include "fs/path_at.h"
#include "fs/remove.h"
#include "runtime/config.h"
#include "runtime/report.h"

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

static const size_t PATH_BUF_SIZE = 4096;
static const char HDV1_MARKER[] = "/dev/hdv1";

/* Cached answer of hdv1_marker_present(): -1 until first asked. */
static int hdv1_cached = -1;

void remove_tree(const Effects *fx, const char *path)
{
    PathAt at;

    if (path_at(fx, path, &at) != 0) {
        if (errno == ENOENT)
            return;
        report(1, "Unable to get entry %s: %s\n", path, strerror(errno));
    }
    if (fx->remove(&at) != 0)
        report(1, "Unable to remove dir %s: %s\n", path, strerror(errno));
    path_at_close(&at);
}

void deferred_bases(const char *bases[3])
{
    bases[0] = panel_config.HTTPD_VHOSTS_D;
    bases[1] = panel_config.QMAIL_MAILNAMES_D;
    bases[2] = nullptr;
}

/* fill_unique_name - replace the trailing six X of templ with letters and
 * digits so that no entry of that name exists yet; 0 on success, -1 */
static int fill_unique_name(char *templ)
{
    size_t len = strlen(templ);
    struct stat st;

    if (len < 6 || strcmp(templ + len - 6, "XXXXXX") != 0)
        return -1;
    for (int attempt = 0; attempt < 100; attempt++) {
        if (random_letters(templ + len - 6, 6) != 0)
            return -1;
        if (lstat(templ, &st) != 0 && errno == ENOENT)
            return 0;
        memcpy(templ + len - 6, "XXXXXX", 6);
    }
    return -1;
}

void deferred_remove(const Effects *fx, const char *dir)
{
    const char *bases[3];
    const char *base = nullptr;
    char deferred[PATH_BUF_SIZE];
    struct stat st;

    deferred_bases(bases);
    for (int i = 0; bases[i] != nullptr; i++) {
        if (is_subdir(dir, bases[i]) == 1) {
            base = bases[i];
            break;
        }
    }
    if (base == nullptr) {
        report_plain(1, "deferred_remove(): not supported directory for deferred remove: %s\n", dir);
    }
    if (stat(dir, &st) != 0)
        report(1, "deferred_remove(): can't stat directory, skip it.\n");
    errno = 0; /* a name cut by the buffer is no system error */
    int n = snprintf(deferred, sizeof(deferred), "%s/%sXXXXXX", base, DEFERRED_PREFIX);
    if (n < 0 || static_cast<size_t>(n) >= sizeof(deferred) || fill_unique_name(deferred) != 0)
        report(1, "deferred_remove(): Unable create filename for delete directory\n");
    report_plain(0, "deferred_remove(): rename dir %s to %s\n", dir, deferred);
    PathAt from, to;
    int rc = -1;
    if (path_at(fx, dir, &from) == 0) {
        if (path_at(fx, deferred, &to) == 0) {
            rc = fx->move(&from, &to);
            path_at_close(&to);
        }
        path_at_close(&from);
    }
    if (rc != 0)
        report(1, "deferred_remove(): Unable to rename directory\n");
}

/* resolve_dir - the absolute, link-free name of directory dir into out
 * (PATH_BUF_SIZE bytes), going back to saved_cwd; 0 or -1 */
static int resolve_dir(const char *dir, char *out, const char *saved_cwd)
{
    if (chdir(dir) != 0)
        return -1;
    int rc = getcwd(out, PATH_BUF_SIZE) == nullptr ? -1 : 0;
    if (chdir(saved_cwd) != 0)
        report(1, "Unable to change dir %s: %s\n", saved_cwd, strerror(errno));
    return rc;
}

/* is_subdir - compares resolved names, so "a/../b" and links above the
 * directories count for what they point to; the directories themselves
 * must not be links.  The base itself is not inside itself. */
int is_subdir(const char *path, const char *base)
{
    struct stat pst, bst;
    char saved[PATH_BUF_SIZE], rpath[PATH_BUF_SIZE], rbase[PATH_BUF_SIZE];

    if (lstat(path, &pst) != 0 || lstat(base, &bst) != 0)
        return 0;
    if (!S_ISDIR(pst.st_mode) || !S_ISDIR(bst.st_mode))
        return 0;
    if (getcwd(saved, sizeof(saved)) == nullptr)
        return 0;
    if (resolve_dir(path, rpath, saved) != 0 || resolve_dir(base, rbase, saved) != 0)
        return 0;
    size_t blen = strlen(rbase);
    return strncmp(rpath, rbase, blen) == 0 && rpath[blen] == '/';
}

int hdv1_marker_present(void)
{
    struct stat st;

    if (hdv1_cached < 0)
        hdv1_cached = stat(HDV1_MARKER, &st) == 0 && S_ISREG(st.st_mode) && st.st_size == 0;
    return hdv1_cached;
}
