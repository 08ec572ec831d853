/* check_effects - the table of effects of a check run.
 *
 * CHECK_EFFECTS compares what a run would change with the disk and
 * reports the difference through check_report instead of changing
 * anything: a directory that is missing or of another kind, an owner or
 * mode that differs, a foreign object, a file whose content differs (a
 * unified diff for the shared files, flushed to the disk when replaced),
 * a file the panel no longer has, a directory on disk that names no
 * domain or mailbox of the panel.  It remembers what it needs for that
 * itself: the directories the panel has, and users/poppasswd's hashes,
 * whose salts plain passwords are hashed with (once each), so that one
 * that still verifies against its hash on disk is not reported as changed
 * for the run's new salt; a mailbox the disk has no login for is hashed
 * not at all.  Below a directory that is not there the walk goes on absent
 * (fs/path_at), where nothing is looked up, and nothing below it is
 * reported again.  Locks are taken shared and only where their lock files
 * exist; no process is signalled, no program run, nothing removed, made or
 * written: undo paths have nothing to take back.
 */
#pragma once

#include "fs/effect.h"

extern const Effects CHECK_EFFECTS;
