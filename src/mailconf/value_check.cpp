/* value_check - rules for panel values used in paths, lines and records.
 *
 * A path component (an ASCII domain or alias name, a mail name, a mail
 * alias) must name one entry of one directory: not empty, not "." or "..",
 * no "/", no control bytes, at most VALUE_MAX_NAME bytes so that no path
 * buffer ever cuts it.  A value written into a line of a qmail file must not
 * break the line; one written into a colon-separated record must not add a
 * field either.  A forward address must not turn a delivery line into a
 * program, file or special instruction, and must be an address.  A stored
 * password hash must look like one.  Domain and mail names combine these
 * rules for every place they stand in: a directory, a record, a line, and
 * (domain names) a database lookup by name.
 */
#include "mailconf/value_check.h"

#include "mailconf/idn.h"

#include <stdio.h>
#include <stdlib.h>
#include <string.h>

/* check_line_breaks - the line rule alone, for a line built in memory
 * without a length limit (the bounce line of .qmail-default) */
const char *check_line_breaks(const char *value)
{
    if (value == nullptr)
        return "the value is missing";
    if (strpbrk(value, "\r\n") != nullptr)
        return "a value must not contain a line break";
    return nullptr;
}

/* check_line_value - the line rule, and a length that no record buffer
 * ever cuts */
const char *check_line_value(const char *value)
{
    if (const char *why = check_line_breaks(value))
        return why;
    if (strlen(value) > VALUE_MAX_LINE)
        return "the value is too long";
    return nullptr;
}

const char *check_record_value(const char *value)
{
    if (const char *why = check_line_value(value))
        return why;
    if (strchr(value, ':') != nullptr)
        return "a value must not contain \":\"";
    return nullptr;
}

const char *check_path_component(const char *value)
{
    if (value == nullptr || *value == 0)
        return "a name must not be empty";
    if (strcmp(value, ".") == 0 || strcmp(value, "..") == 0)
        return "a name must not be \".\" or \"..\"";
    if (strchr(value, '/') != nullptr)
        return "a name must not contain \"/\"";
    for (const unsigned char *p = reinterpret_cast<const unsigned char *>(value); *p; p++)
        if (*p < 0x20 || *p == 0x7f)
            return "a name must not contain control characters";
    if (strlen(value) > VALUE_MAX_NAME)
        return "the name is too long";
    return nullptr;
}

const char *check_forward_address(const char *address)
{
    if (const char *why = check_line_value(address))
        return why;
    if (strchr("|/&#", address[0]) != nullptr && address[0] != 0)
        return "an address must not begin with \"|\", \"/\", \"&\" or \"#\"";
    const char *at = strchr(address, '@');
    if (at == nullptr || strchr(at + 1, '@') != nullptr)
        return "an address must hold exactly one \"@\"";
    if (at[1] == 0)
        return "an address needs a domain after \"@\"";
    return nullptr;
}

const char *check_crypt_hash(const char *hash)
{
    static const char allowed[] =
        "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789./$=,_-*!";

    if (hash == nullptr)
        return "the password hash is missing";
    if (hash[strspn(hash, allowed)] != 0)
        return "a password hash holds only the characters of crypt(3)";
    if (strlen(hash) > VALUE_MAX_LINE)
        return "the password hash is too long";
    return nullptr;
}

/* check_domain_ascii - a domain or alias name in ASCII form: a directory
 * name, a field of control/virtualdomains, and a value that the database
 * lookup by name puts between quotes (it refuses quotes and backslashes
 * by ending the process, so they are refused here first) */
const char *check_domain_ascii(const char *ascii)
{
    if (const char *why = check_path_component(ascii))
        return why;
    if (const char *why = check_record_value(ascii))
        return why;
    if (strpbrk(ascii, "'\"\\") != nullptr)
        return "a domain name must not contain a quote or a backslash";
    return nullptr;
}

/* check_domain_name - a domain or alias name as stored: it converts to
 * ASCII, and the ASCII form passes check_domain_ascii */
const char *check_domain_name(const char *name)
{
    if (name == nullptr || *name == 0)
        return "a name must not be empty";
    char *ascii = idn_toascii(name);
    if (ascii == nullptr)
        return "the name does not convert to ASCII";
    const char *why = check_domain_ascii(ascii);
    free(ascii);
    return why;
}

/* check_mail_name - a mailbox or mail alias name: a directory name, a field
 * of users/assign and users/poppasswd, beginning with an ASCII letter or
 * digit, '_' or '-' */
const char *check_mail_name(const char *name)
{
    if (const char *why = check_path_component(name))
        return why;
    unsigned char c = static_cast<unsigned char>(name[0]);
    if (!((c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_'
          || c == '-'))
        return "a mail name must begin with a letter, a digit, \"_\" or \"-\"";
    return check_record_value(name);
}

/* check_address - a forward or catch-all address as stored: it converts
 * (its domain part to ASCII), and the converted form passes
 * check_forward_address */
const char *check_address(const char *address)
{
    if (address == nullptr)
        return "the address is missing";
    char *converted = idn_email_toascii(address);
    if (converted == nullptr)
        return "the address does not convert to ASCII";
    const char *why = check_forward_address(converted);
    free(converted);
    return why;
}

/* check_no_nul - a database value of length bytes whose text ends sooner
 * holds a NUL byte, which would cut it short in every line it is put in */
const char *check_no_nul(const char *value, unsigned long length)
{
    if (value != nullptr && strlen(value) != length)
        return "a value must not contain a NUL byte";
    return nullptr;
}

/* value_printable - value with every control byte and backslash written as
 * \xNN, cut with "..." to fit buf; "(null)" for null */
const char *value_printable(const char *value, char *buf, size_t size)
{
    size_t used = 0;

    if (size == 0)
        return buf;
    buf[0] = 0;
    if (value == nullptr)
        value = "(null)";
    for (const unsigned char *p = reinterpret_cast<const unsigned char *>(value); *p; p++) {
        char piece[8];
        int n = (*p < 0x20 || *p == 0x7f || *p == '\\')
                    ? snprintf(piece, sizeof(piece), "\\x%02x", *p)
                    : snprintf(piece, sizeof(piece), "%c", *p);
        if (used + n + 4 > size) {
            snprintf(buf + used, size - used, "...");
            return buf;
        }
        memcpy(buf + used, piece, n + 1);
        used += n;
    }
    return buf;
}
