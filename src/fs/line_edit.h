/* line_edit - the editing rules of line-oriented text files, in memory.
 *
 * One implementation serves every edit: entries added at the beginning or
 * the end, lines equal to an entry removed, or lines matching an entry by
 * prefix, suffix or substring removed.  A LineStore holds a text for many
 * edits, each costing what it changes (the in-memory copies of held_file);
 * line_edit_apply() is one edit of a whole text through a store of its
 * own (file_str's on-disk edit, the check table's comparison).  No files,
 * locks or owners are involved here.
 *
 * The text is cut into pieces as a 4096-byte line reader would see it: a
 * piece ends after a newline or after LINE_EDIT_PIECE_MAX bytes, so a line
 * longer than that is matched piece by piece.  A piece's content is the
 * piece less its trailing newline.
 */
#pragma once

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
/* text_buf_read - append the rest of the open file fd; 0, or -1 with
 * errno (ENOMEM when memory runs out) */
int text_buf_read(TextBuf *buf, int fd);

struct LineStore;

/* line_store_new - a store holding len bytes of text; null when memory
 * runs out */
LineStore *line_store_new(const char *text, size_t len);
void line_store_free(LineStore *store);
/* line_store_apply - operation/mode with the null-terminated entries on
 * the held text: the number of pieces removed (0 for additions and for
 * combinations that change nothing), or -1 when memory runs out */
int line_store_apply(LineStore *store, const char *const *entries, int operation, int mode);
/* line_store_text - append the held text to out; 0 or -1 */
int line_store_text(const LineStore *store, TextBuf *out);

/* line_edit_apply - append to out the in_len bytes at in as the edit
 * leaves them; as line_store_apply, the pieces removed or -1 */
int line_edit_apply(const char *in, size_t in_len, const char *const *entries,
                    int operation, int mode, TextBuf *out);

/* line_edit_missing - what an edit makes of a file that does not exist,
 * on disk or held: -1 when it goes on and creates the file (an append),
 * else its result (1 after the open message where the file would be
 * opened, 1 silently for an exact removal, 0 when nothing is opened) */
int line_edit_missing(const char *path, int operation, int mode);
