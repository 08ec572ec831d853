/* exec_run - runners that start a program, wait for it and report failures
 * (see exec.h). */
#include "proc/exec.h"

#include "runtime/config.h"
#include "runtime/report.h"

#include <errno.h>
#include <fcntl.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/wait.h>
#include <unistd.h>

/* Vector slots of util_exec and admin_util_exec: the path, at most 99
 * arguments, the terminating null. */
static const size_t UTIL_EXEC_SLOTS = 101;
/* exec_quiet takes at most 98 arguments. */
static const size_t EXEC_QUIET_SLOTS = 100;
static const size_t PATH_BUF_SIZE = 4096;
static const size_t POPEN_STEP = 4096;

/* fill_vector - slot 0 the path, then the listed arguments up to their null
 * while slots last (further ones are ignored), then a null */
static void fill_vector(char **slots, size_t nslots, const char *path, va_list ap)
{
    size_t i = 0;
    const char *arg;

    slots[i++] = const_cast<char *>(path);
    while (i < nslots - 1 && (arg = va_arg(ap, const char *)) != nullptr)
        slots[i++] = const_cast<char *>(arg);
    slots[i] = nullptr;
}

int util_execv(const char *path, char *const argv[], int quiet)
{
    char *out = nullptr;
    char *err = nullptr;
    int result = fork_execv_getouterr(&out, &err, path, argv);

    if (result != 0 && !quiet) {
        /* The program's own output goes out exactly as it was printed. */
        if (out) {
            fputs(out, stderr);
            fflush(stderr);
        }
        /* The child's failure, not a system error of ours. */
        if (err)
            report_plain(0, "%s execution failed:\n%s", path, err);
        else
            report_plain(0, "%s execution failed (no output)", path);
    }
    free(out);
    free(err);
    return result;
}

int util_execv(const char *path, char *const argv[])
{
    return util_execv(path, argv, 0);
}

int util_execl(const char *path, const char *arg0, ...)
{
    va_list ap;

    va_start(ap, arg0);
    char **argv = vector_from_list(arg0, ap);
    va_end(ap);
    int result = util_execv(path, argv, 0);
    free(argv);
    return result;
}

int util_exec(const char *path, ...)
{
    char *slots[UTIL_EXEC_SLOTS];
    va_list ap;

    va_start(ap, path);
    fill_vector(slots, UTIL_EXEC_SLOTS, path, ap);
    va_end(ap);
    return util_execv(path, slots, 0);
}

const char *admin_util_path(const char *name, char *buf, size_t size)
{
    /* An empty name would name the directory itself: refused like a path. */
    if (name == nullptr || *name == 0 || strchr(name, '/')) {
        report_plain(0, "Utility name '%s' is invalid. Use only utility name without path.",
                     name ? name : "");
        return nullptr;
    }
    snprintf(buf, size, "%s/admin/bin/%s", panel_config.PRODUCT_ROOT_D, name);
    return buf;
}

int admin_util_exec(const char *name, ...)
{
    char path_buf[PATH_BUF_SIZE];
    const char *path = admin_util_path(name, path_buf, sizeof(path_buf));
    char *slots[UTIL_EXEC_SLOTS];
    va_list ap;

    if (path == nullptr)
        return -1;
    va_start(ap, name);
    fill_vector(slots, UTIL_EXEC_SLOTS, path, ap);
    va_end(ap);
    return util_execv(path, slots, 0);
}

int admin_util_execv(const char *name, char *const argv[])
{
    char path_buf[PATH_BUF_SIZE];
    const char *path = admin_util_path(name, path_buf, sizeof(path_buf));

    if (path == nullptr)
        return -1;
    return util_execv(path, argv, 0);
}

/* exec_quiet - returns 1 when the child was ended by a signal, else 0.
 * A child that cannot be created, or cannot be waited for, did not run to
 * its end either: that is reported and counts as failure (1), never as
 * success. */
int exec_quiet(const char *path, ...)
{
    char *slots[EXEC_QUIET_SLOTS];
    va_list ap;

    va_start(ap, path);
    fill_vector(slots, EXEC_QUIET_SLOTS, path, ap);
    va_end(ap);

    pid_t pid = fork();
    if (pid < 0) {
        report(0, "exec_quiet: fork() failed: %s", strerror(errno));
        return 1;
    }
    if (pid == 0) {
        child_start();
        for (int fd = 0; fd <= 2; fd++)
            redirect_fd(-1, fd);
        execv(path, slots);
        _exit(255);
    }

    /* Only this child is waited for, so no other child's status is taken. */
    int status = 0;
    pid_t waited = wait_child(pid, &status, 0);
    if (waited < 0) {
        report(0, "exec_quiet: unable to wait for %s: %s", path, strerror(errno));
        return 1;
    }
    return WIFSIGNALED(status) ? 1 : 0;
}

int util_exec_fd(int fd_in, int fd_out, const char *path, char *const argv[])
{
    int err_pipe[2];
    pid_t pid = -1;

    if ((fd_in >= 0 && fd_in <= 2) || (fd_out >= 0 && fd_out <= 2)) {
        report_plain(0, "values 0,1,2 not allowed for variables fd_in & fd_out\n");
        return -1;
    }
    if (pipe(err_pipe) < 0 || (pid = fork()) < 0)
        report(1, "Error occured during fork():\n%s", strerror(errno));

    if (pid == 0) {
        child_start();
        close(0);
        close(1);
        close(2);
        close(err_pipe[0]);
        dup2(fd_in, 0);
        dup2(fd_out, 1);
        dup2(err_pipe[1], 2);
        close_fds_from_3();
        execv(path, argv);
        /* One write, so that the parent relays the message in one piece. */
        int saved = errno;
        report_stderr("Error occured during execv():\n%s%s", strerror(saved),
                      saved == EFAULT ? ", possible reason - NULL parameter is absent in "
                                        "util_exec(path, arg1, arg2, NULL) call.\n"
                                      : ".\n");
        fflush(stderr);
        _exit(255);
    }

    close(err_pipe[1]);
    char piece[4096];
    for (;;) {
        ssize_t n = read(err_pipe[0], piece, sizeof(piece) - 1);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            break;
        piece[n] = 0;
        /* The child's text is no system error of ours. */
        report_plain(0, "%s", piece);
    }
    close(err_pipe[0]);

    int status = 0;
    pid_t waited = wait_child(pid, &status, WUNTRACED);
    if (waited < 0) {
        report(0, "Error occured during waiting the child process with pid: %d: %s\n",
               static_cast<int>(pid), strerror(errno));
        return -1;
    }
    if (WIFEXITED(status))
        return WEXITSTATUS(status);
    if (WIFSIGNALED(status))
        report_plain(0, "The child process with pid %d killed by signal %i\n",
                     static_cast<int>(pid), WTERMSIG(status));
    else if (WIFSTOPPED(status))
        report_plain(0, "The child process with pid %d stopped by signal %i\n",
                     static_cast<int>(pid), WSTOPSIG(status));
    return -1;
}

/* popen_exec - run a shell command line and capture its standard output.
 * A read error other than an interruption ends the capture early; the
 * output is then incomplete, so it is reported and the run counts as failed
 * (-1) even when the command itself exits 0.  What was read is still handed
 * to the caller. */
int popen_exec(char **out, const char *command)
{
    *out = nullptr;
    char *argv[] = {const_cast<char *>("sh"), const_cast<char *>("-c"), const_cast<char *>(command), nullptr};
    int ends[2];
    /* As popen(3) runs it, but the shell is started by child_start(). */
    if (pipe2(ends, O_CLOEXEC) != 0) {
        report_stderr("popen_exec: failed to execute command: fork or pipe calls "
                      "failed, or cannon allocate memory\n");
        return -1;
    }
    fflush(nullptr);
    pid_t pid = fork_execv_pipes(0, ends[1], 2, "/bin/sh", argv);
    close(ends[1]);

    size_t capacity = POPEN_STEP;
    size_t len = 0;
    int read_error = 0;
    char *buf = static_cast<char *>(malloc(capacity + 1));
    if (buf == nullptr)
        report(1, "Cannot allocate memory");

    for (ssize_t n; (n = read(ends[0], buf + len, capacity - len)) != 0;) {
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0) {
            read_error = errno;
            break;
        }
        len += static_cast<size_t>(n);
        if (len < capacity)
            continue;
        char *bigger = static_cast<char *>(realloc(buf, capacity + POPEN_STEP + 1));
        if (bigger == nullptr) {
            report_stderr("popen_exec: warning: failed to allocate memory for "
                          "command output buffer\n");
            len = 0;
            break;
        }
        buf = bigger;
        capacity += POPEN_STEP;
    }
    buf[len] = 0;

    if (read_error)
        report_stderr("popen_exec: failed to read command output: %s\n",
                      strerror(read_error));
    close(ends[0]);
    int status = 0;
    pid_t waited = wait_child(pid, &status, 0);
    *out = buf;
    if (read_error) {
        errno = read_error;
        return -1;
    }
    return waited < 0 ? -1 : (status >> 8) & 0xff;
}

int popen_exec_report(const char *command)
{
    char *out = nullptr;
    int result = popen_exec(&out, command);

    if (result == -1) {
        report(0, "popen_exec: failed to execute command: %s\n", strerror(errno));
    } else if (result != 0) {
        report_plain(0, "popen_exec: command failed code: %d , %s\n", result,
                     out && *out ? out : "error: none");
    }
    free(out);
    return result;
}
