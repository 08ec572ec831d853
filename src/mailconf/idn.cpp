/* idn - conversion of domain names, e-mail addresses and URLs between
 * UTF-8 and the ASCII-compatible form, and shell quoting for qmail
 * delivery command lines.
 *
 * All conversions use libidn with flags 0: unassigned code points are
 * refused and the STD3 ASCII rules are not applied.  A failed conversion
 * stores the library's result code in idn_last_error; a successful one
 * leaves it alone.
 */
#include "mailconf/idn.h"

#include "runtime/report.h"

#include <idna.h>
#include <regex.h>
#include <stdlib.h>
#include <string.h>

#include <memory>
#include <stdexcept>

int idn_last_error = 0;

/* One class letter per byte value, sixteen per row. */
const char shell_escape_table[257] =
    "---------*n-----"  /*   0 -  15: tab, newline */
    "----------------"  /*  16 -  31 */
    "*-***-*****-----"  /*  32 -  47: space " # $ & ' ( ) * */
    "-----------**-**"  /*  48 -  63: ; < > ? */
    "----------------"  /*  64 -  79 */
    "-----------**---"  /*  80 -  95: [ \ */
    "*---------------"  /*  96 - 111: ` */
    "------------*-*-"  /* 112 - 127: | ~ */
    "----------------"  /* 128 - 255: copied unchanged */
    "----------------"
    "----------------"
    "----------------"
    "----------------"
    "----------------"
    "----------------"
    "----------------";

static const size_t URL_BUF_SIZE = 4096;
static const char URL_PATTERN[] = "^(ftp://|https?://)?([^@]+@)?([^/:]+)(.*)?$";

/* free_deleter - lets a unique_ptr own a malloc()ed text */
struct free_deleter {
    void operator()(char *p) const { free(p); }
};

/* The texts of the library's result codes. */
static const struct {
    int code;
    const char *text;
} IDN_ERRORS[] = {
    {IDNA_SUCCESS, "Success"},
    {IDNA_STRINGPREP_ERROR, "Stringprep error"},
    {IDNA_PUNYCODE_ERROR, "Punycode error"},
    {IDNA_CONTAINS_NON_LDH, "Contains non-LDH characters"},
    {IDNA_CONTAINS_MINUS, "Contains minus"},
    {IDNA_INVALID_LENGTH, "Invalid length"},
    {IDNA_NO_ACE_PREFIX, "ACE prefix not found"},
    {IDNA_ROUNDTRIP_VERIFY_ERROR, "Verify error"},
    {IDNA_CONTAINS_ACE_PREFIX, "ACE prefix found"},
    {IDNA_ICONV_ERROR, "Iconv error"},
    {IDNA_MALLOC_ERROR, "Cannot allocate buffer"},
};

const char *idn_error_text(int code)
{
    for (const auto &e : IDN_ERRORS)
        if (e.code == code)
            return e.text;
    return "Unknown error";
}

/* idn_toascii - one ToASCII conversion; null with the code kept on failure */
char *idn_toascii(const char *name)
{
    char *out = nullptr;
    int rc = idna_to_ascii_8z(name, &out, 0);

    if (rc == IDNA_SUCCESS)
        return out;
    if (rc == IDNA_MALLOC_ERROR)
        report(1, "Allocation failed");
    idn_last_error = rc;
    free(out);
    return nullptr;
}

/* checked - out, or the end of the process with member's message about
 * text when the conversion failed */
static char *checked(char *out, const char *member, const char *text)
{
    if (out == nullptr)
        report_plain(1, "%s(%s) failed: %s", member, text, idn_error_text(idn_last_error));
    return out;
}

char *idn_toascii_safe(const char *name)
{
    return checked(idn_toascii(name), "idn_toascii_safe", name);
}

/* idn_toutf8 - ToUnicode; the library's output is returned as it is, so a
 * failed conversion may still hand back a text (usually the input) */
char *idn_toutf8(const char *name)
{
    char *out = nullptr;
    int rc = idna_to_unicode_8z8z(name, &out, 0);

    if (rc == IDNA_MALLOC_ERROR)
        report(1, "Allocation failed");
    if (rc != IDNA_SUCCESS)
        idn_last_error = rc;
    return out;
}

char *idn_toutf8_safe(const char *name)
{
    return checked(idn_toutf8(name), "idn_toutf8_safe", name);
}

/* idn_email_toascii - the domain after the first '@' in ASCII form; the
 * local part is kept byte for byte.  Null without '@' (code untouched) or
 * when the domain does not convert. */
char *idn_email_toascii(const char *address)
{
    const char *at = strchr(address, '@');

    if (at == nullptr)
        return nullptr;
    char *domain = idn_toascii(at + 1);
    if (domain == nullptr)
        return nullptr;
    char *result = xasprintf("%.*s@%s", static_cast<int>(at - address), address, domain);
    free(domain);
    return result;
}

char *idn_email_toascii_safe(const char *address)
{
    return checked(idn_email_toascii(address), "idn_email_toascii_safe", address);
}

/* match_length - length of a sub-match, 0 when the group did not match */
static size_t match_length(const regmatch_t &m)
{
    return m.rm_so < 0 ? 0 : static_cast<size_t>(m.rm_eo - m.rm_so);
}

/* append_match - copy a matched group of text to buf at *used */
static void append_match(char *buf, size_t *used, const char *text, const regmatch_t &m)
{
    size_t len = match_length(m);

    if (len > 0)
        memcpy(buf + *used, text + m.rm_so, len);
    *used += len;
}

/* idn_url_toascii - the URL with its host in ASCII form, in a static buffer.
 * A URL whose host, or whose converted whole, does not fit the 4096-byte
 * buffer is refused with a warning and null rather than cut short: a cut
 * URL would point somewhere else without anybody noticing. */
const char *idn_url_toascii(const char *url)
{
    static char result[URL_BUF_SIZE];
    regex_t re;
    regmatch_t m[5];
    char errbuf[URL_BUF_SIZE];
    int rc = regcomp(&re, URL_PATTERN, REG_EXTENDED);

    if (rc != 0) {
        regerror(rc, &re, errbuf, sizeof(errbuf));
        report_plain(1, "regcomp() failed: %s", errbuf);
    }
    rc = regexec(&re, url, 5, m, 0);
    if (rc != 0) {
        regerror(rc, &re, errbuf, sizeof(errbuf));
        regfree(&re);
        report_plain(0, "regexec() failed: %s", errbuf);
        return nullptr;
    }
    regfree(&re);

    size_t host_len = match_length(m[3]);
    if (host_len >= sizeof(result)) {
        report_plain(0, "idn_url_toascii(): URL too long, over %zu bytes", sizeof(result) - 1);
        return nullptr;
    }
    memcpy(result, url + m[3].rm_so, host_len);
    result[host_len] = '\0';

    char *ascii = idn_toascii(result);
    if (ascii == nullptr) {
        report_plain(0, "idn_toascii() failed: %s", idn_error_text(idn_last_error));
        return nullptr;
    }

    size_t scheme_len = match_length(m[1]), user_len = match_length(m[2]);
    size_t rest_len = match_length(m[4]), ascii_len = strlen(ascii);
    if (scheme_len + user_len + ascii_len + rest_len >= sizeof(result)) {
        free(ascii);
        report_plain(0, "idn_url_toascii(): URL too long, over %zu bytes", sizeof(result) - 1);
        return nullptr;
    }
    size_t used = 0;
    append_match(result, &used, url, m[1]);
    append_match(result, &used, url, m[2]);
    memcpy(result + used, ascii, ascii_len);
    used += ascii_len;
    append_match(result, &used, url, m[4]);
    result[used] = '\0';
    free(ascii);
    return result;
}

std::string idn_toascii_string(const char *name)
{
    std::unique_ptr<char, free_deleter> out(idn_toascii_safe(name));
    return std::string(out.get());
}

std::string idn_toutf8_string(const char *name)
{
    std::unique_ptr<char, free_deleter> out(idn_toutf8_safe(name));
    return std::string(out.get());
}

/* shell_escape - quote text for a shell command line: a backslash before
 * every byte of class '*', a newline wrapped in single quotes */
std::string shell_escape(const std::string &text)
{
    std::string out;

    out.reserve(text.size() + text.size() / 4);
    for (char c : text) {
        switch (shell_escape_table[static_cast<unsigned char>(c)]) {
        case '*':
            out += '\\';
            out += c;
            break;
        case 'n':
            out += '\'';
            out += c;
            out += '\'';
            break;
        default:
            out += c;
            break;
        }
    }
    return out;
}

/* shell_check_plain - throws when the text holds a byte that would need
 * quoting; the only exception this program raises */
void shell_check_plain(const std::string &text)
{
    for (char c : text) {
        char cls = shell_escape_table[static_cast<unsigned char>(c)];
        if (cls == '*' || cls == 'n')
            throw std::runtime_error("Internal error: bad escape_chars value");
    }
}
