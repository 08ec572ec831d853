/* writer_env - set-up and checks shared by the tests of the qmail writers. */
#ifndef REBOX_TESTS_MAILCONF_WRITER_ENV_H
#define REBOX_TESTS_MAILCONF_WRITER_ENV_H

#include "support/sandbox.h"
#include "support/snapshot.h"

#include <functional>
#include <initializer_list>
#include <string>
#include <vector>

/* writers_setup - load the configuration, empty the database, make the mail
 * names directory and qmail's files as a rebuild leaves them (users/assign
 * holding "."), and add the domains rows "id name" given */
void writers_setup(std::initializer_list<const char *> domain_rows = {});
std::string qmail_path(const std::string &relative);
std::string mailnames_path(const std::string &relative);
/* block_file - put a directory in a file's place: every edit of it fails */
void block_file(const std::string &path);
/* break_db_login - make every later database connection fail */
void break_db_login(void);

/* A writer called with one value in the place under test, and the message
 * it ends the process with when it refuses the value. */
struct Writer {
    std::function<void(const char *)> call;
    const char *message;
};

/* expect_refused - each writer ends the process with status 1 and its
 * message for each value, and nothing in the sandbox changed */
void expect_refused(const std::vector<Writer> &writers, std::initializer_list<const char *> values);

#endif
