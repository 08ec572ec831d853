/* Tests of the rules for panel values, of the writers refusing values that
 * break them, and of bounce texts in the shell. */
#include "mailconf/delivery.h"
#include "mailconf/domain.h"
#include "mailconf/domain_alias.h"
#include "mailconf/mailbox.h"
#include "mailconf/nonexist_policy.h"
#include "mailconf/pop3.h"
#include "mailconf/quota.h"
#include "mailconf/value_check.h"
#include "mailconf/writer_env.h"
#include "support/sandbox.h"
#include "support/snapshot.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <functional>
#include <string>
#include <vector>

using testing::ExitedWithCode;

TEST(ValueCheck, PathComponents)
{
    for (const char *ok : {"example.com", "xn--bcher-kva.example", "info", "a.b-c_d", "...a"})
        EXPECT_EQ(check_path_component(ok), nullptr) << ok;
    std::string longest(VALUE_MAX_NAME, 'a');
    EXPECT_EQ(check_path_component(longest.c_str()), nullptr);
    for (const char *bad : {"", ".", "..", "../../etc", "/etc", "a/b", "a\nb", "a\tb", "a\x7f", "a\rb"})
        EXPECT_NE(check_path_component(bad), nullptr) << bad;
    EXPECT_NE(check_path_component(nullptr), nullptr);
    EXPECT_NE(check_path_component((longest + "a").c_str()), nullptr);
}

TEST(ValueCheck, LinesRecordsAddressesAndHashes)
{
    EXPECT_EQ(check_line_value("a:b c"), nullptr);
    EXPECT_NE(check_line_value("a\nb"), nullptr);
    EXPECT_NE(check_line_value("a\r"), nullptr);
    EXPECT_NE(check_line_value(std::string(VALUE_MAX_LINE + 1, 'x').c_str()), nullptr);
    EXPECT_EQ(check_line_breaks(std::string(VALUE_MAX_LINE + 1, 'x').c_str()), nullptr);
    EXPECT_EQ(check_record_value("example.com"), nullptr);
    EXPECT_NE(check_record_value("ex:ample"), nullptr);
    EXPECT_NE(check_record_value("ex\nample"), nullptr);

    EXPECT_EQ(check_forward_address("user@xn--bcher-kva.example"), nullptr);
    EXPECT_EQ(check_forward_address("first.last+tag@example.com"), nullptr);
    for (const char *bad : {"|/bin/sh", "/var/mail/x", "&user@example.com", "#note@example.com",
                            "user", "user@", "a@b@c", "user@example.com\n|/bin/sh", ""})
        EXPECT_NE(check_forward_address(bad), nullptr) << bad;
    EXPECT_EQ(check_address("Jürgen@bücher.example"), nullptr);
    for (const char *bad : {"|x@y.example", "nobody", "a@b@c", "x@a..b"})
        EXPECT_NE(check_address(bad), nullptr) << bad;

    for (const char *ok : {"$1$abcdefgh$0123456789abcdefghijkl", "ab01cdEF23.g/", "$y$j9T$a/b$c.d",
                           "$5$rounds=5000$salt$hash", "!", "*"})
        EXPECT_EQ(check_crypt_hash(ok), nullptr) << ok;
    for (const char *bad : {"$1$a:b", "abc\ndef", "abc def", "x;rm"})
        EXPECT_NE(check_crypt_hash(bad), nullptr) << bad;
}

TEST(ValueCheck, DomainAndMailNamesNulBytesAndPrintableValues)
{
    for (const char *ok : {"example.com", "bücher.example"})
        EXPECT_EQ(check_domain_name(ok), nullptr) << ok;
    for (const char *bad : {"", "..", "a..b", "a:b.example", "a'b.example", "a\\b", "/etc", "."})
        EXPECT_NE(check_domain_name(bad), nullptr) << bad;
    for (const char *ok : {"info", "-x", "_x", "9"})
        EXPECT_EQ(check_mail_name(ok), nullptr) << ok;
    for (const char *bad : {".x", "@x", "a:b", "a/b", "a\nb", ".."})
        EXPECT_NE(check_mail_name(bad), nullptr) << bad;
    EXPECT_EQ(check_no_nul("ab", 2), nullptr);
    EXPECT_EQ(check_no_nul(nullptr, 0), nullptr);
    EXPECT_NE(check_no_nul("ab", 3), nullptr);

    char buf[VALUE_PRINTABLE_SIZE];
    EXPECT_STREQ(value_printable("a\nb\\c\x7f", buf, sizeof(buf)), "a\\x0ab\\x5cc\\x7f");
    EXPECT_STREQ(value_printable(nullptr, buf, sizeof(buf)), "(null)");
    std::string cut = value_printable(std::string(500, 'x').c_str(), buf, sizeof(buf));
    EXPECT_EQ(cut, std::string(VALUE_PRINTABLE_SIZE - 4, 'x') + "...");
}

namespace {

/* A writer called with one value in the place under test, and the message
 * it refuses a bad value with. */
struct Writer {
    std::function<void(const char *)> call;
    const char *message;
};

const char *const BAD = "empty mailname or maildomain";
const char *const BAD_ALIAS = "empty mailname, maildomainor or mailalias";

std::vector<Writer> domain_writers()
{
    return {
        {[](const char *d) { add_mail_domain(d, 0); }, "empty domain"},
        {[](const char *d) { remove_mail_domain(d); }, "empty maildomain"},
        {[](const char *d) { add_domain_alias("example.com", d); }, "empty domain or domain alias"},
        {[](const char *d) { remove_domain_alias("example.com", d); }, "empty domain or domain alias"},
        {[](const char *d) { add_mailbox("info", d); }, "invalid mailname or domain name\\."},
        {[](const char *d) { remove_mailbox("info", d); }, BAD},
        {[](const char *d) { add_pop3_password("info", d, "$1$h", 0, 1); }, BAD},
        {[](const char *d) { add_postbox("info", d, "$1$h", 0, 1); }, BAD},
        {[](const char *d) { remove_postbox("info", d); }, BAD},
        {[](const char *d) { add_forward_address("info", d, "a@example.org"); }, BAD},
        {[](const char *d) { add_autoresponder("info", d); }, BAD},
        {[](const char *d) { add_mail_alias("info", d, "sales"); }, BAD_ALIAS},
        {[](const char *d) { set_reject(d, 1); }, "set_reject: empty domain"},
        {[](const char *d) { add_bounce(d, "|bouncesaying x"); }, "add_bounce: empty domain"},
        {[](const char *d) { set_catch_all(d, "a@example.org"); }, "set_reject: empty domain"},
    };
}

std::vector<Writer> mail_name_writers()
{
    const char *d = "example.com";
    return {
        {[d](const char *n) { add_mailbox(n, d); }, "invalid mailname or domain name\\."},
        {[d](const char *n) { remove_mailbox(n, d); }, BAD},
        {[d](const char *n) { add_pop3_password(n, d, "$1$h", 0, 0); }, BAD},
        {[d](const char *n) { add_postbox(n, d, "$1$h", 0, 0); }, BAD},
        {[d](const char *n) { remove_postbox(n, d); }, BAD},
        {[d](const char *n) { add_forward_address(n, d, "a@example.org"); }, BAD},
        {[d](const char *n) { add_autoresponder(n, d); }, BAD},
        {[d](const char *n) { add_mail_alias(n, d, "sales"); }, BAD_ALIAS},
        {[d](const char *n) { add_mail_alias("info", d, n); }, BAD_ALIAS},
    };
}

class ValueCheckDeathTest : public testing::Test {
protected:
    void SetUp() override
    {
        REQUIRE_SANDBOX();
        ASSERT_NO_FATAL_FAILURE(writers_setup({"42 example.com"}));
        mkdir(mailnames_path("example.com").c_str(), 0700);
        add_mailbox("info", "example.com");
        before = tree_snapshot(sandbox_root());
    }
    /* Every writer refuses every value with its message; nothing in the
     * sandbox changed, quota files included. */
    void expect_refused(const std::vector<Writer> &writers, std::initializer_list<std::string> values)
    {
        for (const std::string &v : values) {
            for (const Writer &w : writers)
                EXPECT_EXIT(w.call(v.c_str()), ExitedWithCode(1), w.message) << v;
        }
        EXPECT_EQ(tree_snapshot(sandbox_root()), before);
    }
    std::string before;
};

} // namespace

TEST_F(ValueCheckDeathTest, PathComponentRule)
{
    std::string longest(VALUE_MAX_NAME + 1, 'e'), label(60, 'e');
    std::string long_domain = label + "." + label + "." + label + "." + label + ".evil.example";
    expect_refused(domain_writers(), {"evil/x.example", ".", "evil\x01.example", "evil\n.example", long_domain});
    expect_refused(mail_name_writers(), {"info/../../../evil", "..", "evil\r", "evil\x7f", longest});
    EXPECT_EQ(write_mbox_quota("example.com", "info/../../../evil", 5), 0);
    EXPECT_EQ(write_mbox_quota("evil/x", nullptr, 5), 0);
    EXPECT_EQ(remove_mbox_quota("example.com", ".."), 0);
    EXPECT_EQ(tree_snapshot(sandbox_root()), before);
}

TEST_F(ValueCheckDeathTest, ColonRecordAndLookupRules)
{
    expect_refused(domain_writers(), {"evil:1.example", "evil'.example", "evil\\.example"});
    expect_refused(mail_name_writers(), {"evil:0:0:/root:::", "evil:x"});
    std::vector<Writer> hash_writers = {
        {[](const char *h) { add_pop3_password("info", "example.com", h, 0, 0); }, BAD},
        {[](const char *h) { add_postbox("info", "example.com", h, 0, 0); }, BAD},
    };
    expect_refused(hash_writers, {"$1$evil:0:0", "evil\n", "evil hash", "evil;x"});
}

TEST_F(ValueCheckDeathTest, AddressAndLineRules)
{
    std::vector<Writer> address_writers = {
        {[](const char *a) { add_forward_address("info", "example.com", a); },
         "idn_email_toascii\\(\\) failed: "},
        {[](const char *a) { set_catch_all("example.com", a); }, "idn_email_toascii_safe\\(.*\\) failed: "},
    };
    expect_refused(address_writers, {"|evil@x.example", "/evil@x.example", "&evil@x.example", "#evil@x.example",
                                     "evil@x.example\n|/bin/sh", "evil@x.example\r", "evil@", "a@evil@x"});
    std::vector<Writer> line_writers = {
        {[](const char *l) { add_bounce("example.com", l); }, "add_bounce: empty domain"},
    };
    expect_refused(line_writers, {"|bouncesaying x\n|evil", "&a@example.org\r"});
}

/* qmail runs a delivery line that begins with "|" as "sh -c" of the rest:
 * whatever the bounce text, the shell runs bouncesaying alone, with the
 * text (its line breaks turned into spaces) as its one argument. */
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
                             "* ? [a-z] ~ {a,b} !x a=b", " lead\ttab # not a comment", "ü\x01\x7f%"}) {
        set_bounce_message("example.com", text.c_str());
        std::string line = read_file(mailnames_path("example.com/.qmail-default"));
        ASSERT_EQ(line.find('\n'), line.size() - 1) << text;
        ASSERT_EQ(line.rfind("|bouncesaying ", 0), 0u) << line;
        write_file(scratch + "/../command", line.substr(1));
        unlink((bin + "/bouncesaying.calls").c_str());
        CommandResult r = run_command("cd '" + scratch + "' && PATH='" + bin + "':$PATH sh -c \"$(cat ../command)\"");
        EXPECT_EQ(r.status, 0) << text << r.err;
        for (char &c : text)
            if (c == '\n' || c == '\r')
                c = ' ';
        EXPECT_EQ(read_calls(bin + "/bouncesaying"), std::vector<std::vector<std::string>>{{text}}) << line;
        EXPECT_EQ(tree_snapshot(scratch), "") << "side effect of " << line;
    }
}
