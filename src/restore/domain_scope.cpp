/* domain_scope - the mail domains a run is limited to (see domain_scope.h).
 *
 * Whose a line is: control/rcpthosts and control/rejectnonexist hold a
 * name a line; control/virtualdomains "name:prefix"; users/assign records
 * "+prefix:..." and "=prefix-mailbox:..." whose fifth field is the home
 * (the domain directory, or a directory below it); users/poppasswd lines
 * end in the mailbox's home.  A line is the scope's when its name is one
 * of the scope's names, its prefix one of its prefixes, or its home lies
 * in the directory of one of its names.
 */
#include "restore/domain_scope.h"

#include "db/get.h"
#include "fs/path_ops.h"
#include "mailconf/idn.h"
#include "mailconf/qmail_common.h"
#include "mailconf/value_check.h"
#include "runtime/config.h"
#include "runtime/report.h"

#include <stdlib.h>
#include <string.h>

#include <algorithm>
#include <string_view>

const char *const SHARED_FILES[SHARED_FILE_COUNT] = {
    QMAIL_RCPTHOSTS_FILE, QMAIL_VIRTUALDOMAINS_FILE, QMAIL_ASSIGN_FILE, QMAIL_POPPASSWD_FILE,
    QMAIL_REJECTNONEXIST_FILE,
};

/* field - field number n (from 0) of a ':'-separated line */
static std::string_view field(std::string_view line, int n)
{
    for (; n > 0; n--) {
        size_t colon = line.find(':');
        if (colon == std::string_view::npos)
            return {};
        line.remove_prefix(colon + 1);
    }
    return line.substr(0, line.find(':'));
}

/* home_name - the domain directory a home lies in or is ("" when it lies
 * outside the mail names directory) */
static std::string_view home_name(std::string_view home)
{
    std::string_view root = panel_config.QMAIL_MAILNAMES_D;

    if (!home.starts_with(root) || home.size() <= root.size() + 1 || home[root.size()] != '/')
        return {};
    home.remove_prefix(root.size() + 1);
    return home.substr(0, home.find('/'));
}

/* assign_prefix - the virtual-domain prefix of an assign record */
static std::string_view assign_prefix(std::string_view line)
{
    std::string_view address = field(line, 0);

    if (address.starts_with('+'))
        return address.substr(1);
    if (address.starts_with('='))
        return address.substr(1, address.find('-') - 1);
    return {};
}

int scope_owns(const DomainScope *scope, const char *name, const char *text, size_t len)
{
    std::string_view line(text, len);
    auto has = [](const NameSet &set, std::string_view key) { return !key.empty() && set.find(key) != set.end(); };

    if (strcmp(name, QMAIL_VIRTUALDOMAINS_FILE) == 0)
        return has(scope->names, field(line, 0)) || has(scope->ids, field(line, 1));
    if (strcmp(name, QMAIL_ASSIGN_FILE) == 0)
        return has(scope->ids, assign_prefix(line)) || has(scope->names, home_name(field(line, 4)));
    if (strcmp(name, QMAIL_POPPASSWD_FILE) == 0)
        return line.rfind(':') != std::string_view::npos && has(scope->names, home_name(line.substr(line.rfind(':') + 1)));
    return has(scope->names, line);
}

/* each_line - f on every line of text, less its newline */
template <typename F> static void each_line(const TextBuf &text, F f)
{
    std::string_view all(text.data != nullptr ? text.data : "", text.len);

    while (!all.empty()) {
        size_t nl = all.find('\n');
        f(all.substr(0, nl));
        all.remove_prefix(nl == std::string_view::npos ? all.size() : nl + 1);
    }
}

/* panel_id - whether prefix is the identifier of one of the panel's mail
 * domains */
static bool panel_id(const MailDomains *domains, std::string_view prefix)
{
    return std::any_of(domains->rows.begin(), domains->rows.end(),
                       [&](const MailDomainRow &d) { return prefix == d.id; });
}

void scope_learn(DomainScope *scope, const MailDomains *domains, const TextBuf *texts)
{
    scope->names = scope->aliases;
    scope->ids.clear();
    for (size_t k : scope->rows) {
        const MailDomainRow *d = &domains->rows[k];
        if (*d->ascii != '\0')
            scope->names.insert(d->ascii);
        if (*d->id != '\0')
            scope->ids.insert(d->id);
    }
    /* A dropped domain's prefix is the one its lines carry, unless the
     * panel has given it to a domain of its own since. */
    for (const std::string &name : scope->dropped) {
        scope->names.insert(name);
        each_line(texts[SHARED_VIRTUALDOMAINS], [&](std::string_view line) {
            if (field(line, 0) == name && !panel_id(domains, field(line, 1)))
                scope->ids.insert(std::string(field(line, 1)));
        });
        each_line(texts[SHARED_ASSIGN], [&](std::string_view line) {
            if (home_name(field(line, 4)) == name && field(line, 0).starts_with('+')
                && !panel_id(domains, assign_prefix(line)))
                scope->ids.insert(std::string(assign_prefix(line)));
        });
    }
    /* Every name mapped to one of the prefixes is theirs (an alias, or an
     * old name of the domain), but another mail domain of the panel. */
    std::set<std::string> others;
    for (size_t k = 0; k < domains->rows.size(); k++)
        if (std::find(scope->rows.begin(), scope->rows.end(), k) == scope->rows.end())
            others.insert(domains->rows[k].ascii);
    each_line(texts[SHARED_VIRTUALDOMAINS], [&](std::string_view line) {
        std::string name(field(line, 0));
        if (scope->ids.find(field(line, 1)) != scope->ids.end() && !name.empty() && others.count(name) == 0)
            scope->names.insert(name);
    });
    for (const std::string &name : scope->names)
        scope->conf_names.insert(name);
}

/* read_shared - the shared files' texts as they are now (a file that
 * cannot be read is empty) */
static void read_shared(const Effects *fx, TextBuf *texts)
{
    char path[QMAIL_BUF_SIZE];

    for (size_t i = 0; i < SHARED_FILE_COUNT; i++) {
        qmail_file_path(path, sizeof(path), SHARED_FILES[i]);
        if (path_read(fx, path, &texts[i]) != 0)
            report(1, "Unable to read file %s: %s\n", path, strerror(errno));
    }
}

/* on_disk - whether qmail's shared files hold a record of the domain
 * named ascii */
static bool on_disk(const MailDomains *domains, const TextBuf *texts, const std::string &ascii)
{
    DomainScope probe;

    probe.dropped.push_back(ascii);
    scope_learn(&probe, domains, texts);
    for (size_t i = 0; i < SHARED_FILE_COUNT; i++) {
        bool found = false;
        each_line(texts[i], [&](std::string_view line) {
            found = found || scope_owns(&probe, SHARED_FILES[i], line.data(), line.size());
        });
        if (found)
            return true;
    }
    return false;
}

std::vector<const MailDomainRow *> scope_domain_rows(const DomainScope *scope, const MailDomains *domains)
{
    std::vector<const MailDomainRow *> rows;

    if (scope != nullptr)
        for (size_t k : scope->rows)
            rows.push_back(&domains->rows[k]);
    else
        for (const MailDomainRow &d : domains->rows)
            rows.push_back(&d);
    return rows;
}

/* PanelAlias - a domain alias of the panel: its domain's identifier, its
 * name as stored and in ASCII form ("" when it does not convert) */
struct PanelAlias {
    std::string dom_id, name, ascii;
};

/* panel_aliases - every domain alias of the panel */
static std::vector<PanelAlias> panel_aliases(MYSQL *conn)
{
    static const char query[] = "SELECT dom_id, name FROM domainaliases ORDER BY id";
    std::vector<PanelAlias> aliases;
    MYSQL_RES *res;

    if (mysql_real_query(conn, query, strlen(query)) != 0 || (res = mysql_store_result(conn)) == nullptr)
        report_plain(1, "Unable to query domain aliases: %s", mysql_error(conn));
    while (MYSQL_ROW row = mysql_fetch_row(res)) {
        if (row[0] == nullptr || row[1] == nullptr || check_no_nul(row[1], mysql_fetch_lengths(res)[1]) != nullptr)
            continue;
        char *ascii = idn_toascii(row[1]);
        aliases.push_back({row[0], row[1], ascii != nullptr ? ascii : ""});
        free(ascii);
    }
    mysql_free_result(res);
    return aliases;
}

/* choose - add the domain row k to the scope once */
static void choose(DomainScope *scope, size_t k)
{
    if (std::find(scope->rows.begin(), scope->rows.end(), k) == scope->rows.end())
        scope->rows.push_back(k);
}

/* row_named - the row of the mail domain named ascii (or, when it breaks
 * a rule, stored as given); -1 for none */
static long row_named(const MailDomains *domains, const char *given, const char *ascii)
{
    for (size_t k = 0; k < domains->rows.size(); k++) {
        const MailDomainRow *d = &domains->rows[k];
        if ((*d->ascii != '\0' && strcmp(d->ascii, ascii) == 0) || (d->name != nullptr && strcmp(d->name, given) == 0))
            return static_cast<long>(k);
    }
    return -1;
}

/* row_with_id - the row of the mail domain with identifier id; -1 for
 * none */
static long row_with_id(const MailDomains *domains, const char *id)
{
    for (size_t k = 0; k < domains->rows.size(); k++)
        if (strcmp(domains->rows[k].id, id) == 0)
            return static_cast<long>(k);
    return -1;
}

void scope_resolve(const Effects *fx, MYSQL *conn, const MailDomains *domains, DomainScope *scope, int panel_only)
{
    std::vector<PanelAlias> aliases = panel_aliases(conn);
    TextBuf texts[SHARED_FILE_COUNT] = {};
    int texts_read = 0;
    char shown[VALUE_PRINTABLE_SIZE];

    for (const std::string &given : scope->given) {
        char *converted = idn_toascii(given.c_str());
        std::string ascii = converted != nullptr ? converted : "";
        free(converted);
        value_printable(given.c_str(), shown, sizeof(shown));
        if (ascii.empty())
            report_plain(1, "Unknown mail domain '%s': the name does not convert to ASCII", shown);
        scope->shown += (scope->shown.empty() ? "" : ", ") + ascii;
        long k = row_named(domains, given.c_str(), ascii.c_str());
        /* An alias stands for its domain. */
        for (const PanelAlias &a : aliases)
            if (k < 0 && a.ascii == ascii)
                k = row_with_id(domains, a.dom_id.c_str());
        if (k >= 0) {
            choose(scope, static_cast<size_t>(k));
            continue;
        }
        if (!panel_only && !texts_read++)
            read_shared(fx, texts);
        if (panel_only)
            report_plain(1, "Unknown mail domain '%s': the panel has no mail domain or alias of that name", shown);
        if (!on_disk(domains, texts, ascii))
            report_plain(1, "Unknown mail domain '%s': neither the panel nor qmail's files know it", shown);
        if (std::find(scope->dropped.begin(), scope->dropped.end(), ascii) == scope->dropped.end())
            scope->dropped.push_back(ascii);
        scope->conf_names.insert(given);
        report_plain(0, "Warning: mail domain '%s' is not in the panel: its records leave qmail's files and "
                        "users.conf; its directory and the mail in it stay",
                     shown);
    }
    for (TextBuf &t : texts)
        text_buf_free(&t);
    std::sort(scope->rows.begin(), scope->rows.end());
    /* users.conf names addresses by the names as the panel stores them. */
    for (size_t k : scope->rows) {
        const MailDomainRow *d = &domains->rows[k];
        if (d->rule != nullptr)
            continue;
        scope->ids_sql += (scope->ids_sql.empty() ? "" : ",") + std::string(d->id);
        if (d->name != nullptr)
            scope->conf_names.insert(d->name);
        for (const PanelAlias &a : aliases)
            if (a.dom_id == d->id) {
                scope->conf_names.insert(a.name);
                if (!a.ascii.empty())
                    scope->aliases.insert(a.ascii);
            }
    }
    if (scope->ids_sql.empty())
        scope->ids_sql = "0";
}
