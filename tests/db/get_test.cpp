/* Tests of the query family against the test server: connections, buffers,
 * empty versus failed answers, the quoting guard and each member's rules. */
#include "db/connect.h"
#include "db/get.h"

#include "support/sandbox.h"
#include "support/testdb.h"

#include <gtest/gtest.h>

#include <string>

/* selects_sent - how many SELECTs the session of conn has run */
static long selects_sent(MYSQL *conn)
{
    return atol(get_query_value("SHOW SESSION STATUS LIKE 'Com_select'", conn, 1));
}

static void load_domain(void)
{
    testdb_reset();
    testdb_exec("INSERT INTO domains (id, name, status, htype, cl_id, dns_zone_id, limits_id, params_id)"
                " VALUES (7, 'Example.COM', 16, 'vrt_hst', 3, 5, 9, 11);"
                "INSERT INTO clients (id, email) VALUES (3, 'owner@example.net');"
                "INSERT INTO DomainServices (dom_id, type, parameters_id) VALUES (7, 'mail', 12);"
                "INSERT INTO Parameters VALUES (12, 'nonexist_mail', 'reject'), (12, 'catch_addr', NULL),"
                " (11, 'stat_ttl', '30');"
                "INSERT INTO Limits VALUES (9, 'mbox_quota', '1048576');"
                "INSERT INTO dom_param VALUES (7, 'seo', 'on');"
                "INSERT INTO IP_Addresses (id, ip_address) VALUES (2, '192.0.2.7');"
                "INSERT INTO hosting (dom_id, ip_address_id, fp, fp_ssl) VALUES (7, 2, 'true', 'false');"
                "INSERT INTO anon_ftp (dom_id, status) VALUES (7, 'true');"
                "INSERT INTO misc VALUES ('admin_email', 'admin@panel.test'), ('mode', 'plain')");
}

TEST(DbGet, MembersAnswerTheirQuestions)
{
    REQUIRE_SANDBOX();
    load_domain();
    MYSQL *conn = panel_db_open();
    ASSERT_NE(conn, nullptr);
    unsigned status = 0;
    EXPECT_EQ(get_dom_status("7", &status, conn), 0);
    EXPECT_EQ(status, 16u);
    EXPECT_EQ(get_dom_status("8", &status, conn), -2);
    EXPECT_EQ(get_client_id_by_domain("7", conn), 3);
    EXPECT_EQ(get_client_id_by_domain("8", conn), 0);
    EXPECT_STREQ(get_dns_zone_id("7", conn), "5");
    EXPECT_STREQ(get_dom_id("Example.COM", conn), "7");
    EXPECT_STREQ(get_dom_Limit("7", "mbox_quota", conn), "1048576");
    EXPECT_STREQ(get_DomainService_Parameter("7", "mail", "nonexist_mail", conn), "reject");
    EXPECT_STREQ(get_dom_Parameter("7", "stat_ttl", conn), "30");
    EXPECT_STREQ(get_dom_param("7", "seo", conn), "on");
    EXPECT_STREQ(get_ip_address("7", conn), "192.0.2.7");
    EXPECT_STREQ(get_dom_htype("7", conn), "vrt_hst");
    EXPECT_STREQ(get_query_value("SELECT 'a', 'b'", conn, 1), "b");
    EXPECT_EQ(get_frontpage("Example.COM", 0, conn), 1);
    EXPECT_EQ(get_frontpage("Example.COM", 1, conn), 0);
    EXPECT_EQ(get_frontpage("other.test", 0, conn), 0);
    EXPECT_EQ(get_anon_ftp("7", conn), 1);
    EXPECT_STREQ(get_exist_case_dom_name("example.com"), "example.com");
    EXPECT_EQ(get_exist_case_dom_name("other.test"), nullptr);
    EXPECT_EQ(get_next_id("domains", conn), 8);
    EXPECT_EQ(get_next_id("subdomains", conn), 1);
    testdb_exec("INSERT INTO subdomains (id, dom_id, name) VALUES (41, 7, 'x')");
    EXPECT_EQ(get_next_id("subdomains", nullptr), 42);

    /* A given connection stays open; without one each call has its own. */
    EXPECT_EQ(mysql_ping(conn), 0);
    mysql_close(conn);
    EXPECT_STREQ(get_dom_Limit("7", "mbox_quota", nullptr), "1048576");
    EXPECT_STREQ(get_dom_id_noerr("Example.COM", nullptr, 1), "7");
}

TEST(DbGet, SharedBuffersEmptyAnswersAndFailures)
{
    REQUIRE_SANDBOX();
    load_domain();
    testdb_exec("INSERT INTO Parameters VALUES (12, 'bounce_mess', REPEAT('x', 5000))");
    /* A buffer per member, reused, long values cut; get_misc_param,
     * get_dom_htype and get_query_value share one. */
    const char *first = get_DomainService_Parameter("7", "mail", "nonexist_mail", nullptr);
    EXPECT_EQ(first, get_DomainService_Parameter("7", "mail", "bounce_mess", nullptr));
    EXPECT_EQ(std::string(first), std::string(4095, 'x'));
    const char *mode = get_misc_param("mode", nullptr);
    EXPECT_TRUE(mode == get_dom_htype("7", nullptr) && mode == get_query_value("SELECT 1", nullptr, 0));
    EXPECT_STREQ(mode, "1");

    EXPECT_EQ(stderr_of([] {
                  EXPECT_STREQ(get_DomainService_Parameter("8", "mail", "nonexist_mail", nullptr), "");
                  EXPECT_STREQ(get_DomainService_Parameter("7", "mail", "catch_addr", nullptr), "");
                  EXPECT_STREQ(get_misc_param("absent", nullptr), "");
              }),
              "");

    std::string err = stderr_of([] {
        EXPECT_EQ(get_query_value("SELECT nothing FROM nowhere", nullptr, 0), nullptr);
        EXPECT_EQ(get_next_id("nowhere", nullptr), 0);
        /* Without the password file no session opens: connect reason, then
         * the member's wording. */
        unlink(DB_PASSWORD_FILE);
        EXPECT_EQ(get_dom_Limit("7", "mbox_quota", nullptr), nullptr);
        EXPECT_EQ(get_ip_address("7", nullptr), nullptr);
    });
    for (const char *line : {"Unable to query parameter by query SELECT nothing FROM nowhere: "
                             "Table 'vdo.nowhere' doesn't exist\n",
                             "Unable to define max id: Table 'vdo.nowhere' doesn't exist",
                             "Unable to open admin password file: No such file or directory",
                             "Unable to connect to the mysql database\n",
                             "get_ip_address: Unable to connect to the mysql database"})
        EXPECT_TRUE(has(err, line)) << line << " not in " << err;
}

TEST(DbGet, QuotedValueRefusedUnsentAndDomIdAbsence)
{
    REQUIRE_SANDBOX();
    load_domain();
    MYSQL *conn = panel_db_open();
    ASSERT_NE(conn, nullptr);
    long before = selects_sent(conn);
    std::string err = stderr_of([&] {
        unsigned status;
        EXPECT_EQ(get_dom_Limit("7' or '1'='1", "mbox_quota", conn), nullptr);
        EXPECT_EQ(get_misc_param("a\\b", conn), nullptr);
        EXPECT_EQ(get_dom_id_noerr("x\".test", conn, 1), nullptr);
        EXPECT_EQ(get_dom_status("7\"", &status, conn), -1);
    });
    EXPECT_EQ(selects_sent(conn), before);
    EXPECT_TRUE(has(err, "get_dom_Limit(): refusing a value holding a quote or backslash: 7' or '1'='1")) << err;
    EXPECT_TRUE(has(err, "get_param_simple(): refusing"));
    mysql_close(conn);
    EXPECT_EXIT(get_dom_id("x'.test", nullptr), testing::ExitedWithCode(1),
                "get_dom_id\\(\\): refusing a value holding a quote or backslash: x'.test");

    testdb_exec("INSERT INTO domains (id, name) VALUES (21, 'xn--bcher-kva.test')");
    EXPECT_STREQ(get_dom_id("b\xc3\xbc" "cher.test", nullptr), "21");
    EXPECT_EQ(stderr_of([] { EXPECT_EQ(get_dom_id_noerr("absent.test", nullptr, 1), nullptr); }), "");
    EXPECT_EXIT(get_dom_id("absent.test", nullptr), testing::ExitedWithCode(1),
                "get_dom_id\\(\\): domains record not found in DB for 'absent.test'");
}

TEST(DbGet, ClientEmailFallbackAndWwwPrefixAnswers)
{
    REQUIRE_SANDBOX();
    load_domain();
    EXPECT_STREQ(get_client_email("7", nullptr), "owner@example.net");
    testdb_exec("UPDATE clients SET email='' WHERE id=3");
    EXPECT_STREQ(get_client_email("7", nullptr), "admin@panel.test");
    testdb_exec("DELETE FROM misc WHERE param='admin_email'");
    EXPECT_TRUE(has(stderr_of([] { EXPECT_EQ(get_client_email("7", nullptr), nullptr); }),
                    "Unable to define admin email\n"));

    testdb_exec("INSERT INTO dns_zone (id) VALUES (5);"
                "INSERT INTO dns_recs (dns_zone_id, type, host) VALUES (5, 'MX', 'www.example.com.')");
    EXPECT_EQ(get_www_prefix("7", nullptr), 0);
    testdb_exec("INSERT INTO dns_recs (dns_zone_id, type, host) VALUES (5, 'CNAME', 'www.example.com.')");
    EXPECT_EQ(get_www_prefix("7", nullptr), 1);
    testdb_exec("INSERT INTO subdomains (dom_id, name) VALUES (7, 'www')");
    EXPECT_EQ(get_www_prefix("7", nullptr), 0);
    testdb_exec("DROP TABLE subdomains");
    EXPECT_TRUE(has(stderr_of([] { EXPECT_EQ(get_www_prefix("7", nullptr), -1); }),
                    "Unable to query www subdomain: Table 'vdo.subdomains' doesn't exist\n"));
}
