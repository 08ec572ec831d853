/* idn - internationalised domain names, e-mail addresses and URLs.
 *
 * Converts domain names between UTF-8 and their ASCII-compatible form with
 * GNU libidn, keeps the last failed result code in idn_last_error and turns
 * codes into texts with idn_error_text.  Also offers shell_escape, the
 * quoting used for text placed in a qmail delivery command line, and
 * shell_check_plain, which refuses text that would need such quoting.
 *
 * The char * results are the caller's to free(); idn_url_toascii returns a
 * static buffer overwritten by the next call.
 */
#pragma once

#include <string>

/* idn_last_error - result code of the last failed conversion, 0 at start */
extern int idn_last_error;

/* shell_escape_table - one class letter per byte value: '*' escape with a
 * backslash, 'n' newline (wrapped in single quotes), '-' copied as is */
extern const char shell_escape_table[257];

const char *idn_error_text(int code);

char *idn_toascii(const char *name);
char *idn_toascii_safe(const char *name);
char *idn_toutf8(const char *name);
char *idn_toutf8_safe(const char *name);
char *idn_email_toascii(const char *address);
char *idn_email_toascii_safe(const char *address);
const char *idn_url_toascii(const char *url);

std::string idn_toascii_string(const char *name);
std::string idn_toutf8_string(const char *name);

std::string shell_escape(const std::string &text);
void shell_check_plain(const std::string &text);
