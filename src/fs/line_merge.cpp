/* line_merge - partial rebuilds of line-oriented files (see line_merge.h). */
#include "fs/line_merge.h"

#include <string.h>

#include <string_view>
#include <unordered_map>
#include <vector>

/* Line - one line of a text: its bytes with the newline, if any */
struct Line {
    std::string_view bytes;
    std::string_view content() const
    {
        return bytes.ends_with('\n') ? bytes.substr(0, bytes.size() - 1) : bytes;
    }
};

/* lines_of - the lines of text */
static std::vector<Line> lines_of(const TextBuf *text)
{
    std::vector<Line> lines;

    for (size_t at = 0; at < text->len;) {
        const char *nl = static_cast<const char *>(memchr(text->data + at, '\n', text->len - at));
        size_t end = nl != nullptr ? static_cast<size_t>(nl - text->data) + 1 : text->len;
        lines.push_back({std::string_view(text->data + at, end - at)});
        at = end;
    }
    return lines;
}

/* put - append a line to out, ending the one before when it had no
 * newline */
static int put(TextBuf *out, const Line &line)
{
    if (out->len > 0 && out->data[out->len - 1] != '\n' && text_buf_append(out, "\n", 1) != 0)
        return -1;
    return text_buf_append(out, line.bytes.data(), line.bytes.size());
}

/* owned - whether a line is one of the owners' */
static bool owned(const Line &line, LineOwner owner, const void *arg)
{
    std::string_view c = line.content();
    return owner(c.data(), c.size(), arg) != 0;
}

int line_filter(const TextBuf *text, LineOwner owner, const void *arg, TextBuf *out)
{
    for (const Line &line : lines_of(text))
        if (!owned(line, owner, arg) && put(out, line) != 0)
            return -1;
    return 0;
}

int line_merge(const TextBuf *before, const TextBuf *rebuilt, LineOwner owner, const void *arg, TextBuf *out)
{
    std::vector<Line> old_lines = lines_of(before), new_lines = lines_of(rebuilt);
    std::unordered_map<std::string_view, long> wanted;
    size_t front = 0;

    /* The owners' lines the rebuild wrote, and how many of them stand
     * before every other line (added at the beginning). */
    while (front < new_lines.size() && owned(new_lines[front], owner, arg))
        front++;
    for (const Line &line : new_lines)
        if (owned(line, owner, arg))
            wanted[line.content()]++;
    std::vector<bool> kept(old_lines.size());
    for (size_t i = 0; i < old_lines.size(); i++)
        kept[i] = !owned(old_lines[i], owner, arg) || wanted[old_lines[i].content()]-- > 0;

    /* The lines written again keep their places; what is left of the
     * counts is new. */
    auto put_new = [&](size_t from, size_t to) {
        for (size_t i = from; i < to; i++)
            if (owned(new_lines[i], owner, arg) && wanted[new_lines[i].content()]-- > 0 && put(out, new_lines[i]) != 0)
                return -1;
        return 0;
    };
    if (put_new(0, front) != 0)
        return -1;
    for (size_t i = 0; i < old_lines.size(); i++)
        if (kept[i] && put(out, old_lines[i]) != 0)
            return -1;
    return put_new(front, new_lines.size());
}
