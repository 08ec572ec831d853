/* Tests of the rules for panel values and of bounce texts in the shell. */
#include "mailconf/nonexist_policy.h"
#include "mailconf/value_check.h"
#include "restore/apply_effects.h"
#include "runtime/config.h"
#include "support/sandbox.h"
#include "support/snapshot.h"

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

/* qmail runs a delivery line that begins with "|" as "sh -c" of the rest:
 * whatever the bounce text, the shell runs bouncesaying alone, with the
 * text (its newlines turned into spaces) as its one argument. */
TEST(ValueCheck, BounceTextsRunOnlyBouncesaying)
{
    REQUIRE_SANDBOX();
    load_panel_config();
    ASSERT_EQ(run_command("mkdir -p \"$REBOX_SANDBOX/qmail/mailnames/example.com\"").status, 0);
    std::string bin = sandbox_path("bin"), scratch = sandbox_path("scratch");
    mkdir(bin.c_str(), 0755);
    mkdir(scratch.c_str(), 0755);
    write_recording_stub(bin + "/bouncesaying", 0);
    PopuserIds ids;
    ASSERT_TRUE(popuser_lookup(&ids));
    MailDomain d = {&APPLY_EFFECTS, "example.com", "example.com", "1", ids.uid, ids.gid, nullptr};
    for (std::string text : {"$(touch pwned)", "`touch pwned`", "x; touch pwned", "x | touch pwned",
                             "x && touch pwned", "x > pwned", "' ; touch pwned ; '", "\" ; touch pwned \"",
                             "x\ntouch pwned", "x\r\ntouch pwned", "x\\\ntouch pwned", "$HOME ${IFS} $((1+1))",
                             "* ? [a-z] ~ {a,b} !x a=b", " lead\ttab # not a comment", "ü\x01\x7f%", "typed\r"}) {
        set_bounce_message(&d, text.c_str());
        std::string line = read_file(sandbox_path("qmail/mailnames/example.com/.qmail-default"));
        ASSERT_EQ(line.find('\n'), line.size() - 1) << text;
        ASSERT_EQ(line.rfind("|bouncesaying ", 0), 0u) << line;
        write_file(scratch + "/../command", line.substr(1));
        unlink((bin + "/bouncesaying.calls").c_str());
        CommandResult r = run_command("cd '" + scratch + "' && PATH='" + bin + "':$PATH sh -c \"$(cat ../command)\"");
        EXPECT_EQ(r.status, 0) << text << r.err;
        for (char &c : text)
            if (c == '\n')
                c = ' ';
        EXPECT_EQ(read_calls(bin + "/bouncesaying"), Calls{{text}}) << line;
        EXPECT_EQ(tree_snapshot(scratch), "") << "side effect of " << line;
    }
}
