/* apply_edit - the apply table's body of file_str's edit (see fs/effect).
 *
 * The file is read whole, edited in memory by line_edit_apply(), and
 * written back: appends in place, everything else as "<path>.tmp" renamed
 * over the file; its owner, group and mode are then put back.  Only
 * restore/apply_effects names it: the file layer reaches the edit through
 * the table it was handed, never directly.
 */
#pragma once

struct PathAt;

/* apply_edit - stat, edit, owner and mode put back on the file reached
 * through at; 0 or 1, the lock stays with the caller */
int apply_edit(PathAt *at, const char *const *lines, int operation, int mode);
