/* rebox_run - running the real rebox binary in the test sandbox: recording
 * stand-ins for the programs it starts, runs in the foreground or the
 * background, fresh runs whose trees compare whole, and the panels.
 */
#pragma once

#include "support/sandbox.h"

#include <sys/types.h>

#include <string>

/* Where the stand-ins live, relative to the sandbox root. */
#define STANDIN_QMAIL_NEWU "qmail/bin/qmail-newu"
#define STANDIN_QMAIL_INIT "rc.d/qmail"
#define STANDIN_VIRUSCTL "vdo/admin/bin/virusctl"
#define STANDIN_SPAMCTL "vdo/admin/bin/spamctl"

/* rebox_standins - recording stand-ins with no calls recorded where rebox
 * finds qmail-newu, the init script, virusctl and spamctl; standin_calls -
 * how many calls one recorded */
void rebox_standins(int qmail_newu_exit = 0, int qmail_init_exit = 0);
size_t standin_calls(const char *standin);
CommandResult run_rebox(const std::string &args);
void load_sql_file(const std::string &fixture_name);

struct FreshRun {
    CommandResult run;
    /* the mail names tree, qmail's control and users directories (MD5-crypt
     * hashes masked: plain passwords get a new salt each second) and the
     * spamctl and virusctl calls */
    std::string tree;
};

/* fresh_run - empty the mail names tree, control/, users/ and the antivirus
 * directory (unless empty is false), put fresh stand-ins in place, then run
 * command_line */
FreshRun fresh_run(const std::string &command_line, bool empty = true);
/* generated_panel - SQL of a synthetic panel from the benchmark generator */
std::string generated_panel(int domains, int per_domain, int seed);
/* start_rebox - the binary in the background, its output in the sandbox's
 * rebox.out and rebox.err; wait_status - its exit status, -1 for none */
pid_t start_rebox(const char *args);
int wait_status(pid_t pid);
