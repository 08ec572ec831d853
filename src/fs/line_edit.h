/* line_edit - the editing rules of line-oriented text files, in memory.
 *
 * line_edit_apply() takes a whole file's text and a null-terminated list of
 * entries and produces the edited text: entries added at the beginning or
 * the end, lines equal to an entry removed, or lines matching an entry by
 * prefix, suffix or substring removed.  No files, locks or owners are
 * involved here; file_str wraps this with the locked on-disk update, and
 * callers that keep a file in memory apply the very same edits directly.
 *
 * The text is cut into pieces as a 4096-byte line reader would see it: a
 * piece ends after a newline or after LINE_EDIT_PIECE_MAX bytes, so a line
 * longer than that is matched piece by piece.  A piece's content is the
 * piece less its trailing newline.
 */
#ifndef REBOX_FS_LINE_EDIT_H
#define REBOX_FS_LINE_EDIT_H

#include <stddef.h>

/* Operations (third argument of file_str) */
enum {
    FILE_STR_ADD = 0,
    FILE_STR_REMOVE = 1,
    FILE_STR_REMOVE_MATCHING = 2,
};

/* Where FILE_STR_ADD puts the entries */
enum {
    FILE_STR_AT_BEGIN = 0,
    FILE_STR_AT_END = 1,
};

/* How FILE_STR_REMOVE_MATCHING compares a line with an entry */
enum {
    FILE_STR_PREFIX = 0,
    FILE_STR_SUFFIX = 1,
    FILE_STR_SUBSTRING = 2,
};

/* Longest piece of a line matched at once by the removal operations */
#define LINE_EDIT_PIECE_MAX 4094

/* TextBuf - a growable byte buffer; start from TextBuf b = {} and release
 * with text_buf_free().  data is not NUL-terminated. */
struct TextBuf {
    char *data;
    size_t len;
    size_t cap;
};

int text_buf_append(TextBuf *buf, const char *bytes, size_t len);
void text_buf_free(TextBuf *buf);

/* line_edit_apply - append to out the result of applying operation/mode
 * with the entries to the in_len bytes at in.  Returns the number of
 * pieces removed (0 for additions and for combinations that change
 * nothing, whose result is the input unchanged), or -1 when memory runs
 * out. */
int line_edit_apply(const char *in, size_t in_len, const char *const *entries,
                    int operation, int mode, TextBuf *out);

#endif
