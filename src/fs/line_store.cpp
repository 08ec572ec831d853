/* line_store - in-memory line files with edits that cost what they change.
 *
 * The text is kept as the pieces the line-edit rules see (a piece ends
 * after a newline or after LINE_EDIT_PIECE_MAX bytes), in two sequences:
 * pieces added at the beginning, newest first, and the rest in order.  An
 * index from each piece's content (without its newline) to the piece serves
 * exact removals; an index from each piece's ending after its k-th last "/"
 * serves suffix removals of entries "/a/b..." with k slashes, which is how
 * records are found by the end of their home directory.  Removed pieces are
 * marked dead.  An index keeps a dead piece until a removal through that
 * index takes its key: such a removal takes every piece under the key, so
 * the whole key goes at once.  Dropping pieces one by one would cost, for a text of
 * many equal lines, a walk of all of them for each one removed.
 *
 * Piece boundaries do not depend on what stands before a piece, so removals
 * and additions at the beginning leave every other piece as it is; an
 * addition at the end is cut together with an unfinished last piece, as the
 * text would be.
 */
#include "fs/line_store.h"

#include <stdlib.h>
#include <string.h>

#include <string_view>
#include <unordered_map>
#include <vector>

/* Suffix indexes are kept for endings with at most this many slashes. */
#define SUFFIX_SLASHES_MAX 4

struct Piece {
    char *text;
    size_t len;     /* with its newline, if it has one */
    int alive;
};

typedef std::unordered_multimap<std::string_view, size_t> PieceIndex;

struct LineStore {
    std::vector<Piece> pieces;
    std::vector<size_t> front;          /* added at the beginning, newest last */
    std::vector<size_t> back;           /* the rest, in order */
    PieceIndex exact;
    PieceIndex suffix[SUFFIX_SLASHES_MAX + 1];
    int suffix_built[SUFFIX_SLASHES_MAX + 1];
};

/* content - a piece's text without its newline */
static std::string_view content(const Piece &p)
{
    size_t n = p.len && p.text[p.len - 1] == '\n' ? p.len - 1 : p.len;
    return std::string_view(p.text, n);
}

/* ending - the content from its k-th last "/"; false when it has fewer */
static bool ending(std::string_view c, int k, std::string_view *out)
{
    size_t pos = c.size();
    for (int i = 0; i < k; i++) {
        if (pos == 0)
            return false;
        pos = c.rfind('/', pos - 1);
        if (pos == std::string_view::npos)
            return false;
    }
    *out = c.substr(pos);
    return true;
}

/* index_piece - enter a live piece into the indexes that exist */
static void index_piece(LineStore *s, size_t id)
{
    std::string_view c = content(s->pieces[id]), e;

    s->exact.emplace(c, id);
    for (int k = 1; k <= SUFFIX_SLASHES_MAX; k++)
        if (s->suffix_built[k] && ending(c, k, &e))
            s->suffix[k].emplace(e, id);
}

/* kill - mark a piece dead; the indexes drop it with its key */
static void kill(LineStore *s, size_t id)
{
    s->pieces[id].alive = 0;
}

/* new_piece - a live, indexed copy of len bytes; its id, or -1 */
static long new_piece(LineStore *s, const char *text, size_t len)
{
    char *copy = static_cast<char *>(malloc(len ? len : 1));
    if (!copy)
        return -1;
    memcpy(copy, text, len);
    s->pieces.push_back(Piece{copy, len, 1});
    index_piece(s, s->pieces.size() - 1);
    return static_cast<long>(s->pieces.size() - 1);
}

/* cut - the text cut into pieces, appended as ids to out; 0 or -1 */
static int cut(LineStore *s, const char *text, size_t len, std::vector<size_t> *out)
{
    for (size_t pos = 0; pos < len;) {
        size_t left = len - pos;
        size_t limit = left < LINE_EDIT_PIECE_MAX ? left : LINE_EDIT_PIECE_MAX;
        const char *nl = static_cast<const char *>(memchr(text + pos, '\n', limit));
        size_t plen = nl ? static_cast<size_t>(nl - (text + pos)) + 1 : limit;
        long id = new_piece(s, text + pos, plen);
        if (id < 0)
            return -1;
        out->push_back(static_cast<size_t>(id));
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
    for (Piece &p : store->pieces)
        free(p.text);
    delete store;
}

/* for_each_live - the live piece ids in text order */
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

/* add_at_end - the entries appended, cut together with an unfinished last
 * piece as the text would be */
static int add_at_end(LineStore *s, const char *const *entries)
{
    TextBuf tail = {}, added = {};
    int result;

    while (!s->back.empty() && !s->pieces[s->back.back()].alive)
        s->back.pop_back();
    if (!s->back.empty()) {
        Piece &last = s->pieces[s->back.back()];
        if (last.len < LINE_EDIT_PIECE_MAX && last.text[last.len - 1] != '\n') {
            if (text_buf_append(&tail, last.text, last.len) != 0)
                return -1;
            kill(s, s->back.back());
            s->back.pop_back();
        }
    }
    result = line_edit_apply(tail.data, tail.len, entries, FILE_STR_ADD, FILE_STR_AT_END, &added);
    if (result >= 0)
        result = cut(s, added.data, added.len, &s->back);
    text_buf_free(&tail);
    text_buf_free(&added);
    return result;
}

/* remove_by_index - every live piece under each entry's key in an index;
 * the keys leave the index with their dead pieces */
static int remove_by_index(LineStore *s, PieceIndex *index, const std::vector<std::string_view> &keys)
{
    int removed = 0;

    for (std::string_view key : keys) {
        auto range = index->equal_range(key);
        for (auto it = range.first; it != range.second; ++it)
            if (s->pieces[it->second].alive) {
                kill(s, it->second);
                removed++;
            }
        index->erase(range.first, range.second);
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

/* remove_by_walk - any removal rule, through the engine, piece by piece */
static int remove_by_walk(LineStore *s, const char *const *entries, int operation, int mode)
{
    int removed = 0;
    std::vector<size_t> doomed;

    int bad = for_each_live(s, [&](size_t id) {
        TextBuf kept = {};
        int r = line_edit_apply(s->pieces[id].text, s->pieces[id].len, entries, operation, mode, &kept);
        text_buf_free(&kept);
        if (r < 0)
            return -1;
        if (r > 0)
            doomed.push_back(id);
        return 0;
    });
    if (bad)
        return -1;
    for (size_t id : doomed) {
        kill(s, id);
        removed++;
    }
    return removed;
}

int line_store_apply(LineStore *s, const char *const *entries, int operation, int mode)
{
    if (operation == FILE_STR_ADD && mode == FILE_STR_AT_END)
        return add_at_end(s, entries);
    if (operation == FILE_STR_ADD && mode == FILE_STR_AT_BEGIN) {
        TextBuf head = {};
        std::vector<size_t> ids;
        int r = line_edit_apply("", 0, entries, FILE_STR_ADD, FILE_STR_AT_END, &head);
        if (r >= 0)
            r = cut(s, head.data, head.len, &ids);
        text_buf_free(&head);
        s->front.insert(s->front.end(), ids.rbegin(), ids.rend());
        return r < 0 ? -1 : 0;
    }
    if (operation == FILE_STR_REMOVE) {
        std::vector<std::string_view> keys;
        for (const char *const *e = entries; *e; e++)
            keys.emplace_back(*e, strcspn(*e, "\n"));
        return remove_by_index(s, &s->exact, keys);
    }
    if (operation == FILE_STR_REMOVE_MATCHING && mode == FILE_STR_SUFFIX) {
        int k = suffix_slashes(entries);
        if (k > 0) {
            if (!s->suffix_built[k]) {
                s->suffix_built[k] = 1;
                for_each_live(s, [&](size_t id) {
                    std::string_view e;
                    if (ending(content(s->pieces[id]), k, &e))
                        s->suffix[k].emplace(e, id);
                    return 0;
                });
            }
            std::vector<std::string_view> keys;
            for (const char *const *e = entries; *e; e++)
                keys.emplace_back(*e);
            return remove_by_index(s, &s->suffix[k], keys);
        }
    }
    if (operation == FILE_STR_REMOVE_MATCHING)
        return remove_by_walk(s, entries, operation, mode);
    return 0;
}
