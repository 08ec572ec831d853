/* value_check - rules for panel values used in paths, lines and records.
 *
 * A path component (an ASCII domain or alias name, a mail name, a mail
 * alias) must name one entry of one directory: not empty, not "." or "..",
 * no "/", no control bytes, at most VALUE_MAX_NAME bytes so that no path
 * buffer ever cuts it.  A value written into a line of a qmail file must not
 * break the line; one written into a colon-separated record must not add a
 * field either.  A forward address must not turn a delivery line into a
 * program, file or special instruction, and must be an address.  A stored
 * password hash must look like one.
 */
#include "mailconf/value_check.h"

#include <string.h>

/* Null values have nothing to check here: the writers refuse them first. */

const char *check_line_value(const char *value)
{
    if (value == nullptr)
        return "the value is missing";
    if (strpbrk(value, "\r\n") != nullptr)
        return "a value must not contain a line break";
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
