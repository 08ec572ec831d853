/* exec - the engines that start a child program and capture its output
 * (see exec.h). */
#include "proc/exec.h"

#include "runtime/report.h"

#include <errno.h>
#include <fcntl.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/select.h>
#include <sys/wait.h>
#include <unistd.h>

static const size_t CAPTURE_STEP = 4096;

/* child_setup_fd - in the child, put the choice for one standard stream in
 * place; the copied descriptor is closed unless a later stream uses it too */
static void child_setup_fd(const int choice[3], int stream)
{
    int fd = choice[stream];

    if (fd == stream)
        return;
    if ((fd == -1 && (fd = open("/dev/null", O_RDWR)) < 0) || dup2(fd, stream) < 0) {
        report_stderr("fork_execv: dup() failed: %s\n", strerror(errno));
        _exit(255);
    }
    for (int later = stream + 1; later < 3; later++)
        if (choice[later] == fd)
            return;
    if (fd > 2)
        close(fd);
}

pid_t fork_execv_pipes(int fd_in, int fd_out, int fd_err, const char *path,
                       char *const argv[])
{
    const int choice[3] = {fd_in, fd_out, fd_err};
    pid_t pid = fork();

    if (pid < 0)
        report(1, "fork_execv_pipes: fork() failed");
    if (pid > 0)
        return pid;

    child_start();
    for (int stream = 0; stream < 3; stream++)
        child_setup_fd(choice, stream);
    close_fds_from_3();
    execv(path, argv);
    report_stderr("fork_execv: execv(\"%s\") failed: %s\n", path, strerror(errno));
    _exit(255);
}

int shell_run(const char *command)
{
    char *argv[] = {const_cast<char *>("sh"), const_cast<char *>("-c"), const_cast<char *>(command), nullptr};
    int status = 0;

    fflush(nullptr);
    return wait_child(fork_execv_pipes(0, 1, 2, "/bin/sh", argv), &status, 0) < 0 ? -1 : status;
}

pid_t wait_child(pid_t pid, int *status, int options)
{
    pid_t waited;

    do
        waited = waitpid(pid, status, options);
    while (waited < 0 && errno == EINTR);
    return waited;
}

void fork_exec_read_chunk(int *fd, char **buf, size_t *size, size_t *len)
{
    if (*size - *len <= 1) {
        char *bigger = static_cast<char *>(realloc(*buf, *size + CAPTURE_STEP));
        if (bigger == nullptr)
            report(1, "Cannot allocate memory");
        *buf = bigger;
        *size += CAPTURE_STEP;
    }

    ssize_t n = read(*fd, *buf + *len, *size - *len - 1);
    if (n > 0) {
        *len += static_cast<size_t>(n);
    } else if (n == 0) {
        close(*fd);
        *fd = -1;
    } else if (errno != EAGAIN && errno != EINTR) {
        /* An interrupted read is retried on the next round, like an empty
         * pipe; any other error ends the capture of this stream. */
        int saved = errno;
        close(*fd);
        *fd = -1;
        report_stderr("fork_exec*: read(pipe) failed: %s\n", strerror(saved));
    }
}

/* decode_status - the run result of a waitpid() outcome */
static int decode_status(pid_t waited, int status)
{
    if (waited <= 0 || !WIFEXITED(status))
        return -1;
    return WEXITSTATUS(status);
}

/* fork_execv_getouterr - run path with its standard output, and its
 * standard error when err is not null, on non-blocking pipes; read both
 * until they close or the child is found ended after a quiet second */
int fork_execv_getouterr(char **out, char **err, const char *path,
                         char *const argv[])
{
    const int streams = err ? 2 : 1;
    char **bufs[2] = {out, err};
    size_t size[2] = {0, 0};
    size_t len[2] = {0, 0};
    int fds[2] = {-1, -1};
    int ends[2][2];
    int nfds = 0;
    int result = -1;
    int reaped = 0;

    for (int i = 0; i < streams; i++) {
        *bufs[i] = nullptr;
        if (pipe(ends[i]) < 0)
            report(1, "fork_execv_getouterr: pipe() failed");
    }
    for (int i = 0; i < streams; i++) {
        if (fcntl(ends[i][0], F_SETFL, O_NONBLOCK) < 0)
            report(1, "fork_execv_getouterr: fcntl(O_NONBLOCK) failed");
        fds[i] = ends[i][0];
        if (fds[i] + 1 > nfds)
            nfds = fds[i] + 1;
    }

    pid_t pid = fork_execv_pipes(0, ends[0][1], err ? ends[1][1] : 2, path, argv);
    for (int i = 0; i < streams; i++)
        close(ends[i][1]);

    while (fds[0] >= 0 || fds[1] >= 0) {
        fd_set readable;
        struct timeval timeout = {1, 0};

        FD_ZERO(&readable);
        for (int i = 0; i < streams; i++)
            if (fds[i] >= 0)
                FD_SET(fds[i], &readable);
        int ready = select(nfds, &readable, nullptr, nullptr, &timeout);
        if (ready > 0) {
            for (int i = 0; i < streams; i++)
                if (fds[i] >= 0 && FD_ISSET(fds[i], &readable))
                    fork_exec_read_chunk(&fds[i], bufs[i], &size[i], &len[i]);
            continue;
        }

        /* A quiet second (or a failed select): has the child ended?  Its
         * descendants may hold the pipes open for much longer. */
        int status = 0;
        pid_t waited = waitpid(pid, &status, WNOHANG);
        if (waited == 0)
            continue;
        result = decode_status(waited, status);
        for (int i = 0; i < streams; i++) {
            if (fds[i] >= 0)
                close(fds[i]);
            fds[i] = -1;
        }
        reaped = 1;
    }

    if (!reaped) {
        int status = 0;
        pid_t waited = wait_child(pid, &status, WUNTRACED);
        result = decode_status(waited, status);
    }

    /* An empty capture is handed back as null: the stream said nothing. */
    for (int i = 0; i < streams; i++) {
        if (*bufs[i] == nullptr)
            continue;
        if (len[i] == 0) {
            free(*bufs[i]);
            *bufs[i] = nullptr;
        } else {
            (*bufs[i])[len[i]] = 0;
        }
    }
    return result;
}

int fork_execv_getout(char **out, const char *path, char *const argv[])
{
    return fork_execv_getouterr(out, nullptr, path, argv);
}

char **vector_from_list(const char *arg0, va_list ap)
{
    va_list count_ap;
    size_t count = 1;

    va_copy(count_ap, ap);
    if (arg0)
        while (va_arg(count_ap, const char *) != nullptr)
            count++;
    va_end(count_ap);

    char **argv = static_cast<char **>(malloc((count + 1) * sizeof(char *)));
    if (argv == nullptr)
        report(1, "malloc() failed: %s", strerror(errno));
    argv[0] = const_cast<char *>(arg0);
    for (size_t i = 1; i < count; i++)
        argv[i] = const_cast<char *>(va_arg(ap, const char *));
    argv[count] = nullptr;
    return argv;
}

pid_t fork_execl_pipes(int fd_in, int fd_out, int fd_err, const char *path,
                       const char *arg0, ...)
{
    va_list ap;

    va_start(ap, arg0);
    char **argv = vector_from_list(arg0, ap);
    va_end(ap);
    pid_t pid = fork_execv_pipes(fd_in, fd_out, fd_err, path, argv);
    free(argv);
    return pid;
}

int fork_execl_getouterr(char **out, char **err, const char *path,
                         const char *arg0, ...)
{
    va_list ap;

    va_start(ap, arg0);
    char **argv = vector_from_list(arg0, ap);
    va_end(ap);
    int result = fork_execv_getouterr(out, err, path, argv);
    free(argv);
    return result;
}

int fork_execl_getout(char **out, const char *path, const char *arg0, ...)
{
    va_list ap;

    va_start(ap, arg0);
    char **argv = vector_from_list(arg0, ap);
    va_end(ap);
    int result = fork_execv_getout(out, path, argv);
    free(argv);
    return result;
}
