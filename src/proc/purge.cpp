/* purge - deleting the directories deferred removal has set aside (see
 * purge.h). */
#include "proc/purge.h"

#include "fs/tree.h"
#include "proc/exec.h"
#include "runtime/report.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

/* purge_base - delete the set-aside directories of one base directory;
 * -1 when the base cannot be read, which stops the whole purge */
static int purge_base(const char *base)
{
    DIR *dir = opendir(base);
    struct dirent *ent;

    if (dir == nullptr) {
        report(0, "Unable to open dir %s: %s\n", base, strerror(errno));
        return -1;
    }
    if (fchdir(dirfd(dir)) != 0) {
        report(0, "Unable to change dir %s: %s\n", base, strerror(errno));
        closedir(dir);
        return -1;
    }
    while ((ent = readdir(dir)) != nullptr) {
        const char *name = ent->d_name;
        struct stat st;

        if (stat(name, &st) != 0) {
            report(0, "Unable to stat file %s, skipped\n", name);
            continue;
        }
        if (!S_ISDIR(st.st_mode) || strncmp(name, DEFERRED_PREFIX, strlen(DEFERRED_PREFIX)) != 0)
            continue;
        if (exec_quiet("/bin/rm", "-rf", name, nullptr) != 0)
            report_plain(0, "Can't remove directory %s (will try in next time)\n", name);
    }
    closedir(dir);
    return 0;
}

void purge_deleted_entries(void)
{
    const char *bases[3];
    int cwd_fd = open(".", O_RDONLY | O_NONBLOCK);

    if (cwd_fd < 0) {
        report(0, "Unable to get file descriptor of current dir: %s\n", strerror(errno));
        return;
    }
    deferred_bases(bases);
    for (int i = 0; bases[i] != nullptr; i++) {
        int rc = purge_base(bases[i]);
        if (fchdir(cwd_fd) != 0)
            report(1, "Unable to restore & close current dir: %s\n", strerror(errno));
        if (rc != 0)
            break;
    }
    close(cwd_fd);
}
