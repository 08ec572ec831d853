/* exec - running child programs.
 *
 * Programs are started with fork() and execv(), without a shell, with the
 * child's standard descriptors chosen by the caller and every other
 * descriptor closed.  The capturing engines read the child's standard output
 * and error through non-blocking pipes in a select() loop that polls the
 * child once a second, so a descendant that keeps the pipes open cannot hang
 * the caller.
 *
 * Run result of every function that waits: the child's exit code (0..255),
 * or -1 when it was ended or stopped by a signal or could not be waited for.
 * A child whose descriptor set-up or execv() fails prints a message on
 * standard error and exits with 255.  Capture buffers are heap strings the
 * caller frees; null when the child wrote nothing to that stream.
 * admin_util_exec and admin_util_execv need load_panel_config() first.
 */
#pragma once

#include <stdarg.h>
#include <stddef.h>
#include <sys/types.h>

/* Descriptor choices of fork_execv_pipes: the stream's own number inherits
 * the caller's descriptor, -1 is /dev/null, anything else is moved there. */
pid_t fork_execv_pipes(int fd_in, int fd_out, int fd_err, const char *path,
                       char *const argv[]);
int fork_execv_getouterr(char **out, char **err, const char *path,
                         char *const argv[]);
int fork_execv_getout(char **out, const char *path, char *const argv[]);
void fork_exec_read_chunk(int *fd, char **buf, size_t *size, size_t *len);

/* List forms: slot 0 of the vector is arg0; the list ends with a null. */
pid_t fork_execl_pipes(int fd_in, int fd_out, int fd_err, const char *path,
                       const char *arg0, ...);
int fork_execl_getouterr(char **out, char **err, const char *path,
                         const char *arg0, ...);
int fork_execl_getout(char **out, const char *path, const char *arg0, ...);
/* vector_from_list - a heap argument vector of arg0 and the listed texts up
 * to the terminating null */
char **vector_from_list(const char *arg0, va_list ap);

int util_execv(const char *path, char *const argv[], int quiet);
int util_execv(const char *path, char *const argv[]);
int util_execl(const char *path, const char *arg0, ...);
int util_exec(const char *path, ...);
/* admin_util_path - the full path of a sibling utility in admin/bin into
 * buf, or null (reported) when the name is not a bare file name */
const char *admin_util_path(const char *name, char *buf, size_t size);
int admin_util_exec(const char *name, ...);
int admin_util_execv(const char *name, char *const argv[]);
int exec_quiet(const char *path, ...);
int util_exec_fd(int fd_in, int fd_out, const char *path, char *const argv[]);
int popen_exec(char **out, const char *command);
int popen_exec_report(const char *command);

char *find_in_path(const char *name, const char *dirs, int executable);
/* child_start - in a child just forked, before it execs: every signal at
 * its default action and none blocked, whatever rebox itself ignores */
void child_start(void);
/* shell_run - command run by /bin/sh -c as system(3) runs it, its child
 * started by child_start(); the raw wait status, or -1 */
int shell_run(const char *command);
/* wait_child - waitpid(pid) retried while a signal interrupts it */
pid_t wait_child(pid_t pid, int *status, int options);
void close_fds_from_3(void);
int redirect_fd(int fd, int target);
void check_params_consumed(int expected, int consumed);
void check_param_present(int required, const char *value, const char *name);
void *xmalloc(size_t size);
