/* process_start - a process state of our own, whatever the caller left us.
 *
 * rebox runs as root, and when the panel starts it through its
 * set-user-ID bit the caller is an ordinary user.  Everything that user can
 * hand across exec would steer a root process, so main() throws it all away
 * before it reads anything:
 *
 * - The environment is replaced by PATH=PROCESS_START_PATH alone.  The
 *   database client library reads its plugin list and plugin directory
 *   (LIBMYSQL_PLUGINS, MARIADB_PLUGIN_DIR) and loads the shared objects
 *   they name, and takes its socket, port and password from variables
 *   (MYSQL_UNIX_PORT, MARIADB_UNIX_PORT, MYSQL_TCP_PORT, MYSQL_PWD); the
 *   crypto library it starts reads its configuration file name; the shells,
 *   init scripts and utilities we start read BASH_ENV, ENV, PERL5OPT, PATH
 *   and the like.  With nothing but a fixed PATH, the library connects to
 *   its built-in socket and loads only its own plugins, and every child
 *   starts from the same clean state.
 * - The umask becomes 022: files and directories whose mode we do not set
 *   ourselves (lock files, files our children write) are never writable by
 *   others.
 * - Descriptors 0, 1 and 2 are opened on /dev/null where they are closed.
 *   Otherwise the first files we open would take their numbers, and every
 *   message, which goes to standard error and output, would be written into
 *   them.  Every descriptor above 2 is closed: our children would inherit
 *   it, and one open on a lock file the caller had locked would hold that
 *   named lock against us for the whole run, so that we waited on
 *   ourselves for ever.
 * - Ignored signals go back to their default action and the signal mask is
 *   emptied.  execve() resets caught signals but keeps ignored and blocked
 *   ones: an ignored SIGCHLD would make waiting for children fail, an
 *   ignored or blocked SIGPIPE, SIGXFSZ or SIGTERM would change how we and
 *   our children end.  Handlers installed before main() by our own runtime
 *   are not the caller's and stay.
 * - After setuid(0) and setgid(0), the supplementary groups are dropped, so
 *   the caller's groups go neither with our file accesses nor to children.
 * - The file-size, process-count and address-space limits are raised to
 *   unlimited and the open-file limit to the kernel's ceiling
 *   (NR_OPEN_FILE; the kernel refuses unlimited for it), so that no limit
 *   the caller set ends a write halfway or keeps a child or a file from
 *   opening.  Root may raise them; where even root may not (a container
 *   without the capability), each soft limit rises to its hard one and the
 *   run goes on.
 *
 * The first four steps are harmless without privileges and come first, so
 * that even the privilege failure is reported on sane descriptors; the last
 * two need root and follow the id change.
 */
#include "runtime/process_start.h"

#include "runtime/report.h"

#include <errno.h>
#include <fcntl.h>
#include <grp.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

/* The kernel's ceiling for the open-file limit, and its usual value. */
static const char NR_OPEN_FILE[] = "/proc/sys/fs/nr_open";
static const rlim_t NR_OPEN_DEFAULT = 1024 * 1024;

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
    /* Kernels before close_range() get the descriptors closed one by one,
     * up to the open-file limit the caller gave us. */
    if (close_range(3, ~0U, 0) != 0)
        for (long fd = 3, max = sysconf(_SC_OPEN_MAX); fd < max; fd++)
            close(static_cast<int>(fd));
}

/* default_signals - ignored signals back to their default, none blocked */
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
}

void process_start_clean(void)
{
    open_standard_fds();
    clearenv();
    /* Should even this fail, an empty environment is as safe. */
    (void)setenv("PATH", PROCESS_START_PATH, 1);
    umask(022);
    default_signals();
}

/* raise_limit - resource's soft and hard limit to value, or where that is
 * refused, its soft limit to its hard one */
static void raise_limit(int resource, rlim_t value)
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

int process_start_root(void)
{
    if (setuid(0) != 0 || setgid(0) != 0 || setgroups(0, nullptr) != 0)
        return -1;
    raise_limit(RLIMIT_FSIZE, RLIM_INFINITY);
    raise_limit(RLIMIT_NPROC, RLIM_INFINITY);
    raise_limit(RLIMIT_AS, RLIM_INFINITY);
    raise_limit(RLIMIT_NOFILE, open_files_ceiling());
    return 0;
}
