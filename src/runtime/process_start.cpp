/* process_start - a process state of our own, whatever the caller left us.
 *
 * rebox runs as root, and when the panel starts it through its
 * set-user-ID bit the caller is an ordinary user.  Everything that user can
 * hand across exec would steer a root process, so main() throws it all away
 * before it reads anything:
 *
 * - The environment becomes PATH=PROCESS_START_PATH alone: the database
 *   client library takes its plugins, socket, port and password from
 *   variables, the crypto library its configuration file, and the shells,
 *   init scripts and utilities we start read BASH_ENV, ENV, PERL5OPT and
 *   the like.  Every child then starts from the same clean state.
 * - The umask becomes 022: files whose mode we do not set ourselves (lock
 *   files, files our children write) are never writable by others.
 * - Descriptors 0, 1 and 2 are opened on /dev/null where they are closed,
 *   else the first files we open would take their numbers and receive every
 *   message.  Every descriptor above 2 is closed: one open on a lock file
 *   the caller had locked would hold that named lock against us for ever.
 * - The working directory becomes /: every child we start as root would
 *   resolve relative names inside the caller's.
 * - The interval timers and any pending alarm are cleared: they survive
 *   exec, and would end the run at a moment of the caller's choosing, with
 *   the named locks held or between the renames of a set of shared files.
 * - Ignored signals go back to their default action and the signal mask is
 *   emptied: execve() keeps both, and an ignored SIGCHLD would make waiting
 *   for children fail, an ignored or blocked SIGPIPE, SIGXFSZ or SIGTERM
 *   would change how we and our children end.  Handlers our own runtime
 *   installed before main() stay.
 * - Then SIGTSTP, SIGTTIN and SIGTTOU are ignored, by our children too, so
 *   that the caller's terminal cannot stop the run while it holds the locks
 *   every other panel tool waits for (we wait for each child with them
 *   held).  They change nothing in how a child ends, and programs that want
 *   job control install their own handlers.  Ignoring beats catching: a
 *   caught SIGTTOU makes the kernel restart a background write to a TOSTOP
 *   terminal for ever.
 * - Standard output and error are made non-blocking where they are pipes,
 *   FIFOs or sockets, so that a caller that never reads them cannot keep
 *   the run waiting with the locks held: a message that does not fit is
 *   dropped from that stream and still goes to syslog when detached.  The
 *   flag sits on the open file description the caller shares, so it is
 *   taken off again at exit and before detaching.
 * - After setuid(0) and setgid(0), the supplementary groups are dropped.
 * - The resource limits get fixed values, soft and hard alike, so that no
 *   limit the caller set ends a write halfway, keeps a child or a file from
 *   opening, or kills the run midway: open files the kernel's ceiling (it
 *   refuses unlimited there), the stack 8 MiB for our own threads too (the
 *   C library sized them from the caller's limit), core files 0 and the
 *   process not dumpable, since a root process's core holds the database
 *   password and a piped core_pattern ignores a zero limit.  Where even
 *   root may not raise one (a container), its soft limit rises to its hard
 *   one and the run goes on.
 * - The nice value becomes 0 and the I/O priority the default, so that a
 *   caller's nice 19 or idle class cannot make the run crawl with the locks
 *   held.
 *
 * The first eight steps are harmless without privileges and come first,
 * so that even the privilege failure is reported on sane descriptors; the
 * last three need root and follow the id change.
 */
#include "runtime/process_start.h"

#include "runtime/report.h"

#include <errno.h>
#include <fcntl.h>
#include <grp.h>
#include <pthread.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <unistd.h>

/* The kernel's ceiling for the open-file limit, and its usual value. */
static const char NR_OPEN_FILE[] = "/proc/sys/fs/nr_open";
static const rlim_t NR_OPEN_DEFAULT = 1024 * 1024;
/* The stack and locked-memory limits: the usual defaults. */
static const rlim_t STACK_LIMIT = 8 * 1024 * 1024;
static const rlim_t MEMLOCK_LIMIT = 8 * 1024 * 1024;
/* ioprio_set(): "this process", and class none, level 0. */
static const int IOPRIO_WHO_PROCESS = 1;
static const int IOPRIO_DEFAULT = 0;

/* The timers cleared, the terminal's stop signals ignored and the limits
 * lifted to unlimited. */
static const int TIMERS[] = {ITIMER_REAL, ITIMER_VIRTUAL, ITIMER_PROF};
static const int STOP_SIGNALS[] = {SIGTSTP, SIGTTIN, SIGTTOU};
static const int UNLIMITED[] = {RLIMIT_FSIZE, RLIMIT_NPROC, RLIMIT_AS,
                                RLIMIT_DATA, RLIMIT_CPU, RLIMIT_RTTIME};

/* Standard output and error (slots 1 and 2) made non-blocking by us. */
static int made_nonblocking[3];

/* open_standard_fds - /dev/null on 0, 1 and 2 where they are closed (going
 * upward, the lowest free number open() gives is the one being filled),
 * every descriptor above them closed */
static void open_standard_fds(void)
{
    for (int fd = 0; fd <= 2; fd++) {
        if (fcntl(fd, F_GETFD) != -1 || errno != EBADF)
            continue;
        if (open("/dev/null", O_RDWR) == -1)
            report(1, "Unable to open /dev/null: %s", strerror(errno));
    }
    /* The loop is for kernels without close_range(). */
    if (close_range(3, ~0U, 0) != 0)
        for (int fd = 3, n = getdtablesize(); fd < n; fd++)
            close(fd);
}

/* clear_timers - the real, virtual and profiling timers stopped */
static void clear_timers(void)
{
    const struct itimerval off = {};

    for (int timer : TIMERS)
        setitimer(timer, &off, nullptr);
}

/* default_signals - ignored signals back to their default, none blocked,
 * then the terminal's stop signals ignored */
static void default_signals(void)
{
    struct sigaction dfl = {};
    sigset_t none;

    dfl.sa_handler = SIG_DFL;
    for (int sig = 1; sig < NSIG; sig++) {
        struct sigaction old;
        if (sigaction(sig, nullptr, &old) == 0 && old.sa_handler == SIG_IGN)
            sigaction(sig, &dfl, nullptr);
    }
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
    for (int sig : STOP_SIGNALS)
        signal(sig, SIG_IGN);
}

/* nonblocking_output - O_NONBLOCK on standard output and error where they
 * are pipes, FIFOs or sockets; process_start_restore_output() at exit */
static void nonblocking_output(void)
{
    for (int fd = 1; fd <= 2; fd++) {
        struct stat st;
        int flags = fcntl(fd, F_GETFL);

        if (flags == -1 || (flags & O_NONBLOCK) || fstat(fd, &st) != 0
            || !(S_ISFIFO(st.st_mode) || S_ISSOCK(st.st_mode)))
            continue;
        made_nonblocking[fd] = fcntl(fd, F_SETFL, flags | O_NONBLOCK) == 0;
    }
    atexit(process_start_restore_output);
}

void process_start_restore_output(void)
{
    /* What stdio still holds goes out while a full pipe cannot block us. */
    fflush(stdout);
    fflush(stderr);
    for (int fd = 1; fd <= 2; fd++) {
        int flags = fcntl(fd, F_GETFL);

        if (made_nonblocking[fd] && flags != -1)
            fcntl(fd, F_SETFL, flags & ~O_NONBLOCK);
        made_nonblocking[fd] = 0;
    }
}

void process_start_clean(void)
{
    open_standard_fds();
    clearenv();
    /* Should even this fail, an empty environment is as safe. */
    (void)setenv("PATH", PROCESS_START_PATH, 1);
    umask(022);
    if (chdir("/") != 0)
        report(1, "Unable to change to the root directory: %s", strerror(errno));
    clear_timers();
    default_signals();
    nonblocking_output();
}

/* set_limit - resource's soft and hard limit to value, or where that is
 * refused, its soft limit to its hard one */
static void set_limit(int resource, rlim_t value)
{
    struct rlimit rl = {value, value};

    if (setrlimit(resource, &rl) == 0 || getrlimit(resource, &rl) != 0)
        return;
    rl.rlim_cur = rl.rlim_max;
    setrlimit(resource, &rl);
}

/* open_files_ceiling - the kernel's ceiling for the open-file limit, or the
 * usual one when it cannot be read */
static rlim_t open_files_ceiling(void)
{
    unsigned long ceiling = 0;
    FILE *fp = fopen(NR_OPEN_FILE, "r");

    if (fp != nullptr) {
        if (fscanf(fp, "%lu", &ceiling) != 1)
            ceiling = 0;
        fclose(fp);
    }
    return ceiling > 0 ? ceiling : NR_OPEN_DEFAULT;
}

/* thread_stacks - the stack size of the threads we start, which the C
 * library took from the caller's stack limit, set to the fixed one */
static void thread_stacks(void)
{
    pthread_attr_t attr;

    if (pthread_attr_init(&attr) != 0)
        return;
    if (pthread_attr_setstacksize(&attr, STACK_LIMIT) == 0)
        pthread_setattr_default_np(&attr);
    pthread_attr_destroy(&attr);
}

int process_start_root(void)
{
    if (setuid(0) != 0 || setgid(0) != 0 || setgroups(0, nullptr) != 0)
        return -1;
    for (int resource : UNLIMITED)
        set_limit(resource, RLIM_INFINITY);
    set_limit(RLIMIT_NOFILE, open_files_ceiling());
    set_limit(RLIMIT_STACK, STACK_LIMIT);
    set_limit(RLIMIT_MEMLOCK, MEMLOCK_LIMIT);
    set_limit(RLIMIT_RTPRIO, 0);
    set_limit(RLIMIT_CORE, 0);
    prctl(PR_SET_DUMPABLE, 0);
    thread_stacks();
    setpriority(PRIO_PROCESS, 0, 0);
    syscall(SYS_ioprio_set, IOPRIO_WHO_PROCESS, 0, IOPRIO_DEFAULT);
    return 0;
}
