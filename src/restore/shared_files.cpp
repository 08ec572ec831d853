/* shared_files - qmail's shared files held for the pass (see
 * shared_files.h). */
#include "restore/shared_files.h"

#include "fs/held_file.h"
#include "fs/path_ops.h"
#include "mailconf/qmail_common.h"
#include "restore/finish.h"
#include "runtime/config.h"
#include "runtime/report.h"

#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>
#include <iterator>
#include <string>
#include <unordered_map>
#include <vector>

/* The shared qmail files, in the order of locking. */
static const char *const SHARED_FILES[] = {
    QMAIL_RCPTHOSTS_FILE, QMAIL_VIRTUALDOMAINS_FILE, QMAIL_ASSIGN_FILE, QMAIL_POPPASSWD_FILE,
    QMAIL_REJECTNONEXIST_FILE,
};

/* Each shared file's text as the run found it, for the summary. */
static TextBuf found[std::size(SHARED_FILES)];

/* line_key - a line as the summary compares and names it: a password
 * record's hash left out (a rerun gives every password a new salt, and a
 * hash has no place in syslog) */
static std::string line_key(const char *name, std::string line)
{
    size_t hash = line.find(':'), end = hash == std::string::npos ? hash : line.find(':', hash + 1);

    if (strcmp(name, QMAIL_POPPASSWD_FILE) == 0 && end != std::string::npos)
        line.replace(hash + 1 + (line[hash + 1] == '!'), end - hash - 1 - (line[hash + 1] == '!'), "*");
    return line;
}

/* lines_of - the lines of text, keyed by line_key */
static std::vector<std::string> lines_of(const char *name, const TextBuf &text)
{
    std::vector<std::string> lines;

    for (size_t at = 0, end; at < text.len; at = end + 1) {
        end = std::find(text.data + at, text.data + text.len, '\n') - text.data;
        lines.push_back(line_key(name, std::string(text.data + at, end - at)));
    }
    return lines;
}

/* count_changes - the lines the run adds to and removes from a shared
 * file, for the summary, each removed line named */
static void count_changes(const char *name, const TextBuf &before, const TextBuf &after)
{
    std::unordered_map<std::string, long> left;
    std::vector<std::string> found_lines = lines_of(name, before);
    unsigned added = 0, removed = 0;

    for (const std::string &line : found_lines)
        left[line]++;
    for (const std::string &line : lines_of(name, after))
        if (left[line]-- <= 0)
            added++;
    for (const std::string &line : found_lines)
        if (left[line]-- > 0) {
            removed++;
            run_line_removed(name, line.c_str());
        }
    run_lines(name, added, removed);
}

void shared_files_take(const Effects *fx)
{
    char path[4096];

    for (size_t i = 0; i < std::size(SHARED_FILES); i++) {
        qmail_file_path(path, sizeof(path), SHARED_FILES[i]);
        if (held_file_take(fx, path, 1) != 0)
            report(1, "Unable to lock %s for the rebuild", path);
        int fd = path_open(fx, path, O_RDONLY, 0);
        if (fd >= 0 && text_buf_read(&found[i], fd) != 0)
            report(1, "Unable to read file %s: %s\n", path, strerror(errno));
        if (fd >= 0)
            close(fd);
    }
    for (const char *name : SHARED_FILES) {
        qmail_file_path(path, sizeof(path), name);
        if (strcmp(name, QMAIL_REJECTNONEXIST_FILE) != 0)
            held_file_reset(path, strcmp(name, QMAIL_ASSIGN_FILE) == 0 ? ".\n" : "");
    }
}

void shared_files_commit(void)
{
    char path[4096];

    for (size_t i = 0; i < std::size(SHARED_FILES); i++) {
        TextBuf now = {};
        qmail_file_path(path, sizeof(path), SHARED_FILES[i]);
        if (held_file_text(path, &now) != 0)
            report(1, "Cannot allocate memory: %s", strerror(ENOMEM));
        count_changes(SHARED_FILES[i], found[i], now);
        text_buf_free(&now);
        text_buf_free(&found[i]);
    }
    /* Replaced before qmail's user database is rebuilt from them. */
    if (held_files_write() != 0)
        report(1, "Unable to write the rebuilt qmail files");
    held_files_release();
}
