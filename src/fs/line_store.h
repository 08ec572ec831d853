/* line_store - a line-oriented file held in memory for many edits.
 *
 * line_store_apply() edits the held text exactly as line_edit_apply() would
 * edit it, piece for piece, but in time proportional to the edit rather
 * than to the whole text: exact removals and suffix removals of path
 * endings go through indexes, additions at either end touch only the end.
 * Other rules (prefix and substring removals, suffixes of other shapes)
 * walk the pieces once.  line_store_text() gives the whole text back.
 */
#ifndef REBOX_FS_LINE_STORE_H
#define REBOX_FS_LINE_STORE_H

#include "fs/line_edit.h"

#include <stddef.h>

struct LineStore;

LineStore *line_store_new(const char *text, size_t len);
void line_store_free(LineStore *store);
/* line_store_apply - as line_edit_apply: the number of pieces removed, or
 * -1 when memory runs out */
int line_store_apply(LineStore *store, const char *const *entries, int operation, int mode);
int line_store_text(const LineStore *store, TextBuf *out);

#endif
