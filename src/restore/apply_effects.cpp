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
};
