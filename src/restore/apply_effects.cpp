/* apply_effects - the table of effects that makes a run's changes (see
 * apply_effects.h). */
#include "restore/apply_effects.h"

#include "fs/file_lock.h"
#include "fs/file_str.h"
#include "fs/path_at.h"
#include "fs/replace_file.h"
#include "fs/tree.h"
#include "proc/exec.h"
#include "proc/send_sig.h"

/* apply_login_hash - a login is written with the run's hash */
static const char *apply_login_hash(const char *home, const char *plain, const char *hash)
{
    (void)home;
    (void)plain;
    return hash;
}

/* apply_panel_has, apply_dir_done - a restore leaves what the panel does
 * not have where it is */
static void apply_panel_has(const char *path)
{
    (void)path;
}

static void apply_dir_done(const char *dir)
{
    (void)dir;
}

const Effects APPLY_EFFECTS = {
    .make_dir = apply_make_dir,
    .owner_mode = apply_owner_mode,
    .set_aside = apply_set_aside,
    .replace_prepare = apply_replace_prepare,
    .replace_commit = apply_replace_commit,
    .edit = apply_edit,
    .remove = apply_remove,
    .move = apply_move,
    .remove_dir = apply_remove_dir,
    .drop_leftover = replace_file_abort,
    .lock = file_lock,
    .missing_dir = apply_missing_dir,
    .signal = kill_by_name,
    .run_util = admin_util_execv,
    .login_hash = apply_login_hash,
    .panel_has = apply_panel_has,
    .dir_done = apply_dir_done,
};
