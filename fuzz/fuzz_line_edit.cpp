/* fuzz_line_edit - the line-edit rules against a plain reference model.
 *
 * Each input is a text and one to four operations with their entries.  The
 * operations are applied in turn three ways: by line_edit_apply, by a
 * LineStore holding the text (the way a held file is edited during a
 * batched rebuild), and by the model below, written for clarity rather than
 * speed.  After every operation the three texts and the counts of removed
 * pieces must agree.
 *
 * Input layout:
 *   byte 0        bits 0-1: number of operations - 1; with bit 7 set,
 *                 a run of 200 times bits 2-6 copies of the body's first
 *                 byte is put in the middle of the body (so that lines
 *                 longer than a piece come up)
 *   one byte per operation: bits 0-1 operation (3: not an operation),
 *                 bits 2-3 mode (3: not a mode, passed as -1),
 *                 bits 4-5 number of entries
 *   the entries of all operations, each ended by a zero byte
 *   the text body: the rest, zero bytes included
 */
#include "fs/line_edit.h"

#include "fuzz_check.h"

#include <stdint.h>
#include <string.h>

#include <string>
#include <vector>

/* model_pieces - the text cut the way a 4096-byte line reader sees it */
static std::vector<std::string> model_pieces(const std::string &text)
{
    std::vector<std::string> out;
    std::string cur;
    for (char c : text) {
        cur += c;
        if (c == '\n' || cur.size() == LINE_EDIT_PIECE_MAX) {
            out.push_back(cur);
            cur.clear();
        }
    }
    if (!cur.empty())
        out.push_back(cur);
    return out;
}

static bool ends_with(const std::string &s, const std::string &tail)
{
    return s.size() >= tail.size() && s.compare(s.size() - tail.size(), tail.size(), tail) == 0;
}

/* model_matches - whether one piece goes under the given removal */
static bool model_matches(const std::string &piece, const std::vector<std::string> &entries,
                          int operation, int mode)
{
    std::string content = ends_with(piece, "\n") ? piece.substr(0, piece.size() - 1) : piece;
    for (const std::string &e : entries) {
        if (operation == FILE_STR_REMOVE) {
            /* The entry up to its first newline is the whole line. */
            if (content == e.substr(0, e.find('\n')))
                return true;
            continue;
        }
        /* An empty entry matches nothing by prefix or suffix, every line
         * as a substring. */
        if (mode == FILE_STR_PREFIX && !e.empty() && content.size() >= e.size()
            && content.compare(0, e.size(), e) == 0)
            return true;
        if (mode == FILE_STR_SUFFIX && !e.empty() && ends_with(content, e))
            return true;
        if (mode == FILE_STR_SUBSTRING && piece.find(e) != std::string::npos)
            return true;
    }
    return false;
}

/* model_apply - the edit of text; the number of pieces removed */
static int model_apply(const std::string &text, const std::vector<std::string> &entries,
                       int operation, int mode, std::string &out)
{
    std::string added;
    for (const std::string &e : entries)
        added += ends_with(e, "\n") ? e : e + "\n";
    if (operation == FILE_STR_ADD && mode == FILE_STR_AT_BEGIN) {
        out = added + text;
        return 0;
    }
    if (operation == FILE_STR_ADD && mode == FILE_STR_AT_END) {
        out = text + added;
        return 0;
    }
    if (operation != FILE_STR_REMOVE && operation != FILE_STR_REMOVE_MATCHING) {
        out = text;
        return 0;
    }
    int removed = 0;
    out.clear();
    for (const std::string &piece : model_pieces(text)) {
        if (model_matches(piece, entries, operation, mode))
            removed++;
        else
            out += piece;
    }
    return removed;
}

struct Op {
    int operation, mode;
    std::vector<std::string> entries;
};

/* printable - a short view of a text for messages */
static std::string printable(const std::string &s)
{
    std::string out;
    for (size_t i = 0; i < s.size() && i < 200; i++) {
        unsigned char c = static_cast<unsigned char>(s[i]);
        if (c >= 32 && c < 127 && c != '\\')
            out += static_cast<char>(c);
        else {
            char hex[8];
            snprintf(hex, sizeof(hex), "\\x%02x", c);
            out += hex;
        }
    }
    return s.size() > 200 ? out + "..." : out;
}

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    fuzz_diag_init();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size < 2)
        return 0;
    size_t pos = 0;
    int nops = (data[pos] & 3) + 1;
    size_t run = data[pos] & 0x80 ? 200 * ((data[pos] >> 2) & 31) : 0;
    pos++;
    std::vector<Op> ops;
    for (int i = 0; i < nops && pos < size; i++, pos++) {
        int mode = (data[pos] >> 2) & 3;
        ops.push_back(Op{data[pos] & 3, mode == 3 ? -1 : mode, {}});
        ops.back().entries.resize((data[pos] >> 4) & 3);
    }
    for (Op &op : ops)
        for (std::string &e : op.entries) {
            const void *nul = pos < size ? memchr(data + pos, 0, size - pos) : nullptr;
            size_t end = nul ? static_cast<size_t>(static_cast<const uint8_t *>(nul) - data) : size;
            e.assign(reinterpret_cast<const char *>(data + pos), end - pos);
            pos = nul ? end + 1 : size;
        }
    std::string text(reinterpret_cast<const char *>(data + pos), size - pos);
    if (run > 0)
        text.insert(text.size() / 2, run, text.empty() ? 'x' : text[0]);

    LineStore *store = line_store_new(text.data(), text.size());
    FUZZ_CHECK(store != nullptr, "line_store_new failed");
    std::string model = text, direct = text;
    for (const Op &op : ops) {
        std::vector<const char *> list;
        for (const std::string &e : op.entries)
            list.push_back(e.c_str());
        list.push_back(nullptr);

        std::string expected;
        int want = model_apply(model, op.entries, op.operation, op.mode, expected);

        TextBuf out = {};
        int got = line_edit_apply(direct.data(), direct.size(), list.data(), op.operation, op.mode, &out);
        std::string edited(out.data ? out.data : "", out.len);
        text_buf_free(&out);
        FUZZ_CHECK(got == want && edited == expected,
                   "line_edit_apply op %d mode %d: removed %d, model %d\n  got:   %s\n  model: %s",
                   op.operation, op.mode, got, want, printable(edited).c_str(), printable(expected).c_str());

        int held = line_store_apply(store, list.data(), op.operation, op.mode);
        TextBuf whole = {};
        FUZZ_CHECK(line_store_text(store, &whole) == 0, "line_store_text failed");
        std::string stored(whole.data ? whole.data : "", whole.len);
        text_buf_free(&whole);
        FUZZ_CHECK(held == want && stored == expected,
                   "line_store_apply op %d mode %d: removed %d, model %d\n  got:   %s\n  model: %s",
                   op.operation, op.mode, held, want, printable(stored).c_str(), printable(expected).c_str());
        model = direct = expected;
    }
    line_store_free(store);
    return 0;
}
