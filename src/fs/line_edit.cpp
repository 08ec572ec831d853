/* line_edit - the line-edit rules over a text held as pieces.
 *
 * Offers TextBuf, the LineStore and line_edit_apply().  A store keeps its
 * pieces in two sequences: those added at the beginning, newest last, and
 * the rest in order; removed pieces are marked dead.  Indexes serve the
 * removals that name their lines: index 0 maps each piece's content to the
 * piece (exact removals), index k each piece's ending from its k-th last
 * "/" (suffix removals of entries "/a/b..." with k slashes, which is how
 * records are found by the end of their home directory).  An index is
 * built at its first use.  It keeps a dead piece until a removal through
 * it takes the piece's key: such a removal takes every piece under the
 * key, so the whole key goes at once (dropping pieces one by one would
 * cost, for a text of many equal lines, a walk of all of them for each).
 * Other rules walk the live pieces once.
 *
 * Piece boundaries do not depend on what stands before a piece, so removals
 * and additions at the beginning leave every other piece as it is; an
 * addition at the end is cut together with an unfinished last piece, as the
 * text would be.
 */
#include "fs/line_edit.h"

#include "runtime/report.h"

#include <errno.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <string_view>
#include <unordered_map>
#include <vector>

/* Suffix indexes are kept for endings with at most this many slashes. */
#define SUFFIX_SLASHES_MAX 4

struct Piece {
    const char *text; /* inside one of the store's chunks */
    size_t len;       /* with its newline, if it has one */
    int alive;
};

typedef std::unordered_multimap<std::string_view, size_t> PieceIndex;

struct LineStore {
    std::vector<char *> chunks; /* the texts the pieces were cut from */
    std::vector<Piece> pieces;
    std::vector<size_t> front;  /* added at the beginning, newest last */
    std::vector<size_t> back;   /* the rest, in order */
    PieceIndex index[SUFFIX_SLASHES_MAX + 1];
    int built[SUFFIX_SLASHES_MAX + 1];
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

int text_buf_read(TextBuf *buf, int fd)
{
    char chunk[4096];

    for (ssize_t got; (got = read(fd, chunk, sizeof(chunk))) != 0;) {
        if (got < 0 && errno == EINTR)
            continue;
        if (got < 0)
            return -1;
        if (text_buf_append(buf, chunk, static_cast<size_t>(got)) != 0) {
            errno = ENOMEM;
            return -1;
        }
    }
    return 0;
}

/* content - a piece's text without its newline */
static std::string_view content(const Piece &p)
{
    size_t n = p.len && p.text[p.len - 1] == '\n' ? p.len - 1 : p.len;
    return std::string_view(p.text, n);
}

/* key - a piece's key in index k: its content (k 0), or the content from
 * its k-th last "/"; false when it has fewer */
static bool key(std::string_view c, int k, std::string_view *out)
{
    size_t pos = c.size();
    for (int i = 0; i < k; i++) {
        if (pos == 0)
            return false;
        pos = c.rfind('/', pos - 1);
        if (pos == std::string_view::npos)
            return false;
    }
    *out = c.substr(k ? pos : 0);
    return true;
}

/* index_piece - enter a piece into the indexes built so far */
static void index_piece(LineStore *s, size_t id)
{
    std::string_view k_key;

    for (int k = 0; k <= SUFFIX_SLASHES_MAX; k++)
        if (s->built[k] && key(content(s->pieces[id]), k, &k_key))
            s->index[k].emplace(k_key, id);
}

/* cut - len bytes copied into a new chunk and cut into live, indexed
 * pieces, their ids appended to out; 0 or -1 */
static int cut(LineStore *s, const char *text, size_t len, std::vector<size_t> *out)
{
    if (len == 0)
        return 0;
    char *chunk = static_cast<char *>(malloc(len));
    if (!chunk)
        return -1;
    memcpy(chunk, text, len);
    s->chunks.push_back(chunk);
    for (size_t pos = 0; pos < len;) {
        size_t limit = len - pos < LINE_EDIT_PIECE_MAX ? len - pos : LINE_EDIT_PIECE_MAX;
        const char *nl = static_cast<const char *>(memchr(chunk + pos, '\n', limit));
        size_t plen = nl ? static_cast<size_t>(nl - (chunk + pos)) + 1 : limit;
        s->pieces.push_back(Piece{chunk + pos, plen, 1});
        index_piece(s, s->pieces.size() - 1);
        out->push_back(s->pieces.size() - 1);
        pos += plen;
    }
    return 0;
}

LineStore *line_store_new(const char *text, size_t len)
{
    LineStore *s = new LineStore();
    if (cut(s, text, len, &s->back) != 0) {
        line_store_free(s);
        return nullptr;
    }
    return s;
}

void line_store_free(LineStore *store)
{
    if (!store)
        return;
    for (char *chunk : store->chunks)
        free(chunk);
    delete store;
}

/* for_each_live - fn on the live piece ids in text order; 0, or -1 when
 * fn failed */
template <class Fn> static int for_each_live(const LineStore *s, Fn fn)
{
    for (size_t i = s->front.size(); i-- > 0;)
        if (s->pieces[s->front[i]].alive && fn(s->front[i]) != 0)
            return -1;
    for (size_t id : s->back)
        if (s->pieces[id].alive && fn(id) != 0)
            return -1;
    return 0;
}

int line_store_text(const LineStore *store, TextBuf *out)
{
    return for_each_live(store, [&](size_t id) {
        return text_buf_append(out, store->pieces[id].text, store->pieces[id].len);
    });
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

/* add - the entries added at the beginning or the end; at the end they are
 * cut together with an unfinished last piece, as the text would be */
static int add(LineStore *s, const char *const *entries, int at_end)
{
    TextBuf added = {};
    std::vector<size_t> ids;

    while (at_end && !s->back.empty() && !s->pieces[s->back.back()].alive)
        s->back.pop_back();
    if (at_end && !s->back.empty()) {
        Piece &last = s->pieces[s->back.back()];
        if (last.len < LINE_EDIT_PIECE_MAX && last.text[last.len - 1] != '\n') {
            if (text_buf_append(&added, last.text, last.len) != 0)
                return -1;
            last.alive = 0;
            s->back.pop_back();
        }
    }
    int rc = append_entries(entries, &added) == 0 ? cut(s, added.data, added.len, at_end ? &s->back : &ids) : -1;
    text_buf_free(&added);
    s->front.insert(s->front.end(), ids.rbegin(), ids.rend());
    return rc;
}

/* remove_by_index - every live piece under one of the keys in index k;
 * the keys leave the index with their dead pieces */
static int remove_by_index(LineStore *s, int k, const std::vector<std::string_view> &keys)
{
    int removed = 0;

    if (!s->built[k]) {
        s->built[k] = 1;
        for_each_live(s, [&](size_t id) {
            std::string_view k_key;
            if (key(content(s->pieces[id]), k, &k_key))
                s->index[k].emplace(k_key, id);
            return 0;
        });
    }
    for (std::string_view k_key : keys) {
        auto range = s->index[k].equal_range(k_key);
        for (auto it = range.first; it != range.second; ++it)
            if (s->pieces[it->second].alive) {
                s->pieces[it->second].alive = 0;
                removed++;
            }
        s->index[k].erase(range.first, range.second);
    }
    return removed;
}

/* suffix_slashes - k when every entry is "/..." with k slashes (k within
 * the indexed range, the same for all), else 0 */
static int suffix_slashes(const char *const *entries)
{
    int k = 0;

    for (; *entries; entries++) {
        const char *e = *entries;
        int n = 0;
        if (e[0] != '/')
            return 0;
        for (; *e; e++)
            n += *e == '/';
        if (n > SUFFIX_SLASHES_MAX || (k && n != k))
            return 0;
        k = n;
    }
    return k;
}

/* matches_rule - whether a piece (its content c, len bytes with its
 * newline) matches one entry of m bytes under a FILE_STR_REMOVE_MATCHING
 * rule.  An empty entry matches nothing under the prefix and suffix rules:
 * a rule that would otherwise empty the whole file is taken as a mistake.
 * Under the substring rule the empty entry occurs in every line, and the
 * newline is part of what is searched. */
static int matches_rule(std::string_view c, size_t len, const char *entry, size_t m, int mode)
{
    switch (mode) {
    case FILE_STR_PREFIX:
        return m > 0 && c.size() >= m && memcmp(c.data(), entry, m) == 0;
    case FILE_STR_SUFFIX:
        return m > 0 && c.size() >= m && memcmp(c.data() + c.size() - m, entry, m) == 0;
    default:
        return memmem(c.data(), len, entry, m) != nullptr;
    }
}

/* remove_by_walk - a removal rule tried on every live piece */
static int remove_by_walk(LineStore *s, const char *const *entries, int mode)
{
    int removed = 0;

    for_each_live(s, [&](size_t id) {
        Piece &p = s->pieces[id];
        for (const char *const *e = entries; *e && p.alive; e++)
            if (matches_rule(content(p), p.len, *e, strlen(*e), mode)) {
                p.alive = 0;
                removed++;
            }
        return 0;
    });
    return removed;
}

int line_store_apply(LineStore *s, const char *const *entries, int operation, int mode)
{
    std::vector<std::string_view> keys;
    int k = 0;

    if (operation == FILE_STR_ADD)
        return mode == FILE_STR_AT_BEGIN || mode == FILE_STR_AT_END ? add(s, entries, mode == FILE_STR_AT_END) : 0;
    if (operation == FILE_STR_REMOVE_MATCHING) {
        if (mode == FILE_STR_SUFFIX)
            k = suffix_slashes(entries);
        if (k == 0)
            return mode >= FILE_STR_PREFIX && mode <= FILE_STR_SUBSTRING ? remove_by_walk(s, entries, mode) : 0;
    } else if (operation != FILE_STR_REMOVE) {
        return 0;
    }
    /* An exact entry names its line up to its first newline ("abc" and
     * "abc\n" both name the line "abc"). */
    for (const char *const *e = entries; *e; e++)
        keys.emplace_back(*e, k ? strlen(*e) : strcspn(*e, "\n"));
    return remove_by_index(s, k, keys);
}

int line_edit_apply(const char *in, size_t in_len, const char *const *entries,
                    int operation, int mode, TextBuf *out)
{
    LineStore *s = line_store_new(in, in_len);
    int rc = s ? line_store_apply(s, entries, operation, mode) : -1;

    if (rc >= 0 && line_store_text(s, out) != 0)
        rc = -1;
    line_store_free(s);
    return rc;
}

int line_edit_missing(const char *path, int operation, int mode)
{
    if (operation == FILE_STR_ADD && mode == FILE_STR_AT_END)
        return -1;
    if (operation == FILE_STR_REMOVE_MATCHING || (operation == FILE_STR_ADD && mode == FILE_STR_AT_BEGIN)) {
        errno = ENOENT;
        report(0, "Unable to open file %s: %s\n", path, strerror(ENOENT));
        return 1;
    }
    return operation == FILE_STR_REMOVE;
}
