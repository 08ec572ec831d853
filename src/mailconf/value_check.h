/* value_check - tests of panel values before they reach a file or a path.
 *
 * Names, addresses and hashes come from the panel's customers and are
 * written by a program running as root.  Each check_ function takes a value
 * as it is about to be used and returns null when it is safe for that use,
 * or a short text naming the rule it breaks (for the caller's message).
 * value_printable() renders any value harmless for a message.
 */
#pragma once

#include <stddef.h>

/* Longest accepted path component and line value, in bytes. */
#define VALUE_MAX_NAME 255
#define VALUE_MAX_LINE 1000
/* Room for a value rendered by value_printable, cut if longer. */
#define VALUE_PRINTABLE_SIZE 160

const char *check_path_component(const char *value);
const char *check_line_breaks(const char *value);
const char *check_line_value(const char *value);
const char *check_record_value(const char *value);
const char *check_forward_address(const char *address);
const char *check_crypt_hash(const char *hash);

const char *check_domain_ascii(const char *ascii);
const char *check_domain_name(const char *name);
const char *check_mail_name(const char *name);
const char *check_address(const char *address);
const char *check_no_nul(const char *value, unsigned long length);

const char *value_printable(const char *value, char *buf, size_t size);
