/* command - the rebox command: run modes, detaching, the passes in order.
 *
 * usage: rebox --without-spam|--with-spam|--spam-only|--check [--domain NAME ...] [--daemon-mode]
 *
 * rebox_main() first gives the process a state of its own, none of it the
 * caller's (runtime/process_start), takes root privileges, reads the run
 * mode, optionally detaches, loads the product configuration, then runs the
 * rebuild pass, the spam-filter pass and the finishing steps (qmail-newu,
 * qmail restart) as the mode asks.  Its result, the exit status, is that of
 * qmail-newu ORed with that of the restart.  A check run makes the rebuild
 * pass compare instead of write (the check table of effects, reporting
 * through restore/check_report) and nothing else: its status is 0 when the
 * disk matches the panel, 2 when it does not, and its warnings and errors
 * go to standard error only.  "--domain NAME" (repeatable) limits any mode
 * to those mail domains (restore/domain_scope): every other domain's lines,
 * records and files stay as they are, and qmail-send is told to reread its
 * control files instead of a restart, so that delivery goes on; the exit
 * status is then qmail-newu's.
 */
#include "restore/command.h"

#include "db/component.h"
#include "db/connect.h"
#include "filters/spam.h"
#include "restore/apply_effects.h"
#include "restore/check_effects.h"
#include "restore/check_report.h"
#include "restore/domain_scope.h"
#include "restore/finish.h"
#include "restore/rebuild.h"
#include "runtime/config.h"
#include "runtime/process_start.h"
#include "runtime/report.h"

#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

/* usage - print the usage text and end with status 0 */
[[noreturn]] static void usage(void)
{
    puts("Usage: rebox [OPTION]\n  Restore settings for all mailboxes.\n\n"
         "  --without-spam [--daemon-mode]\n"
         "         restore all settings except for SpamAssassin configuration\n"
         "  --with-spam [--daemon-mode]\n"
         "         restore all settings\n"
         "  --spam-only [--daemon-mode]\n"
         "         restore only SpamAssassin settings\n"
         "  --check\n"
         "         report what a restore would change, without changing anything\n"
         "  --domain NAME\n"
         "         with any of the above: only mail domain NAME (or the domain of alias NAME),\n"
         "         may be repeated; qmail-send rereads its files instead of a restart");
    exit(0);
}

/* parse_mode - the run flags for the first argument and the name of the
 * mode for the log; null when the argument is unknown */
static const char *parse_mode(const char *arg, int *with_spam, int *spam_only, int *check)
{
    static const struct {
        const char *name;
        const char *mode;
        int with_spam;
        int spam_only;
        int check;
    } modes[] = {
        {"with-spam", "with-spam", 1, 0, 0},       {"--with-spam", "with-spam", 1, 0, 0},
        {"without-spam", "without-spam", 0, 0, 0}, {"--without-spam", "without-spam", 0, 0, 0},
        {"-v", "with-spam", 1, 0, 0},              {"spam-only", "spam-only", 1, 1, 0},
        {"--spam-only", "spam-only", 1, 1, 0},     {"check", "check", 0, 0, 1},
        {"--check", "check", 0, 0, 1},
    };

    for (const auto &m : modes) {
        if (strcmp(arg, m.name) == 0) {
            *with_spam = m.with_spam;
            *spam_only = m.spam_only;
            *check = m.check;
            return m.mode;
        }
    }
    return nullptr;
}

/* parse_rest - the words after the mode: "--domain NAME" or
 * "--domain=NAME" into scope, and whether "daemon-mode" or
 * "--daemon-mode" was given; 0, or -1 for a word it does not know.  Without
 * a domain only one word may follow the mode, the daemon one. */
static int parse_rest(int argc, char **argv, DomainScope *scope, int *daemon_mode)
{
    for (int i = 2; i < argc; i++) {
        const char *name = strncmp(argv[i], "--domain=", 9) == 0 ? argv[i] + 9
                           : strcmp(argv[i], "--domain") == 0 && i + 1 < argc ? argv[++i]
                                                                               : nullptr;
        if (name != nullptr && *name != '\0')
            scope->given.push_back(name);
        else if (!*daemon_mode && (strcmp(argv[i], "daemon-mode") == 0 || strcmp(argv[i], "--daemon-mode") == 0))
            *daemon_mode = 1;
        else
            return -1;
    }
    return scope->given.empty() && argc > 3 ? -1 : 0;
}

/* limit - the domains of scope read and found in the panel and in qmail's
 * files (spam_only: the panel's alone); an unknown name ends the run */
static void limit(const Effects *fx, MailDomains *domains, DomainScope *scope, int spam_only)
{
    MYSQL *conn = panel_db_open();

    if (conn == nullptr)
        report_plain(1, "Unable to connect to the mysql database");
    read_mail_domains(conn, domains);
    scope_resolve(fx, conn, domains, scope, spam_only);
    mysql_close(conn);
}

/* spam_pass - the spam-filter pass over the domains the rebuild read, or
 * (spam only) read for it, on a connection of its own; scope: only its
 * domains, and not the server-wide settings */
static void spam_pass(const Effects *fx, MailDomains *domains, const DomainScope *scope)
{
    MYSQL *conn = panel_db_open();

    if (conn == nullptr)
        report_plain(1, "Unable to connect to the mysql database");
    if (domains->res == nullptr)
        read_mail_domains(conn, domains);
    std::vector<const MailDomainRow *> rows = scope_domain_rows(scope, domains);
    restore_spam_settings(fx, conn, rows.data(), rows.size(), scope == nullptr);
    mysql_close(conn);
}

int rebox_main(int argc, char **argv)
{
    int with_spam = 0;
    int spam_only = 0;
    int check = 0;
    int daemon_mode = 0;
    DomainScope scope;
    struct timespec start, end;

    report_progname = argv[0];
    process_start_clean();
    if (process_start_root() != 0)
        report(1, "Unable to set UID or GID: %s\n", strerror(errno));
    if (argc < 2)
        usage();
    const char *mode = parse_mode(argv[1], &with_spam, &spam_only, &check);
    if (mode == nullptr || parse_rest(argc, argv, &scope, &daemon_mode) != 0)
        usage();
    DomainScope *limited = scope.given.empty() ? nullptr : &scope;
    /* The one place that chooses: the passes are handed this table, and
     * every layer below changes the system through it, or only reports
     * what it would change; a check run's standard output carries its
     * report alone. */
    const Effects *fx = check ? &CHECK_EFFECTS : &APPLY_EFFECTS;
    if (check)
        report_stdout(0);
    if (daemon_mode) {
        /* A detached run's standard output is /dev/null: a check's report
         * would go nowhere. */
        if (check)
            report_plain(1, "--check cannot run in daemon mode: its report goes to standard output");
        /* Detached, the terminal is gone: messages go to syslog as well. */
        process_start_restore_output();
        (void)!daemon(0, 0);
        report_syslog_start(mode);
    }
    load_panel_config();
    clock_gettime(CLOCK_MONOTONIC, &start);
    MailDomains domains = {};
    if (limited != nullptr)
        limit(fx, &domains, limited, spam_only);
    if (!spam_only)
        rebuild_mail_configuration(fx, &domains, !daemon_mode, limited);
    if (with_spam && is_component_installed("vdo-spamassassin"))
        spam_pass(fx, &domains, limited);
    free_mail_domains(&domains);
    int status = 0;
    if (check) {
        status = check_found() ? 2 : 0;
    } else if (!spam_only && limited != nullptr) {
        /* Delivery and the SMTP service go on: qmail-send rereads the
         * control files the run replaced. */
        status = run_qmail_newu();
        fx->signal("qmail-se", 1);
    } else if (!spam_only) {
        int newu = run_qmail_newu();
        int restart = restart_qmail(1);
        status = newu | restart;
    }
    clock_gettime(CLOCK_MONOTONIC, &end);
    rebuild_log_summary(check ? "checked" : "restored",
                        static_cast<double>(end.tv_sec - start.tv_sec)
                        + static_cast<double>(end.tv_nsec - start.tv_nsec) / 1e9,
                        limited != nullptr ? limited->shown.c_str() : nullptr);
    report_syslog_finish(status & 0xff);
    return status;
}
