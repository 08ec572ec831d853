/* writer_env - set-up shared by the tests of the qmail writers. */
#ifndef REBOX_TESTS_MAILCONF_WRITER_ENV_H
#define REBOX_TESTS_MAILCONF_WRITER_ENV_H

#include <initializer_list>
#include <string>

/* writers_setup - load the configuration, empty the database, make the mail
 * names directory and qmail's files as a rebuild leaves them (users/assign
 * holding "."), and add the domains rows "id name" given */
void writers_setup(std::initializer_list<const char *> domain_rows = {});
std::string qmail_path(const std::string &relative);
std::string mailnames_path(const std::string &relative);
/* ownership - "uid:gid:mode" of a path (mode octal), "" when missing */
std::string ownership(const std::string &path);
std::string popuser_owned(unsigned mode);
/* break_db_login - make every later database connection fail */
void break_db_login(void);

#endif
