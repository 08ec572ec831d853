/* apply_effects - the table of effects that makes a run's changes.
 *
 * APPLY_EFFECTS gathers the apply halves of the file layer (directories,
 * owners and modes, setting aside, replacement, in-place edits, removal,
 * leftover temporaries, exclusive named locks) with the signalling of
 * processes by name and the running of the panel's sibling utilities.  The
 * command chooses it for every run that restores and hands it down (see
 * fs/effect).
 *
 * The bodies of its file slots live beside the table, as the check table's
 * live beside that one: the file layer offers only operations that go
 * through the table it is handed, and exports nothing that makes a change
 * behind a table's back.  The edit of a file in place, long enough for a
 * file of its own, is in apply_edit, which only this table names.
 * replace_count() tells how many files the table has replaced.
 */
#pragma once

#include "fs/effect.h"

extern const Effects APPLY_EFFECTS;

/* replace_count - how many files this process has replaced through
 * APPLY_EFFECTS */
unsigned long replace_count(void);
