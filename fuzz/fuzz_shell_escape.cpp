/* fuzz_shell_escape - quoted text must come back whole through the shell.
 *
 * shell_escape quotes text that goes into a qmail delivery command line,
 * which /bin/sh reads.  The input (up to its first zero byte: callers hand
 * over C strings) is quoted, and the quoted text is read back by a model of
 * how a POSIX shell cuts a command line into words; it must give exactly
 * one word equal to the input (none for the empty input).  The model
 * refuses everything that would make the shell do more than quote removal
 * and word splitting, so an unquoted byte that the shell would treat as an
 * operator, an expansion, a pattern, a comment or a tilde shows up as a
 * failure.
 */
#include "mailconf/idn.h"

#include "fuzz_check.h"

#include <stdint.h>
#include <string.h>

#include <string>
#include <vector>

/* sh_words - the words of a command line, or false and why not */
static bool sh_words(const std::string &line, std::vector<std::string> &words, std::string &why)
{
    std::string word;
    bool in_word = false;

    for (size_t i = 0; i < line.size(); i++) {
        char c = line[i];
        if (c == ' ' || c == '\t' || c == '\n') {
            if (in_word)
                words.push_back(word);
            word.clear();
            in_word = false;
            continue;
        }
        if (c == '\\') {
            if (i + 1 == line.size()) {
                why = "backslash at the end";
                return false;
            }
            if (line[i + 1] != '\n') {
                word += line[i + 1];
                in_word = true;
            }
            i++;
            continue;
        }
        if (c == '\'') {
            size_t close = line.find('\'', i + 1);
            if (close == std::string::npos) {
                why = "unterminated single quote";
                return false;
            }
            word += line.substr(i + 1, close - i - 1);
            in_word = true;
            i = close;
            continue;
        }
        if (strchr("|&;<>()$`\"*?[", c) || ((c == '#' || c == '~') && !in_word)) {
            why = std::string("unquoted '") + c + "' at " + std::to_string(i);
            return false;
        }
        word += c;
        in_word = true;
    }
    if (in_word)
        words.push_back(word);
    return true;
}

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    fuzz_diag_init();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const void *nul = memchr(data, 0, size);
    std::string text(reinterpret_cast<const char *>(data),
                     nul ? static_cast<size_t>(static_cast<const uint8_t *>(nul) - data) : size);
    std::string quoted = shell_escape(text);

    size_t escaped = 0, newlines = 0;
    for (char c : text) {
        char cls = shell_escape_table[static_cast<unsigned char>(c)];
        escaped += cls == '*';
        newlines += cls == 'n';
    }
    FUZZ_CHECK(quoted.size() == text.size() + escaped + 2 * newlines,
               "length %zu for %zu bytes, %zu escaped, %zu newlines", quoted.size(), text.size(),
               escaped, newlines);

    std::vector<std::string> words;
    std::string why;
    FUZZ_CHECK(sh_words(quoted, words, why), "the shell would not just read [%s]: %s", quoted.c_str(),
               why.c_str());
    std::vector<std::string> want;
    if (!text.empty())
        want.push_back(text);
    FUZZ_CHECK(words == want, "[%s] reads back as %zu words, the first [%s]", quoted.c_str(),
               words.size(), words.empty() ? "" : words[0].c_str());
    return 0;
}
