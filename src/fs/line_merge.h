/* line_merge - one part of a line-oriented file rebuilt, the rest kept.
 *
 * A run that rebuilds only some owners' lines of a shared file (the lines
 * of some mail domains) starts from the file with those lines taken out
 * (line_filter), lets the writers add the owners' lines to that, and
 * settles the result with line_merge: every other line stays where it was,
 * byte for byte; an owner's line the rebuild wrote again stays where it was
 * too; an owner's line it did not write again goes; and the owners' lines
 * that are new go where the writers put them, at the beginning or the end.
 * A rebuild that finds the owners' lines as they should be thus gives back
 * the very same text.  Lines are compared less their newline.
 */
#pragma once

#include "fs/line_edit.h"

/* LineOwner - whether the line of len bytes (no newline) is one of the
 * owners' */
typedef int (*LineOwner)(const char *line, size_t len, const void *arg);

/* line_filter - append to out the lines of text that are not the owners';
 * 0, or -1 when memory runs out */
int line_filter(const TextBuf *text, LineOwner owner, const void *arg, TextBuf *out);
/* line_merge - append to out the text before a rebuild with the owners'
 * lines as rebuilt has them; 0, or -1 when memory runs out */
int line_merge(const TextBuf *before, const TextBuf *rebuilt, LineOwner owner, const void *arg, TextBuf *out);
