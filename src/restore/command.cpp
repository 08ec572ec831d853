/* command - the rebox command: run modes, detaching, the passes in order.
 *
 * usage: rebox --without-spam|--with-spam|--spam-only|--check [--daemon-mode]
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
 * go to standard error only.
 */
#include "restore/command.h"

#include "db/component.h"
#include "db/connect.h"
#include "filters/spam.h"
#include "restore/apply_effects.h"
#include "restore/check_effects.h"
#include "restore/check_report.h"
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
         "         report what a restore would change, without changing anything");
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

/* spam_pass - the spam-filter pass over the domains the rebuild read, or
 * (spam only) read for it, on a connection of its own */
static void spam_pass(const Effects *fx, MailDomains *domains)
{
    MYSQL *conn = panel_db_open();

    if (conn == nullptr)
        report_plain(1, "Unable to connect to the mysql database");
    if (domains->res == nullptr)
        read_mail_domains(conn, domains);
    restore_spam_settings(fx, conn, domains->rows.data(), domains->rows.size());
    mysql_close(conn);
}

int rebox_main(int argc, char **argv)
{
    int with_spam = 0;
    int spam_only = 0;
    int check = 0;
    struct timespec start, end;

    report_progname = argv[0];
    process_start_clean();
    if (process_start_root() != 0)
        report(1, "Unable to set UID or GID: %s\n", strerror(errno));
    if (argc != 2 && argc != 3)
        usage();
    const char *mode = parse_mode(argv[1], &with_spam, &spam_only, &check);
    if (mode == nullptr)
        usage();
    /* The one place that chooses: the passes are handed this table, and
     * every layer below changes the system through it, or only reports
     * what it would change; a check run's standard output carries its
     * report alone. */
    const Effects *fx = check ? &CHECK_EFFECTS : &APPLY_EFFECTS;
    if (check)
        report_stdout(0);
    if (argc == 3) {
        if (strcmp(argv[2], "daemon-mode") != 0 && strcmp(argv[2], "--daemon-mode") != 0)
            usage();
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
    if (!spam_only)
        rebuild_mail_configuration(fx, &domains, argc != 3);
    if (with_spam && is_component_installed("vdo-spamassassin"))
        spam_pass(fx, &domains);
    free_mail_domains(&domains);
    int status = 0;
    if (check) {
        status = check_found() ? 2 : 0;
    } else if (!spam_only) {
        int newu = run_qmail_newu();
        int restart = restart_qmail(1);
        status = newu | restart;
    }
    clock_gettime(CLOCK_MONOTONIC, &end);
    rebuild_log_summary(check ? "checked" : "restored",
                        static_cast<double>(end.tv_sec - start.tv_sec)
                        + static_cast<double>(end.tv_nsec - start.tv_nsec) / 1e9);
    report_syslog_finish(status & 0xff);
    return status;
}
