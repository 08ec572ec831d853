/* writer_env - set-up shared by the tests of the qmail writers.
 *
 * writers_setup() loads the sandbox configuration, empties the test
 * database, makes the mail names directory and lays out qmail's shared
 * files as the rebuild pass leaves them (empty, users/assign holding ".").
 */
#ifndef REBOX_TESTS_MAILCONF_WRITER_ENV_H
#define REBOX_TESTS_MAILCONF_WRITER_ENV_H

#include <string>

void writers_setup(void);
/* qmail_path - QMAIL_ROOT_D/relative; mailnames_path - QMAIL_MAILNAMES_D/relative */
std::string qmail_path(const std::string &relative);
std::string mailnames_path(const std::string &relative);
/* add_domain_row - a domains row with this id and name */
void add_domain_row(int id, const char *name);
/* ownership - "uid:gid:mode" (mode in octal) of a path, "" when missing */
std::string ownership(const std::string &path);
/* popuser_owned - the ownership text of a popuser entry with this mode */
std::string popuser_owned(unsigned mode);
/* break_db_login - make every later database connection fail */
void break_db_login(void);

#endif
