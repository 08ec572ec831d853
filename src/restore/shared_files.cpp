/* shared_files - qmail's shared files held for the pass (see
 * shared_files.h). */
#include "restore/shared_files.h"

#include "fs/held_file.h"
#include "mailconf/qmail_common.h"
#include "runtime/config.h"
#include "runtime/report.h"

#include <string.h>

/* The shared qmail files, in the order of locking. */
static const char *const SHARED_FILES[] = {
    QMAIL_RCPTHOSTS_FILE, QMAIL_VIRTUALDOMAINS_FILE, QMAIL_ASSIGN_FILE, QMAIL_POPPASSWD_FILE,
    QMAIL_REJECTNONEXIST_FILE,
};

void shared_files_take(const Effects *fx)
{
    char path[4096];

    for (const char *name : SHARED_FILES) {
        qmail_file_path(path, sizeof(path), name);
        if (held_file_take(fx, path, 1) != 0)
            report(1, "Unable to lock %s for the rebuild", path);
    }
    for (const char *name : SHARED_FILES) {
        qmail_file_path(path, sizeof(path), name);
        if (strcmp(name, QMAIL_REJECTNONEXIST_FILE) != 0)
            held_file_reset(path, strcmp(name, QMAIL_ASSIGN_FILE) == 0 ? ".\n" : "");
    }
}

void shared_files_commit(void)
{
    /* Replaced before qmail's user database is rebuilt from them. */
    if (held_files_write() != 0)
        report(1, "Unable to write the rebuilt qmail files");
    held_files_release();
}
