/* service - starting, stopping and restarting the server's daemons through
 * their init scripts.
 *
 * service_control() is the one entry: it accepts only the names of
 * KNOWN_SERVICES, runs the service's script detached from the caller and
 * turns the outcome into 0 or -1, with extra steps for the web server, the
 * servlet engine ("tomcat5") and the application server ("coldfusion",
 * "jrun").  run_init_script() runs one script; restart_httpd_if_running()
 * restarts a running web server; kill_by_field() signals the processes whose
 * ps column contains a text.  A line NO_RESTART_DAEMON in the configuration
 * file switches service control off.  Needs load_panel_config() first.
 */
#pragma once

int service_control(const char *name, const char *action);
int run_init_script(const char *path, const char *name, const char *action,
                    int report_failure);
int restart_httpd_if_running(void);
int kill_by_field(const char *field, const char *text, int sig);
