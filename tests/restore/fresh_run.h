/* fresh_run - runs of the real binary on an emptied mail tree, as text that
 * compares whole between runs. */
#ifndef REBOX_TESTS_RESTORE_FRESH_RUN_H
#define REBOX_TESTS_RESTORE_FRESH_RUN_H

#include "support/rebox_run.h"

#include <string>

struct FreshRun {
    CommandResult run;
    /* the mail names tree, qmail's control and users directories (MD5-crypt
     * hashes masked: plain passwords get a new salt each second) and the
     * spamctl and virusctl calls */
    std::string tree;
};

/* fresh_run - empty the mail names tree, control/, users/ and the antivirus
 * directory, put fresh stand-ins in place, then run command_line */
FreshRun fresh_run(const std::string &command_line);

#endif
