/* Tests of the configuration reader, on the sandbox's /etc/vdo/vdo.conf.
 * Each test runs in a process of its own, so the once-per-process load
 * sees the file the test wrote. */
#include "runtime/config.h"
#include "runtime/report.h"

#include "support/sandbox.h"

#include <gtest/gtest.h>

#include <regex>
#include <string>

#include <unistd.h>

TEST(Config, WhiteSpaceFirstWinsPrefixKeysAndLastLine)
{
    REQUIRE_SANDBOX();
    write_file(PANEL_CONFIG_FILE,
               "QMAIL_ROOT_D=/bad\n"
               "  QMAIL_ROOT_D\t/var/qmail  \r\n"
               "QMAIL_ROOT_D /second\n"
               "FTPD_CONF_INC /inc\n"
               "HTTPD_SERVICE my web server\n"
               "#PRODUCT_ROOT_D /commented\n"
               "EMPTY_KEY   \n"
               "\n\n"
               "LAST_KEY value with trail  ");
    EXPECT_STREQ(conf_get("QMAIL_ROOT_D"), "/var/qmail");
    EXPECT_EQ(conf_get("FTPD_CONF"), nullptr);
    EXPECT_STREQ(conf_get("FTPD_CONF_INC"), "/inc");
    EXPECT_STREQ(conf_get("HTTPD_SERVICE"), "my web server");
    EXPECT_EQ(conf_get("PRODUCT_ROOT_D"), nullptr);
    EXPECT_EQ(conf_get("EMPTY_KEY"), nullptr);
    EXPECT_STREQ(conf_get("LAST_KEY"), "value with trail  ");
    /* Read once: a later change of the file is not seen. */
    write_file(PANEL_CONFIG_FILE, "QMAIL_ROOT_D /changed\n");
    EXPECT_STREQ(conf_get("QMAIL_ROOT_D"), "/var/qmail");
}

TEST(Config, MissingFileIsRetriedAndLoadStopsAtFirstUndefinedKey)
{
    REQUIRE_SANDBOX();
    std::string full = read_file(PANEL_CONFIG_FILE);
    unlink(PANEL_CONFIG_FILE);
    EXPECT_EQ(conf_get("PRODUCT_ROOT_D"), nullptr);
    /* Nothing was cached: each load below reads the file again.  Of the two
     * keys dropped, the one first in order ends the load. */
    report_progname = "rebox";
    write_file(PANEL_CONFIG_FILE, std::regex_replace(full, std::regex("(QMAIL_MAILNAMES_D|CLIENT_PHP_BIN) .*\n"), ""));
    EXPECT_EXIT(load_panel_config(), testing::ExitedWithCode(1), "^rebox: Error: QMAIL_MAILNAMES_D not defined\n");
    /* A key alone on the last line has the empty value: undefined too. */
    write_file(PANEL_CONFIG_FILE, "PRODUCT_ROOT_D   ");
    EXPECT_STREQ(conf_get("PRODUCT_ROOT_D"), "");
    EXPECT_EXIT(load_panel_config(), testing::ExitedWithCode(1), "^rebox: Error: PRODUCT_ROOT_D not defined\n");
}
