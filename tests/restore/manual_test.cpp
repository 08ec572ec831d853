/* The manual's DIAGNOSTICS section against the program: every message it
 * explains must be one the code can still print. */
#include <gtest/gtest.h>

#include <dirent.h>

#include <fstream>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

namespace {

const std::string TOP = std::string(REBOX_TEST_FIXTURES_DIR) + "/../..";

std::string slurp(const std::string &path)
{
    std::ifstream in(path);
    std::stringstream s;
    s << in.rdbuf();
    return s.str();
}

/* troff_args - the arguments of a macro line, quotes taken off */
std::vector<std::string> troff_args(const std::string &rest)
{
    std::vector<std::string> args;
    for (size_t i = 0; i < rest.size();) {
        while (i < rest.size() && rest[i] == ' ')
            i++;
        if (i >= rest.size())
            break;
        std::string arg;
        if (rest[i] == '"') {
            size_t end = rest.find('"', i + 1);
            arg = rest.substr(i + 1, end - i - 1);
            i = end == std::string::npos ? rest.size() : end + 1;
        } else {
            size_t end = rest.find(' ', i);
            arg = rest.substr(i, end - i);
            i = end == std::string::npos ? rest.size() : end;
        }
        args.push_back(arg);
    }
    return args;
}

/* message_of - the text of a message line of the manual; "\x01" stands
 * for each placeholder (an italic argument or "...") */
std::string message_of(const std::string &line)
{
    size_t space = line.find(' ');
    std::string macro = line.substr(0, space), text;
    std::vector<std::string> args = troff_args(space == std::string::npos ? "" : line.substr(space + 1));
    for (size_t i = 0; i < args.size(); i++) {
        bool italic = (macro == ".BI" && i % 2 == 1) || (macro == ".IB" && i % 2 == 0) || macro == ".I";
        text += italic ? "\x01" : args[i];
        if (macro == ".B" && i + 1 < args.size())
            text += " ";
    }
    for (auto [from, to] : {std::pair<std::string, std::string>{"\\-", "-"}, {"\\(lq", "\""}, {"\\(rq", "\""}, {"\\(dq", "\""},
                            {"\\e", "\\"}, {"\\&", ""}, {"...", "\x01"}})
        for (size_t at; (at = text.find(from)) != std::string::npos;)
            text.replace(at, from.size(), to);
    return text;
}

/* code_patterns - every string literal of the sources (adjacent ones
 * joined) as a pattern: each printf conversion matches any text */
std::vector<std::regex> code_patterns(void)
{
    std::vector<std::regex> out;
    std::vector<std::string> dirs = {TOP + "/src"};
    for (size_t d = 0; d < dirs.size(); d++) {
        DIR *dir = opendir(dirs[d].c_str());
        for (dirent *e; dir && (e = readdir(dir));) {
            std::string name = e->d_name, path = dirs[d] + "/" + name;
            if (name[0] == '.')
                continue;
            if (e->d_type == DT_DIR) {
                dirs.push_back(path);
                continue;
            }
            std::string src = slurp(path), literal;
            bool joining = false;
            for (size_t i = 0; i < src.size(); i++) {
                if (src[i] == '"' && (i == 0 || src[i - 1] != '\'')) {
                    size_t j = i + 1;
                    for (; j < src.size() && src[j] != '"'; j++)
                        if (src[j] == '\\')
                            literal += src[++j] == 'n' ? '\n' : src[j];
                        else
                            literal += src[j];
                    i = j;
                    joining = true;
                } else if (joining && !isspace(static_cast<unsigned char>(src[i]))) {
                    std::string re;
                    for (size_t k = 0; k < literal.size(); k++) {
                        if (literal[k] == '%' && k + 1 < literal.size() && literal[k + 1] != '%') {
                            size_t end = literal.find_first_of("sdiuxc", k + 1);
                            k = end == std::string::npos ? literal.size() : end;
                            re += ".*";
                        } else if (literal[k] != '\n') {
                            re += std::string(strchr(".^$|()[]{}*+?\\", literal[k]) && literal[k] ? "\\" : "") + literal[k];
                        }
                    }
                    /* A literal that is little but conversions ("%s\n")
                     * would match any text. */
                    size_t letters = 0;
                    for (size_t k = 0; k < re.size(); k++)
                        letters += isalpha(static_cast<unsigned char>(re[k])) && (k == 0 || re[k - 1] != '\\');
                    if (letters >= 8)
                        out.emplace_back(re);
                    literal.clear();
                    joining = false;
                }
            }
        }
        if (dir)
            closedir(dir);
    }
    return out;
}

} // namespace

TEST(Manual, EveryDiagnosticIsAMessageOfTheCode)
{
    std::string manual = slurp(TOP + "/docs/rebox.8");
    size_t from = manual.find("\n.SH DIAGNOSTICS"), to = manual.find("\n.SH ", from + 1);
    ASSERT_NE(from, std::string::npos);
    std::istringstream section(manual.substr(from, to - from));
    std::vector<std::regex> code = code_patterns();
    ASSERT_GT(code.size(), 500u);
    int entries = 0;
    bool next_is_message = false;
    for (std::string line; std::getline(section, line);) {
        if (line == ".TP" || line == ".TQ") {
            next_is_message = true;
            continue;
        }
        if (!next_is_message)
            continue;
        next_is_message = false;
        std::string text = message_of(line), sample = text;
        for (char &c : sample)
            if (c == '\x01')
                c = 'X';
        bool found = false;
        for (const std::regex &re : code)
            if ((found = std::regex_match(sample, re)))
                break;
        EXPECT_TRUE(found) << "the manual explains a message the code does not print: " << line;
        entries++;
    }
    EXPECT_GT(entries, 20);
}
