/* Tests of the rules for panel values, of the writers refusing values that
 * break them (or a domain without its database identifier), and of bounce
 * texts in the shell. */
#include "mailconf/delivery.h"
#include "mailconf/domain.h"
#include "mailconf/domain_alias.h"
#include "mailconf/mailbox.h"
#include "mailconf/nonexist_policy.h"
#include "mailconf/pop3.h"
#include "mailconf/quota.h"
#include "mailconf/value_check.h"
#include "mailconf/writer_env.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

TEST(ValueCheck, RulesAcceptAndRefuse)
{
    const std::string longest(VALUE_MAX_NAME, 'a'), over_line(VALUE_MAX_LINE + 1, 'x');
    const struct {
        const char *(*check)(const char *);
        std::vector<std::string> ok, bad;
    } rules[] = {
        {check_path_component, {"xn--bcher-kva.example", "a.b-c_d", "...a", longest},
         {"", ".", "..", "../../etc", "/etc", "a/b", "a\nb", "a\tb", "a\x7f", longest + "a"}},
        {check_line_value, {"a:b c"}, {"a\nb", "a\r", over_line}},
        {check_record_value, {"example.com"}, {"ex:ample", "ex\nample"}},
        {check_forward_address, {"user@xn--bcher-kva.example", "first.last+tag@example.com"},
         {"|/bin/sh", "/var/mail/x", "&user@example.com", "#note@example.com", "user", "user@", "a@b@c",
          "user@example.com\n|/bin/sh", ""}},
        {check_address, {"Jürgen@bücher.example"}, {"|x@y.example", "nobody", "a@b@c", "x@a..b"}},
        {check_crypt_hash, {"$1$abcdefgh$0123456789abcdefghijkl", "ab01cdEF23.g/", "$y$j9T$a/b$c.d",
                            "$5$rounds=5000$salt$hash", "!", "*"},
         {"$1$a:b", "abc\ndef", "abc def", "x;rm"}},
        {check_domain_name, {"example.com", "bücher.example"},
         {"", ".", "..", "a..b", "a:b.example", "a'b.example", "a\\b", "/etc"}},
        {check_mail_name, {"info", "-x", "_x", "9"}, {".x", "@x", "a:b", "a/b", "a\nb", ".."}},
    };
    for (const auto &rule : rules) {
        for (const std::string &v : rule.ok)
            EXPECT_EQ(rule.check(v.c_str()), nullptr) << v;
        for (const std::string &v : rule.bad)
            EXPECT_NE(rule.check(v.c_str()), nullptr) << v;
        EXPECT_NE(rule.check(nullptr), nullptr);
    }
    EXPECT_EQ(check_line_breaks(over_line.c_str()), nullptr);
    EXPECT_EQ(check_no_nul("ab", 2), nullptr);
    EXPECT_EQ(check_no_nul(nullptr, 0), nullptr);
    EXPECT_NE(check_no_nul("ab", 3), nullptr);

    char buf[VALUE_PRINTABLE_SIZE];
    EXPECT_STREQ(value_printable("a\nb\\c\x7f", buf, sizeof(buf)), "a\\x0ab\\x5cc\\x7f");
    EXPECT_STREQ(value_printable(nullptr, buf, sizeof(buf)), "(null)");
    EXPECT_EQ(std::string(value_printable(std::string(500, 'x').c_str(), buf, sizeof(buf))),
              std::string(VALUE_PRINTABLE_SIZE - 4, 'x') + "...");
}

namespace {

const char *const BAD = "empty mailname or maildomain";
const char *const BAD_ALIAS = "empty mailname, maildomainor or mailalias";
const char *const BAD_DOMAIN = "empty domain or domain alias";
const char *const BAD_BOX = "invalid mailname or domain name\\.";
const char *const BAD_REJECT = "set_reject: empty domain";

/* W - a writer with the value under test as v */
#define W(call, message) Writer{[](const char *v) { call; }, message}

std::vector<Writer> domain_writers()
{
    return {W(add_mail_domain(v, 0), "empty domain"), W(remove_mail_domain(v), "empty maildomain"),
            W(add_domain_alias("example.com", v), BAD_DOMAIN), W(remove_domain_alias("example.com", v), BAD_DOMAIN),
            W(add_mailbox("info", v), BAD_BOX), W(remove_mailbox("info", v), BAD),
            W(add_pop3_password("info", v, "$1$h", 0, 1), BAD), W(add_postbox("info", v, "$1$h", 0, 1), BAD),
            W(remove_postbox("info", v), BAD), W(add_forward_address("info", v, "a@example.org"), BAD),
            W(add_autoresponder("info", v), BAD), W(add_mail_alias("info", v, "sales"), BAD_ALIAS),
            W(set_reject(v, 1), BAD_REJECT), W(set_catch_all(v, "a@example.org"), BAD_REJECT),
            W(add_bounce(v, "|bouncesaying x"), "add_bounce: empty domain")};
}

std::vector<Writer> mail_name_writers()
{
    return {W(add_mailbox(v, "example.com"), BAD_BOX), W(remove_mailbox(v, "example.com"), BAD),
            W(add_pop3_password(v, "example.com", "$1$h", 0, 0), BAD),
            W(add_postbox(v, "example.com", "$1$h", 0, 0), BAD),
            W(remove_postbox(v, "example.com"), BAD), W(add_forward_address(v, "example.com", "a@example.org"), BAD),
            W(add_autoresponder(v, "example.com"), BAD), W(add_mail_alias(v, "example.com", "sales"), BAD_ALIAS),
            W(add_mail_alias("info", "example.com", v), BAD_ALIAS)};
}

class ValueCheckDeathTest : public testing::Test {
protected:
    void SetUp() override
    {
        REQUIRE_SANDBOX();
        ASSERT_NO_FATAL_FAILURE(writers_setup({"42 example.com"}));
        mkdir(mailnames_path("example.com").c_str(), 0700);
        add_mailbox("info", "example.com");
    }
};

} // namespace

TEST_F(ValueCheckDeathTest, PathComponentRule)
{
    std::string longest(VALUE_MAX_NAME + 1, 'e'), label(60, 'e');
    std::string long_domain = label + "." + label + "." + label + "." + label + ".evil.example";
    expect_refused(domain_writers(), {nullptr, "", "evil/x.example", ".", long_domain.c_str()});
    expect_refused(mail_name_writers(), {nullptr, "", "info/../../../evil", "..", longest.c_str()});
    std::string before = tree_snapshot(sandbox_root());
    EXPECT_EQ(write_mbox_quota("example.com", "info/../../../evil", 5), 0);
    EXPECT_EQ(write_mbox_quota("evil/x", nullptr, 5), 0);
    EXPECT_EQ(remove_mbox_quota("example.com", ".."), 0);
    EXPECT_EQ(tree_snapshot(sandbox_root()), before);
}

TEST_F(ValueCheckDeathTest, LineRecordLookupAndHashRules)
{
    expect_refused(domain_writers(), {"evil\n.example", "evil:1.example", "evil'.example", "evil\\.example"});
    expect_refused(mail_name_writers(), {"evil\r", "evil:0:0:/root:::", "@evil"});
    expect_refused({W(add_pop3_password("info", "example.com", v, 0, 0), BAD),
                    W(add_postbox("info", "example.com", v, 0, 0), BAD)},
                   {"$1$evil:0:0", "evil\n", "evil hash"});
}

TEST_F(ValueCheckDeathTest, AddressAndBounceLineRules)
{
    expect_refused({W(add_forward_address("info", "example.com", v), "idn_email_toascii\\(\\) failed: "),
                    W(set_catch_all("example.com", v), "idn_email_toascii_safe\\(.*\\) failed: ")},
                   {"|evil@x.example", "/evil@x.example", "evil@x.example\n|/bin/sh", "evil@", "a@evil@x"});
    expect_refused({W(add_bounce("example.com", v), "add_bounce: empty domain")},
                   {"|bouncesaying x\n|evil"});
}

/* Without its domain's database identifier no writer writes a record or
 * looks for one to remove.  (add_mail_domain makes the domain directory
 * first: it is given the owner that leaves it as it was.) */
TEST_F(ValueCheckDeathTest, NoDomainIdentifierNoEdit)
{
    break_db_login();
    ASSERT_EQ(chown(mailnames_path("example.com").c_str(), 7781, 7781), 0);
    const char *no_id = "Unable to get the database ID of domain example.com";
    expect_refused({W(add_mail_domain(v, 0), no_id), W(add_mail_domain(v, 1), no_id), W(remove_mail_domain(v), no_id),
                    W(add_domain_alias(v, "alias.net"), no_id), W(remove_domain_alias(v, "alias.net"), no_id),
                    W(rename_domain_alias(v, "alias.net", "new.net"), no_id), W(add_mailbox("info", v), no_id),
                    W(remove_mailbox("info", v), no_id), W(add_mail_alias("info", v, "sales"), no_id)},
                   {"example.com"});
}

/* qmail runs a delivery line that begins with "|" as "sh -c" of the rest:
 * whatever the bounce text, the shell runs bouncesaying alone, with the
 * text (its newlines turned into spaces) as its one argument. */
TEST(ValueCheck, BounceTextsRunOnlyBouncesaying)
{
    REQUIRE_SANDBOX();
    ASSERT_NO_FATAL_FAILURE(writers_setup({"42 example.com"}));
    mkdir(mailnames_path("example.com").c_str(), 0700);
    std::string bin = sandbox_path("bin"), scratch = sandbox_path("scratch");
    mkdir(bin.c_str(), 0755);
    mkdir(scratch.c_str(), 0755);
    write_recording_stub(bin + "/bouncesaying", 0);
    for (std::string text : {"$(touch pwned)", "`touch pwned`", "x; touch pwned", "x | touch pwned",
                             "x && touch pwned", "x > pwned", "' ; touch pwned ; '", "\" ; touch pwned \"",
                             "x\ntouch pwned", "x\r\ntouch pwned", "x\\\ntouch pwned", "$HOME ${IFS} $((1+1))",
                             "* ? [a-z] ~ {a,b} !x a=b", " lead\ttab # not a comment", "ü\x01\x7f%", "typed\r"}) {
        set_bounce_message("example.com", text.c_str());
        std::string line = read_file(mailnames_path("example.com/.qmail-default"));
        ASSERT_EQ(line.find('\n'), line.size() - 1) << text;
        ASSERT_EQ(line.rfind("|bouncesaying ", 0), 0u) << line;
        write_file(scratch + "/../command", line.substr(1));
        unlink((bin + "/bouncesaying.calls").c_str());
        CommandResult r = run_command("cd '" + scratch + "' && PATH='" + bin + "':$PATH sh -c \"$(cat ../command)\"");
        EXPECT_EQ(r.status, 0) << text << r.err;
        for (char &c : text)
            if (c == '\n')
                c = ' ';
        EXPECT_EQ(read_calls(bin + "/bouncesaying"), std::vector<std::vector<std::string>>{{text}}) << line;
        EXPECT_EQ(tree_snapshot(scratch), "") << "side effect of " << line;
    }
}
