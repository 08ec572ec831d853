/* service - init-script actions on the server's daemons (see service.h).
 *
 * A script runs in a session of its own with its standard streams on
 * /dev/null.  The web server is polled until it answers "status" after a
 * start; the servlet engine is stopped by force when its script fails to.
 */
#include "proc/service.h"

#include "db/connect.h"
#include "db/get.h"
#include "fs/tree.h"
#include "proc/exec.h"
#include "proc/purge.h"
#include "runtime/config.h"
#include "runtime/report.h"

#include <errno.h>
#include <libgen.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <strings.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

/* KNOWN_SERVICES - the services accepted, in lookup order, compared
 * exactly; the null entry stands for the web server, whose name is
 * HTTPD_SERVICE. */
static const char *const KNOWN_SERVICES[] = {
    "vdo",   nullptr, "tomcat5",    "courier-imap", "mysqld", "named",
    "qmail", "stunnel", "postgresql", "mailman",    "coldfusion", "jrun",
    "drwebd", "smb",  "network",    "xinetd",
};

static const size_t PATH_BUF_SIZE = 4096;
static const char TOMCAT_PROCESS[] = "org.apache.catalina.startup.Bootstrap";
/* Polls of "status" after the web server was started, each failed one
 * followed by a second's sleep: up to 21 seconds. */
static const int HTTPD_STATUS_POLLS = 21;
/* Counts of the servlet engine's processes after SIGTERM, 5 s apart. */
static const int TOMCAT_STOP_CHECKS = 5;
static const unsigned TOMCAT_STOP_WAIT = 5;

/* is_known_service - 1 when name is one of KNOWN_SERVICES */
static int is_known_service(const char *name)
{
    for (const char *known : KNOWN_SERVICES) {
        const char *entry = known ? known : panel_config.HTTPD_SERVICE;
        if (entry && strcmp(name, entry) == 0)
            return 1;
    }
    return 0;
}

/* control_app_server - the application server ("coldfusion" or "jrun"),
 * whose scripts live under the instance path kept in the database */
static int control_app_server(const char *name, const char *action)
{
    char script[PATH_BUF_SIZE];

    if (action == nullptr)
        return 0;
    MYSQL *conn = panel_db_open();
    if (conn == nullptr)
        report_plain(1, "Unable to connect to the mysql database\n");
    /* The answer lives in the query module's static buffer, which outlives
     * the connection. */
    const char *instance = get_misc_param("cf_instance_path", conn);
    mysql_close(conn);
    if (instance == nullptr || strlen(instance) < 2) {
        report_plain(0, "CF not configured in Vardo.\n");
        return -1;
    }

    snprintf(script, sizeof(script), "%s/bin/%s", instance,
             strcasecmp(name, "jrun") == 0 ? "jrun" : "coldfusion");
    int rc = run_init_script(script, script, action, 1);
    if (rc != 0)
        return rc;
    if (strcmp(action, "status") != 0)
        restart_httpd_if_running();
    return 0;
}

/* force_stop_tomcat - SIGTERM to the servlet engine's processes, SIGKILL
 * when they outlive five checks; 1 when none is left afterwards */
static int force_stop_tomcat(void)
{
    int left = 1;

    kill_by_field("command", TOMCAT_PROCESS, SIGTERM);
    for (int check = 0; check < TOMCAT_STOP_CHECKS; check++) {
        sleep(TOMCAT_STOP_WAIT);
        left = kill_by_field("command", TOMCAT_PROCESS, 0);
        if (left <= 0)
            break;
    }
    if (left > 0) {
        kill_by_field("command", TOMCAT_PROCESS, SIGKILL);
        sleep(TOMCAT_STOP_WAIT);
        left = kill_by_field("command", TOMCAT_PROCESS, 0);
    }
    return left == 0;
}

/* control_tomcat - the servlet engine: a failed stop is finished by force,
 * and a stop restarts a running web server */
static int control_tomcat(const char *action)
{
    char script[PATH_BUF_SIZE];

    if (action == nullptr)
        return 0;
    int stop = strcmp(action, "stop") == 0;
    snprintf(script, sizeof(script), "%s/%s", panel_config.PRODUCT_RC_D, "tomcat5");
    int rc = run_init_script(script, "tomcat5", action, !stop);
    if (rc != 0 && (!stop || !force_stop_tomcat()))
        return rc;
    if (stop)
        restart_httpd_if_running();
    return 0;
}

/* control_httpd - the web server: after a start it must answer "status",
 * and after a stop its IPC objects are swept */
static int control_httpd(const char *action)
{
    char script[PATH_BUF_SIZE];
    char sweep[PATH_BUF_SIZE];

    if (action == nullptr)
        return 0;
    snprintf(script, sizeof(script), "%s/%s", panel_config.PRODUCT_RC_D,
             panel_config.HTTPD_SERVICE);
    int rc = run_init_script(script, script, action, 1);

    if (rc == 0 && (strcmp(action, "start") == 0 || strcmp(action, "restart") == 0 ||
                    strcmp(action, "force-reload") == 0)) {
        int poll = 0;
        for (; poll < HTTPD_STATUS_POLLS && service_control(panel_config.HTTPD_SERVICE, "status") != 0; poll++)
            sleep(1);
        if (poll == HTTPD_STATUS_POLLS)
            rc = -1;
    }

    if (strcasecmp(action, "stop") == 0) {
        snprintf(sweep, sizeof(sweep), "%s/bin/ipcsweep.sh", panel_config.PRODUCT_ROOT_D);
        if (shell_run(sweep) == -1) {
            report(0, "Error occured when trying to clean Apache IPC objects: %s\n",
                   strerror(errno));
            return -1;
        }
    }
    return rc;
}

int service_control(const char *name, const char *action)
{
    char script[PATH_BUF_SIZE];

    if (conf_get("NO_RESTART_DAEMON"))
        return 0;
    if (name == nullptr || !is_known_service(name)) {
        report_plain(0, "Unknown service: %s\n", name ? name : "");
        return -1;
    }
    if (strcasecmp(name, "coldfusion") == 0 || strcasecmp(name, "jrun") == 0)
        return control_app_server(name, action);
    if (strcasecmp(name, "tomcat5") == 0)
        return control_tomcat(action);
    if (strncasecmp(name, panel_config.HTTPD_SERVICE, 9) == 0)
        return control_httpd(action);

    snprintf(script, sizeof(script), "%s/%s", panel_config.PRODUCT_RC_D, name);
    return run_init_script(script, script, action, 1);
}

/* check_script - end the process unless path is a non-empty executable
 * regular file */
static void check_script(const char *path)
{
    struct stat st;

    if (stat(path, &st) != 0) {
        if (errno == ENOENT || errno == ENOTDIR)
            report(1, "No such file '%s': %s", path, strerror(errno));
        report(1, "Error during access to '%s': %s", path, strerror(errno));
    }
    if (!S_ISREG(st.st_mode))
        report_plain(1, "Not a regular file: '%s'", path);
    if ((st.st_mode & 0111) == 0 || st.st_size == 0)
        report_plain(1, "Not an executable file: '%s'", path);
}

/* start_script_child - in the forked child: detach and run the script */
[[noreturn]] static void start_script_child(const char *path, const char *name,
                                            const char *action)
{
    char *copy = strdup(path);
    const char *dir = copy ? dirname(copy) : nullptr;

    if (dir == nullptr || chdir(dir) != 0)
        report(1, "Unable to change directory to %s: %s\n", dir ? dir : path,
               strerror(errno));
    free(copy);
    child_start();
    if (setsid() < 0) {
        perror("setsid() failed");
        _exit(3);
    }
    close_fds_from_3();
    for (int fd = 0; fd <= 2; fd++)
        redirect_fd(-1, fd);
    execlp(path, name, action, static_cast<char *>(nullptr));
    _exit(errno);
}

/* run_init_script - a null action is refused with a warning and -1, and no
 * script is run: a script called without its verb would print its usage or,
 * worse, take some default action nobody asked for. */
int run_init_script(const char *path, const char *name, const char *action,
                    int report_failure)
{
    if (action == nullptr) {
        report_plain(0, "No action given for service %s\n", name);
        return -1;
    }

    size_t compared = strnlen(action, 9);
    const char *verb = strncmp(action, "graceful", compared) == 0 ? "gracefully restart" : action;

    check_script(path);

    fflush(stdout);
    fflush(stderr);
    pid_t pid = fork();
    if (pid < 0) {
        report(0, "Error occured during %s service %s: %s\n", verb, name, strerror(errno));
        return -1;
    }
    if (pid == 0)
        start_script_child(path, name, action);

    int status = 0;
    pid_t waited = wait_child(pid, &status, WUNTRACED);
    if (waited < 0) {
        report(0, "Error occured during %s service %s: %s\n", verb, name, strerror(errno));
        return -1;
    }
    if (WIFSIGNALED(status)) {
        report_plain(0, "Unable to %s service %s: daemon killed by signal %i\n", verb, name,
                     WTERMSIG(status));
        return -1;
    }
    if (WIFSTOPPED(status)) {
        report_plain(0, "Unable to %s service %s: daemon stopped by signal %i\n", verb, name,
                     WSTOPSIG(status));
        return -1;
    }
    if (WEXITSTATUS(status) == 0)
        return 0;
    if (strcmp(verb, "status") != 0 && report_failure)
        report_plain(0, "Service %s failed to %s\n", name, verb);
    return -1;
}

int restart_httpd_if_running(void)
{
    if (service_control(panel_config.HTTPD_SERVICE, "status") != 0)
        return 0;
    service_control(panel_config.HTTPD_SERVICE, "stop");
    if (hdv1_marker_present())
        purge_deleted_entries();
    return service_control(panel_config.HTTPD_SERVICE, "start");
}

int kill_by_field(const char *field, const char *text, int sig)
{
    char format[PATH_BUF_SIZE];
    char *out = nullptr;

    snprintf(format, sizeof(format), "pid,%s", field);
    if (fork_execl_getout(&out, "/bin/ps", "/bin/ps", "-Aww", "-o", format, nullptr) != 0) {
        fprintf(stderr, "%s\n", out ? out : "");
        report_plain(0, "send_signal_field(): %s failed", "/bin/ps");
        free(out);
        return -1;
    }

    int count = 0;
    const char *from = out;
    const char *hit;
    while (from && *from && (hit = strstr(from, text)) != nullptr) {
        const char *line = hit;
        while (line > out && line[-1] != '\n')
            line--;
        const char *eol = strchr(hit, '\n');
        const char *next = eol ? eol + 1 : hit + strlen(hit);
        int pid;

        /* A hit in the first line, the header, names no process. */
        if (line != out) {
            if (sscanf(line, " %d ", &pid) == 1) {
                count++;
                if (kill(pid, sig) != 0)
                    report(0, "send_signal_field(): failed to kill %d: %s", pid,
                           strerror(errno));
            } else {
                report_plain(0, "send_signal_field(): malformed ps output: %.*s",
                             static_cast<int>(eol ? eol - line : static_cast<long>(strlen(line))),
                             line);
            }
        }
        from = next;
    }
    free(out);
    return count;
}
