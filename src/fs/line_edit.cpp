/* line_edit - the editing rules of line-oriented text files, in memory.
 *
 * Offers line_edit_apply() and the TextBuf it writes into.  Every rule
 * works on one piece of a line at a time and looks at each byte of the
 * input a bounded number of times, so an edit is linear in the text size.
 */
#include "fs/line_edit.h"

#include <stdlib.h>
#include <string.h>

/* ExactKey - what a FILE_STR_REMOVE entry matches: its text up to its
 * first newline (an entry "abc" and "abc\n" both match the line "abc"). */
struct ExactKey {
    const char *text;
    size_t len;
};

int text_buf_append(TextBuf *buf, const char *bytes, size_t len)
{
    if (len == 0)
        return 0;
    if (buf->len + len > buf->cap) {
        size_t cap = buf->cap ? buf->cap : 4096;
        while (cap < buf->len + len)
            cap *= 2;
        char *data = static_cast<char *>(realloc(buf->data, cap));
        if (!data)
            return -1;
        buf->data = data;
        buf->cap = cap;
    }
    memcpy(buf->data + buf->len, bytes, len);
    buf->len += len;
    return 0;
}

void text_buf_free(TextBuf *buf)
{
    free(buf->data);
    buf->data = nullptr;
    buf->len = buf->cap = 0;
}

/* append_entries - each entry, followed by a newline unless it ends in one */
static int append_entries(const char *const *entries, TextBuf *out)
{
    for (; *entries; entries++) {
        size_t len = strlen(*entries);
        if (text_buf_append(out, *entries, len) != 0)
            return -1;
        if ((len == 0 || (*entries)[len - 1] != '\n') && text_buf_append(out, "\n", 1) != 0)
            return -1;
    }
    return 0;
}

/* piece_length - length of the piece starting at text: up to and including
 * the first newline, at most LINE_EDIT_PIECE_MAX bytes */
static size_t piece_length(const char *text, size_t left)
{
    size_t limit = left < LINE_EDIT_PIECE_MAX ? left : LINE_EDIT_PIECE_MAX;
    const char *nl = static_cast<const char *>(memchr(text, '\n', limit));

    return nl ? static_cast<size_t>(nl - text) + 1 : limit;
}

/* key_compare - order of ExactKeys: by length, then by bytes */
static int key_compare(const void *a, const void *b)
{
    const ExactKey *x = static_cast<const ExactKey *>(a);
    const ExactKey *y = static_cast<const ExactKey *>(b);

    if (x->len != y->len)
        return x->len < y->len ? -1 : 1;
    return memcmp(x->text, y->text, x->len);
}

/* matches_rule - whether the piece (content of n bytes, piece_len bytes
 * with its newline) matches one entry under a FILE_STR_REMOVE_MATCHING rule.
 * An empty entry matches nothing under the prefix and suffix rules: a rule
 * that would otherwise empty the whole file is taken as a mistake.  Under
 * the substring rule the empty entry occurs in every line, as written. */
static int matches_rule(const char *piece, size_t n, size_t piece_len,
                        const char *entry, size_t m, int mode)
{
    switch (mode) {
    case FILE_STR_PREFIX:
        return m > 0 && n >= m && memcmp(piece, entry, m) == 0;
    case FILE_STR_SUFFIX:
        return m > 0 && n >= m && memcmp(piece + n - m, entry, m) == 0;
    case FILE_STR_SUBSTRING:
        return memmem(piece, piece_len, entry, m) != nullptr;
    default:
        return 0;
    }
}

/* remove_pieces - the two removal operations over the whole text */
static int remove_pieces(const char *in, size_t in_len, const char *const *entries,
                         int operation, int mode, TextBuf *out)
{
    size_t count = 0;
    int removed = 0;

    while (entries[count])
        count++;
    ExactKey *keys = static_cast<ExactKey *>(malloc((count ? count : 1) * sizeof(ExactKey)));
    if (!keys)
        return -1;
    for (size_t i = 0; i < count; i++) {
        const char *nl = strchr(entries[i], '\n');
        keys[i].text = entries[i];
        keys[i].len = nl ? static_cast<size_t>(nl - entries[i]) : strlen(entries[i]);
    }
    if (operation == FILE_STR_REMOVE)
        qsort(keys, count, sizeof(ExactKey), key_compare);
    else
        for (size_t i = 0; i < count; i++)
            keys[i].len = strlen(entries[i]);

    for (size_t pos = 0; pos < in_len;) {
        const char *piece = in + pos;
        size_t piece_len = piece_length(piece, in_len - pos);
        size_t n = piece[piece_len - 1] == '\n' ? piece_len - 1 : piece_len;
        int match = 0;

        if (operation == FILE_STR_REMOVE) {
            ExactKey probe = {piece, n};
            match = count && bsearch(&probe, keys, count, sizeof(ExactKey), key_compare);
        } else {
            for (size_t i = 0; i < count && !match; i++)
                match = matches_rule(piece, n, piece_len, keys[i].text, keys[i].len, mode);
        }
        if (match)
            removed++;
        else if (text_buf_append(out, piece, piece_len) != 0) {
            free(keys);
            return -1;
        }
        pos += piece_len;
    }
    free(keys);
    return removed;
}

int line_edit_apply(const char *in, size_t in_len, const char *const *entries,
                    int operation, int mode, TextBuf *out)
{
    switch (operation) {
    case FILE_STR_ADD:
        if (mode == FILE_STR_AT_BEGIN) {
            if (append_entries(entries, out) != 0 || text_buf_append(out, in, in_len) != 0)
                return -1;
            return 0;
        }
        if (mode == FILE_STR_AT_END) {
            if (text_buf_append(out, in, in_len) != 0 || append_entries(entries, out) != 0)
                return -1;
            return 0;
        }
        break;
    case FILE_STR_REMOVE:
    case FILE_STR_REMOVE_MATCHING:
        return remove_pieces(in, in_len, entries, operation, mode, out);
    }
    return text_buf_append(out, in, in_len);
}
