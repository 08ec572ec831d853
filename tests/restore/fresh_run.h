/* fresh_run - runs of the real binary on an emptied mail tree, as text that
 * compares whole between runs. */
#ifndef REBOX_TESTS_RESTORE_FRESH_RUN_H
#define REBOX_TESTS_RESTORE_FRESH_RUN_H

#include "support/rebox_run.h"

#include <sys/types.h>

#include <string>

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

#endif
