/* Tests of the POP3 password lines in users/poppasswd. */
#include "mailconf/pop3.h"
#include "mailconf/writer_env.h"

#include <gtest/gtest.h>

TEST(Pop3Password, LineReplacedWhateverItsLoginFormAndUnwritableFile)
{
    REQUIRE_SANDBOX();
    ASSERT_NO_FATAL_FAILURE(writers_setup());
    std::string idn = ":popuser:" + mailnames_path("xn--bcher-kva.de/info") + "\n";
    std::string com = ":popuser:" + mailnames_path("com/info") + "\n";
    add_pop3_password("info", "bücher.de", "$1$a", 0, 1);
    add_pop3_password("info", "com", "$1$c", 0, 0);
    EXPECT_EQ(read_file(qmail_path("users/poppasswd")), "info@xn--bcher-kva.de:$1$a" + idn + "info:$1$c" + com);
    add_pop3_password("info", "bücher.de", "$1$b", 1, 0);
    add_pop3_password("info", "com", "$1$d", 0, 0);
    EXPECT_EQ(read_file(qmail_path("users/poppasswd")), "info:!$1$b" + idn + "info:$1$d" + com);
    add_pop3_password("info", "bücher.de", "", 0, 0);
    add_pop3_password("info", "com", nullptr, 0, 0);
    EXPECT_EQ(read_file(qmail_path("users/poppasswd")), "");

    block_file(qmail_path("users/poppasswd"));
    EXPECT_EXIT(add_pop3_password("info", "a.com", "h", 0, 0), testing::ExitedWithCode(1),
                "Unable to add record to poppasswd file");
}
