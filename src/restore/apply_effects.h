/* apply_effects - the table of effects that makes a run's changes.
 *
 * APPLY_EFFECTS gathers the apply halves of the file layer (directories,
 * owners and modes, setting aside, replacement, in-place edits, removal,
 * leftover temporaries, exclusive named locks) with the signalling of
 * processes by name and the running of the panel's sibling utilities.  The
 * command chooses it for every run that restores and hands it down (see
 * fs/effect).
 */
#ifndef REBOX_RESTORE_APPLY_EFFECTS_H
#define REBOX_RESTORE_APPLY_EFFECTS_H

#include "fs/effect.h"

extern const Effects APPLY_EFFECTS;

#endif
