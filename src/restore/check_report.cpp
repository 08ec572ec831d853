/* check_report - lines and diffs of a check run (see check_report.h).
 *
 * The diff is Myers' shortest edit script over lines, printed as unified
 * hunks with three lines of context.  A file that differs in more than
 * DIFF_MAX_EDITS lines is shown as all of its old lines removed and all of
 * its new lines added, which keeps the memory of the search bounded.
 */
#include "restore/check_report.h"

#include <stdio.h>
#include <string.h>

#include <algorithm>
#include <string_view>
#include <vector>

/* Whether anything was reported. */
static int found;

static const int DIFF_CONTEXT = 3;
static const int DIFF_MAX_EDITS = 2000;

/* Edit - one step of an edit script: ' ' keeps line a of the disk (the
 * same as line b of the panel), '-' drops line a, '+' adds line b */
struct Edit {
    char op;
    size_t a, b;
};

void check_note(const char *what, const char *path)
{
    found = 1;
    printf("%s %s\n", what, path);
}

int check_owner_mode(const char *path, uid_t has_uid, gid_t has_gid, mode_t has_mode, uid_t uid,
                     gid_t gid, mode_t mode)
{
    int differs = 0;

    if ((uid != static_cast<uid_t>(-1) && has_uid != uid) || (gid != static_cast<gid_t>(-1) && has_gid != gid)) {
        found = differs = 1;
        printf("wrong-owner %s: %u:%u, panel %u:%u\n", path, static_cast<unsigned>(has_uid),
               static_cast<unsigned>(has_gid), static_cast<unsigned>(uid == static_cast<uid_t>(-1) ? has_uid : uid),
               static_cast<unsigned>(gid == static_cast<gid_t>(-1) ? has_gid : gid));
    }
    if (mode != static_cast<mode_t>(-1) && (has_mode & 07777) != mode) {
        found = differs = 1;
        printf("wrong-mode %s: %04o, panel %04o\n", path, static_cast<unsigned>(has_mode & 07777),
               static_cast<unsigned>(mode));
    }
    return differs;
}

int check_found(void)
{
    return found;
}

/* split_lines - the lines of a text, each without its newline */
static std::vector<std::string_view> split_lines(const char *text, size_t len)
{
    std::vector<std::string_view> lines;
    size_t start = 0;

    for (size_t i = 0; i < len; i++)
        if (text[i] == '\n') {
            lines.emplace_back(text + start, i - start);
            start = i + 1;
        }
    if (start < len)
        lines.emplace_back(text + start, len - start);
    return lines;
}

/* edit_script - the shortest edit script from a to b, or every line of a
 * removed and every line of b added when it would be longer than
 * DIFF_MAX_EDITS */
static std::vector<Edit> edit_script(const std::vector<std::string_view> &a,
                                     const std::vector<std::string_view> &b)
{
    long n = static_cast<long>(a.size()), m = static_cast<long>(b.size()), off = n + m + 1;
    std::vector<long> v(static_cast<size_t>(2 * off + 1), 0);
    std::vector<std::vector<long>> trace;
    std::vector<Edit> script;
    long d = 0;

    for (;; d++) {
        if (d > DIFF_MAX_EDITS) {
            for (long i = 0; i < n; i++)
                script.push_back({'-', static_cast<size_t>(i), 0});
            for (long j = 0; j < m; j++)
                script.push_back({'+', 0, static_cast<size_t>(j)});
            return script;
        }
        trace.emplace_back(v.begin() + off - d, v.begin() + off + d + 1);
        long k = -d;
        for (; k <= d; k += 2) {
            long x = (k == -d || (k != d && v[off + k - 1] < v[off + k + 1])) ? v[off + k + 1]
                                                                           : v[off + k - 1] + 1;
            long y = x - k;
            while (x < n && y < m && a[x] == b[y])
                x++, y++;
            v[off + k] = x;
            if (x >= n && y >= m)
                break;
        }
        if (k <= d)
            break;
    }
    /* Walk back through the saved fronts, from the end to the start. */
    long x = n, y = m;
    for (; d > 0; d--) {
        const std::vector<long> &prev = trace[d];
        long k = x - y;
        auto at = [&](long kk) { return prev[kk + d]; };
        long pk = (k == -d || (k != d && at(k - 1) < at(k + 1))) ? k + 1 : k - 1;
        long px = at(pk), py = px - pk;
        for (; x > px && y > py; x--, y--)
            script.push_back({' ', static_cast<size_t>(x - 1), static_cast<size_t>(y - 1)});
        if (x == px)
            script.push_back({'+', static_cast<size_t>(x), static_cast<size_t>(--y)});
        else
            script.push_back({'-', static_cast<size_t>(--x), static_cast<size_t>(y)});
    }
    for (; x > 0 && y > 0; x--, y--)
        script.push_back({' ', static_cast<size_t>(x - 1), static_cast<size_t>(y - 1)});
    std::reverse(script.begin(), script.end());
    return script;
}

/* print_line - one diff line, its hash field masked when asked */
static void print_line(char op, std::string_view line, int mask)
{
    size_t first = line.find(':');
    size_t second = first == std::string_view::npos ? first : line.find(':', first + 1);

    if (mask && second != std::string_view::npos)
        printf("%c%.*s*%.*s\n", op, static_cast<int>(first + 1), line.data(),
               static_cast<int>(line.size() - second), line.data() + second);
    else
        printf("%c%.*s\n", op, static_cast<int>(line.size()), line.data());
}

void check_diff(const char *path, const char *disk, size_t disk_len, const char *panel,
                size_t panel_len, int mask)
{
    if (disk_len == panel_len && memcmp(disk, panel, disk_len) == 0)
        return;
    std::vector<std::string_view> a = split_lines(disk, disk_len), b = split_lines(panel, panel_len);
    std::vector<Edit> script = edit_script(a, b);
    found = 1;
    printf("--- %s (disk)\n+++ %s (panel)\n", path, path);
    /* Hunks: runs of edits with up to twice the context of kept lines
     * between them, each with its context around it. */
    size_t i = 0, end = script.size();
    while (i < end) {
        while (i < end && script[i].op == ' ')
            i++;
        if (i == end)
            break;
        size_t first = i >= DIFF_CONTEXT ? i - DIFF_CONTEXT : 0, last = i;
        for (size_t j = i; j < end; j++) {
            if (script[j].op != ' ')
                last = j;
            else if (j - last > 2 * DIFF_CONTEXT)
                break;
        }
        size_t stop = std::min(end, last + 1 + DIFF_CONTEXT);
        size_t a_start = 0, b_start = 0, a_count = 0, b_count = 0;
        for (size_t j = first; j < stop; j++) {
            const Edit &e = script[j];
            if (e.op != '+' && a_count++ == 0)
                a_start = e.a + 1;
            if (e.op != '-' && b_count++ == 0)
                b_start = e.b + 1;
        }
        if (a_count == 0)
            a_start = first < end && script[first].op == '+' ? script[first].a : 0;
        if (b_count == 0)
            b_start = first < end && script[first].op == '-' ? script[first].b : 0;
        printf("@@ -%zu,%zu +%zu,%zu @@\n", a_start, a_count, b_start, b_count);
        for (size_t j = first; j < stop; j++) {
            const Edit &e = script[j];
            print_line(e.op, e.op == '+' ? b[e.b] : a[e.a], mask);
        }
        i = stop;
    }
}
