/* The manual's DIAGNOSTICS section against the program: every message it
 * explains must be one the code can still print. */
#include "support/sandbox.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

/* message_of - the text of a message line of the manual ("\x01" for each
 * placeholder: an italic argument or "...") */
static std::string message_of(const std::string &line)
{
    std::string macro = line.substr(0, line.find(' ')), text;
    std::smatch m;
    int i = 0;
    for (std::string rest = line.substr(macro.size()); std::regex_search(rest, m, std::regex(" *(\"[^\"]*\"|[^ ]+)"));
         rest = m.suffix(), i++) {
        std::string arg = m[1].str()[0] == '"' ? m[1].str().substr(1, m[1].length() - 2) : m[1].str();
        bool italic = macro == ".I" || (macro == ".BI" && i % 2) || (macro == ".IB" && !(i % 2));
        text += italic ? "\x01" : (macro == ".B" && i ? " " : "") + arg;
    }
    for (auto [from, to] : {std::pair<std::string, std::string>{"\\-", "-"}, {"\\(lq", "\""}, {"\\(rq", "\""},
                            {"\\(dq", "\""}, {"\\e", "\\"}, {"\\&", ""}, {"...", "\x01"}})
        for (size_t at; (at = text.find(from)) != std::string::npos;)
            text.replace(at, from.size(), to);
    return text;
}

TEST(Manual, EveryDiagnosticIsAMessageOfTheCode)
{
    std::string top = std::string(REBOX_TEST_FIXTURES_DIR) + "/../..";
    /* Every string literal of the sources (adjacent ones joined) as a
     * pattern in which a conversion ("%s", "%d") stands for any text; one
     * that is little but conversions would match anything and is left
     * out. */
    std::string code = run_command("cat $(find '" + top + "/src' -name '*.cpp' -o -name '*.h')").out;
    code = std::regex_replace(code, std::regex("\"\\s*\n\\s*\""), "");
    std::vector<std::regex> messages;
    const std::regex literal("\"((?:[^\"\\\\\n]|\\\\.)*)\""), conversion("%[-.*0-9lz]*[sdiuxc]"),
        special("[.^$|()\\[\\]{}*+?\\\\]");
    for (std::sregex_iterator it(code.begin(), code.end(), literal), end; it != end; ++it) {
        std::string text = std::regex_replace((*it)[1].str(), std::regex("\\\\n|\\\\(.)"), "$1");
        std::string re = std::regex_replace(std::regex_replace(text, special, "\\$&"), conversion, ".*");
        if (std::count_if(text.begin(), text.end(), isalpha) >= 8)
            messages.emplace_back(re);
    }
    ASSERT_GT(messages.size(), 300u);
    std::string manual = read_file(top + "/docs/rebox.8");
    size_t from = manual.find("\n.SH DIAGNOSTICS"), to = manual.find("\n.SH ", from + 1);
    ASSERT_NE(from, std::string::npos);
    std::istringstream section(manual.substr(from, to - from));
    int entries = 0;
    for (std::string line, last; std::getline(section, line); last = line) {
        if (last != ".TP" && last != ".TQ")
            continue;
        entries++;
        std::string sample = std::regex_replace(message_of(line), std::regex("\x01"), "X");
        EXPECT_TRUE(std::any_of(messages.begin(), messages.end(), [&](const std::regex &re) {
            return std::regex_match(sample, re);
        })) << "the manual explains a message the code does not print: " << line;
    }
    EXPECT_GT(entries, 20);
}
