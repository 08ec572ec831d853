/* shared_files - qmail's shared files held for the pass (see
 * shared_files.h). */
#include "restore/shared_files.h"

#include "fs/held_file.h"
#include "runtime/config.h"
#include "runtime/report.h"

#include <stdio.h>
#include <string.h>

/* The shared qmail files, in the order of locking. */
static const char *const SHARED_FILES[] = {
    "/control/rcpthosts", "/control/virtualdomains", "/users/assign", "/users/poppasswd",
    "/control/rejectnonexist",
};

void shared_files_take(const Effects *fx)
{
    char path[4096];

    for (const char *name : SHARED_FILES) {
        snprintf(path, sizeof(path), "%s%s", panel_config.QMAIL_ROOT_D, name);
        if (held_file_take(fx, path, 1) != 0)
            report(1, "Unable to lock %s for the rebuild", path);
    }
    for (const char *name : SHARED_FILES) {
        snprintf(path, sizeof(path), "%s%s", panel_config.QMAIL_ROOT_D, name);
        if (strcmp(name, "/control/rejectnonexist") != 0)
            held_file_reset(path, strcmp(name, "/users/assign") == 0 ? ".\n" : "");
    }
}

void shared_files_commit(void)
{
    /* Replaced before qmail's user database is rebuilt from them. */
    if (held_files_write() != 0)
        report(1, "Unable to write the rebuilt qmail files");
    held_files_release();
}
