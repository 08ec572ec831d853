/* Tests of the queries the rebuild asks: buffers, empty versus failed
 * answers, the quoting guard and the client e-mail fallback. */
#include "db/connect.h"
#include "db/get.h"

#include "support/sandbox.h"
#include "support/testdb.h"

#include <gtest/gtest.h>

#include <string>

TEST(DbGet, AnswersBuffersFailuresAndQuotingGuard)
{
    REQUIRE_SANDBOX();
    testdb_reset();
    testdb_exec("INSERT INTO domains (id, name, cl_id, limits_id) VALUES (7, 'xn--bcher-kva.test', 3, 9);"
                "INSERT INTO clients (id, email) VALUES (3, 'owner@example.net');"
                "INSERT INTO DomainServices (dom_id, type, parameters_id) VALUES (7, 'mail', 12);"
                "INSERT INTO Parameters VALUES (12, 'nonexist_mail', 'reject'), (12, 'catch_addr', NULL),"
                " (12, 'bounce_mess', REPEAT('x', 5000));"
                "INSERT INTO Limits VALUES (9, 'mbox_quota', '1048576');"
                "INSERT INTO misc VALUES ('admin_email', 'admin@panel.test')");
    MYSQL *conn = panel_db_open();
    ASSERT_NE(conn, nullptr);
    long selects = atol(get_query_value("SHOW SESSION STATUS LIKE 'Com_select'", conn, 1));
    std::string err = stderr_of([&] {
        EXPECT_EQ(get_dom_Limit("7' or '1'='1", "mbox_quota", conn), nullptr);
        EXPECT_EQ(get_misc_param("a\\b", conn), nullptr);
        EXPECT_EQ(get_dom_id_noerr("x\".test", conn, 1), nullptr);
    });
    EXPECT_EQ(atol(get_query_value("SHOW SESSION STATUS LIKE 'Com_select'", conn, 1)), selects);
    EXPECT_TRUE(has(err, "get_dom_Limit(): refusing a value holding a quote or backslash: 7' or '1'='1")) << err;
    EXPECT_STREQ(get_dom_id("xn--bcher-kva.test", conn), "7");
    EXPECT_STREQ(get_dom_id("b\u00fccher.test", conn), "7");
    EXPECT_STREQ(get_dom_Limit("7", "mbox_quota", conn), "1048576");
    mysql_close(conn);

    /* A buffer per member, reused, long values cut; absent values are "". */
    const char *first = get_DomainService_Parameter("7", "mail", "nonexist_mail", nullptr);
    EXPECT_EQ(first, get_DomainService_Parameter("7", "mail", "bounce_mess", nullptr));
    EXPECT_EQ(std::string(first), std::string(4095, 'x'));
    EXPECT_EQ(stderr_of([] {
                  EXPECT_STREQ(get_DomainService_Parameter("8", "mail", "nonexist_mail", nullptr), "");
                  EXPECT_STREQ(get_DomainService_Parameter("7", "mail", "catch_addr", nullptr), "");
                  EXPECT_EQ(get_dom_id_noerr("absent.test", nullptr, 1), nullptr);
              }),
              "");
    EXPECT_EXIT(get_dom_id("absent.test", nullptr), testing::ExitedWithCode(1),
                "get_dom_id\\(\\): domains record not found in DB for 'absent.test'");
    EXPECT_EXIT(get_dom_id("m\u00fcnchen.test", nullptr), testing::ExitedWithCode(1),
                "domains record not found in DB for 'm\u00fcnchen.test'");
    EXPECT_EXIT(get_dom_id("x'.test", nullptr), testing::ExitedWithCode(1),
                "get_dom_id\\(\\): refusing a value holding a quote or backslash: x'.test");

    /* The client's e-mail, else the administrator's, else none. */
    EXPECT_STREQ(get_client_email("7", nullptr), "owner@example.net");
    testdb_exec("UPDATE clients SET email=''");
    EXPECT_STREQ(get_client_email("7", nullptr), "admin@panel.test");
    testdb_exec("UPDATE misc SET val='' WHERE param='admin_email'");
    EXPECT_TRUE(has(stderr_of([] { EXPECT_EQ(get_client_email("7", nullptr), nullptr); }),
                    "Unable to define admin email\n"));

    /* Without the password file no session opens: the connect reason first. */
    err = stderr_of([] {
        unlink(DB_PASSWORD_FILE);
        EXPECT_EQ(get_dom_Limit("7", "mbox_quota", nullptr), nullptr);
    });
    EXPECT_TRUE(has(err, "Unable to open admin password file: No such file or directory")) << err;
    EXPECT_TRUE(has(err, "Unable to connect to the mysql database\n")) << err;
}
