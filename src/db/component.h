/* component - which optional packages the panel records as installed.
 *
 * The Components table holds one row per known package with its version,
 * "not_installed" for a package that is absent.  get_component_version and
 * is_component_installed end the process on a missing, duplicate or NULL
 * record; is_component_installed_noerr answers 0 on every failure.  Each
 * call opens and closes its own database connection.
 */
#pragma once

#include <stddef.h>

void get_component_version(const char *name, char *out, size_t size);
int is_component_installed(const char *name);
int is_component_installed_noerr(const char *name);
