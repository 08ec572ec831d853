/* rebox_run - running the real rebox binary in the test sandbox.
 *
 * rebox_standins() puts recording stand-ins where rebox finds qmail-newu,
 * the qmail init script and the panel's virusctl and spamctl; run_rebox()
 * runs the binary with the given arguments; load_sql_file() loads a fixture
 * into the test database.
 */
#ifndef REBOX_TESTS_SUPPORT_REBOX_RUN_H
#define REBOX_TESTS_SUPPORT_REBOX_RUN_H

#include "support/sandbox.h"

#include <string>

/* Where the stand-ins live, relative to the sandbox root. */
#define STANDIN_QMAIL_NEWU "qmail/bin/qmail-newu"
#define STANDIN_QMAIL_INIT "rc.d/qmail"
#define STANDIN_VIRUSCTL "vdo/admin/bin/virusctl"
#define STANDIN_SPAMCTL "vdo/admin/bin/spamctl"

void rebox_standins(int qmail_newu_exit = 0, int qmail_init_exit = 0);
CommandResult run_rebox(const std::string &args);
void load_sql_file(const std::string &fixture_name);

#endif
