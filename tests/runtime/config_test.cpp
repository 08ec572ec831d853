/* Tests of the configuration reader, on the sandbox's /etc/vdo/vdo.conf.
 * Each test runs in a process of its own, so the once-per-process load
 * sees the file the test wrote. */
#include "runtime/config.h"
#include "runtime/report.h"

#include "support/sandbox.h"

#include <gtest/gtest.h>

#include <string>

#include <unistd.h>

TEST(Config, WhiteSpaceFirstWinsPrefixKeysAndEquals)
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

TEST(Config, KeyAloneOnLastLineIsEmptyAndRejected)
{
    REQUIRE_SANDBOX();
    write_file(PANEL_CONFIG_FILE, "PRODUCT_ROOT_D   ");
    EXPECT_STREQ(conf_get("PRODUCT_ROOT_D"), "");
    report_progname = "rebox";
    EXPECT_EXIT(load_panel_config(), testing::ExitedWithCode(1),
                "rebox: Error: PRODUCT_ROOT_D not defined\n");
}

TEST(Config, MissingFileIsRetriedAndLoadStopsAtFirstMissingKey)
{
    REQUIRE_SANDBOX();
    std::string full = read_file(PANEL_CONFIG_FILE);
    unlink(PANEL_CONFIG_FILE);
    EXPECT_EQ(conf_get("PRODUCT_ROOT_D"), nullptr);
    /* Nothing was cached: the file is tried again on the next call.  Drop
     * QMAIL_MAILNAMES_D and the later CLIENT_PHP_BIN; the first one ends it. */
    std::string cut;
    size_t pos = 0;
    while (pos < full.size()) {
        size_t nl = full.find('\n', pos);
        std::string line = full.substr(pos, nl - pos + 1);
        if (line.rfind("QMAIL_MAILNAMES_D ", 0) != 0 && line.rfind("CLIENT_PHP_BIN ", 0) != 0)
            cut += line;
        pos = nl + 1;
    }
    write_file(PANEL_CONFIG_FILE, cut);
    EXPECT_NE(conf_get("QMAIL_ROOT_D"), nullptr);
    EXPECT_EXIT(load_panel_config(), testing::ExitedWithCode(1),
                "Error: QMAIL_MAILNAMES_D not defined\n");
}

TEST(Config, FullFileFillsEveryField)
{
    REQUIRE_SANDBOX();
    load_panel_config();
    EXPECT_EQ(std::string(panel_config.QMAIL_ROOT_D), sandbox_path("qmail"));
    EXPECT_STREQ(panel_config.CLIENT_PHP_BIN, "/usr/bin/php");
    EXPECT_STREQ(panel_config.HTTPD_SERVICE, "httpd");
}
