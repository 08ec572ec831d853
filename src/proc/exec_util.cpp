/* exec_util - small helpers around child processes and command strings
 * (see exec.h). */
#include "proc/exec.h"

#include "runtime/report.h"

#include <fcntl.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

char *find_in_path(const char *name, const char *dirs, int executable)
{
    const char *list = dirs ? dirs : getenv("PATH");

    if (list == nullptr || *list == 0)
        return nullptr;
    for (const char *entry = list;;) {
        const char *end = strchr(entry, ':');
        int entry_len = static_cast<int>(end ? end - entry : strlen(entry));
        char *path = xasprintf("%.*s/%s", entry_len, entry, name);
        struct stat st;

        if (stat(path, &st) == 0 && (!executable || (st.st_mode & 0111) == 0111))
            return path;
        free(path);
        if (end == nullptr || end[1] == 0)
            return nullptr;
        entry = end + 1;
    }
}

void child_start(void)
{
    /* The kernel's action record all zero: the default action, no flags,
     * nothing blocked while it runs, whatever the record's layout. */
    const unsigned long dfl[4] = {};
    sigset_t none;

    /* The database library ignores SIGPIPE in rebox, and rebox ignores the
     * terminal stop signals: a program it starts gets none of that.  Asked
     * of the kernel itself, so that the C library's own signals are reset
     * too; SIGKILL and SIGSTOP cannot be changed and are passed over. */
    for (int sig = 1; sig < _NSIG; sig++)
        syscall(SYS_rt_sigaction, sig, dfl, nullptr, _NSIG / 8);
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
}

void close_fds_from_3(void)
{
    /* close_range() does in one call what the loop does one descriptor at a
     * time; the loop remains for kernels without it. */
    if (close_range(3, ~0U, 0) != 0) {
        int table_size = getdtablesize();
        for (int fd = 3; fd < table_size; fd++)
            close(fd);
    }
}

int redirect_fd(int fd, int target)
{
    if (fd == target)
        return target;
    if (fd == -1) {
        fd = open("/dev/null", O_RDWR);
        if (fd < 0)
            return -1;
        if (fd == target)
            return target;
    }
    int result = dup2(fd, target);
    close(fd);
    return result;
}

void check_params_consumed(int expected, int consumed)
{
    if (expected != consumed)
        report_plain(1, "Some parameters in command string leave unprocessed. "
                        "Check parameters please.");
}

void check_param_present(int required, const char *value, const char *name)
{
    if (required && (value == nullptr || *value == 0))
        report_plain(1, "Miss parameter '%s' or previos parameter empty.\n", name);
}

void *xmalloc(size_t size)
{
    void *p = malloc(size);

    if (p == nullptr)
        report(1, "alloc(%d)", static_cast<int>(size));
    return p;
}
