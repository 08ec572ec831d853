/* value_check - tests of panel values before they reach a file or a path.
 *
 * Names, addresses and hashes come from the panel's customers and are
 * written by a program running as root.  Each function takes a value as it
 * is about to be used and returns null when it is safe for that use, or a
 * short text naming the rule it breaks (for the caller's message).
 */
#ifndef REBOX_MAILCONF_VALUE_CHECK_H
#define REBOX_MAILCONF_VALUE_CHECK_H

/* Longest accepted path component and line value, in bytes. */
#define VALUE_MAX_NAME 255
#define VALUE_MAX_LINE 1000

const char *check_path_component(const char *value);
const char *check_line_value(const char *value);
const char *check_record_value(const char *value);
const char *check_forward_address(const char *address);
const char *check_crypt_hash(const char *hash);

#endif
