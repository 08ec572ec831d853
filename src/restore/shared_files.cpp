/* shared_files - qmail's shared files held for the pass (see
 * shared_files.h). */
#include "restore/shared_files.h"

#include "fs/held_file.h"
#include "fs/path_ops.h"
#include "fs/line_merge.h"
#include "mailconf/qmail_common.h"
#include "restore/domain_scope.h"
#include "restore/finish.h"
#include "runtime/config.h"
#include "runtime/report.h"

#include <errno.h>
#include <string.h>

#include <algorithm>
#include <iterator>
#include <string>
#include <string_view>
#include <utility>
#include <unordered_map>
#include <vector>

/* Each shared file's text as the run found it, for the summary. */
static TextBuf found[SHARED_FILE_COUNT];

/* ScopeFile - a shared file of a limited run, for its lines' owner */
struct ScopeFile {
    const DomainScope *scope;
    const char *name;
};

/* scope_line - whether a line of the ScopeFile arg is the scope's */
static int scope_line(const char *line, size_t len, const void *arg)
{
    const ScopeFile *f = static_cast<const ScopeFile *>(arg);

    return scope_owns(f->scope, f->name, line, len);
}

/* LineKey - a line as the summary compares it: a password record's hash
 * left out (a rerun gives every password a new salt), so the line's bytes
 * before the hash and after it; views into the file's text, no copies */
typedef std::pair<std::string_view, std::string_view> LineKey;

struct LineKeyHash {
    size_t operator()(const LineKey &k) const
    {
        return std::hash<std::string_view>()(k.first) * 31 + std::hash<std::string_view>()(k.second);
    }
};

/* line_key - the key of a line of shared file name */
static LineKey line_key(const char *name, std::string_view line)
{
    size_t hash = line.find(':'), end = hash == std::string_view::npos ? hash : line.find(':', hash + 1);

    if (strcmp(name, QMAIL_POPPASSWD_FILE) != 0 || end == std::string_view::npos)
        return {line, {}};
    return {line.substr(0, hash + 1 + (line[hash + 1] == '!')), line.substr(end)};
}

/* lines_of - the keys of the lines of text */
static std::vector<LineKey> lines_of(const char *name, const TextBuf &text)
{
    std::vector<LineKey> lines;

    for (size_t at = 0, end; at < text.len; at = end + 1) {
        end = std::find(text.data + at, text.data + text.len, '\n') - text.data;
        lines.push_back(line_key(name, std::string_view(text.data + at, end - at)));
    }
    return lines;
}

/* count_changes - the lines the run adds to and removes from a shared
 * file, for the summary, each removed line named (a hash as "*": it has
 * no place in syslog) */
static void count_changes(const char *name, const TextBuf &before, const TextBuf &after)
{
    std::unordered_map<LineKey, long, LineKeyHash> left;
    unsigned added = 0, removed = 0;

    /* A rerun on an unchanged panel gives back the same lines in the same
     * order (but for the hashes): nothing to count. */
    std::vector<LineKey> found_lines = lines_of(name, before), now_lines = lines_of(name, after);
    if (found_lines == now_lines) {
        run_lines(name, 0, 0);
        return;
    }
    for (const LineKey &line : found_lines)
        left[line]++;
    for (const LineKey &line : now_lines)
        if (left[line]-- <= 0)
            added++;
    for (const LineKey &line : found_lines)
        if (left[line]-- > 0) {
            removed++;
            std::string shown = std::string(line.first) + (line.second.empty() ? "" : "*") + std::string(line.second);
            run_line_removed(name, shown.c_str());
        }
    run_lines(name, added, removed);
}

void shared_files_take(const Effects *fx, DomainScope *scope, const MailDomains *domains)
{
    char path[4096];

    for (size_t i = 0; i < SHARED_FILE_COUNT; i++) {
        qmail_file_path(path, sizeof(path), SHARED_FILES[i]);
        if (held_file_take(fx, path, 1) != 0)
            report(1, "Unable to lock %s for the rebuild", path);
        if (path_read(fx, path, &found[i]) != 0)
            report(1, "Unable to read file %s: %s\n", path, strerror(errno));
    }
    /* A limited run starts from the files as they are, less the chosen
     * domains' lines; a full one from empty files (users/assign with its
     * closing ".", control/rejectnonexist as it is). */
    if (scope != nullptr)
        scope_learn(scope, domains, found);
    for (size_t i = 0; i < SHARED_FILE_COUNT; i++) {
        const char *name = SHARED_FILES[i];
        qmail_file_path(path, sizeof(path), name);
        if (scope != nullptr) {
            ScopeFile file = {scope, name};
            TextBuf rest = {};
            if (line_filter(&found[i], scope_line, &file, &rest) != 0 || held_file_reset(path, rest.data, rest.len) != 0)
                report(1, "Cannot allocate memory: %s", strerror(ENOMEM));
            text_buf_free(&rest);
        } else if (strcmp(name, QMAIL_REJECTNONEXIST_FILE) != 0) {
            held_file_reset(path, ".\n", strcmp(name, QMAIL_ASSIGN_FILE) == 0 ? 2 : 0);
        }
    }
}

void shared_files_commit(const DomainScope *scope)
{
    char path[4096];

    for (size_t i = 0; i < SHARED_FILE_COUNT; i++) {
        TextBuf now = {};
        qmail_file_path(path, sizeof(path), SHARED_FILES[i]);
        if (held_file_text(path, &now) != 0)
            report(1, "Cannot allocate memory: %s", strerror(ENOMEM));
        /* The chosen domains' lines that are as they should be keep their
         * places. */
        if (scope != nullptr) {
            ScopeFile file = {scope, SHARED_FILES[i]};
            TextBuf merged = {};
            if (line_merge(&found[i], &now, scope_line, &file, &merged) != 0
                || held_file_reset(path, merged.data, merged.len) != 0)
                report(1, "Cannot allocate memory: %s", strerror(ENOMEM));
            text_buf_free(&now);
            now = merged;
        }
        count_changes(SHARED_FILES[i], found[i], now);
        text_buf_free(&now);
        text_buf_free(&found[i]);
    }
    /* Replaced before qmail's user database is rebuilt from them. */
    if (held_files_write() != 0)
        report(1, "Unable to write the rebuilt qmail files");
    held_files_release();
}
