/* check_state - a check run's memory of the walk (see check_state.h). */
#include "restore/check_state.h"

#include "fs/path_ops.h"
#include "restore/check_effects.h"
#include "restore/check_report.h"
#include "runtime/config.h"

#include <crypt.h>
#include <dirent.h>
#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>

#include <set>
#include <string>
#include <unordered_map>

static const size_t LINE_SIZE = 4096;

/* The domains' directory names and the current domain's mailbox names the
 * panel has; the hashes of users/poppasswd on disk by home directory. */
static std::set<std::string> seen_domains, seen_mailboxes;
static std::unordered_map<std::string, std::string> disk_hashes;

/* Whether the run is a check (check_state_begin was called). */
static int checking;

void check_state_begin(void)
{
    char path[LINE_SIZE], line[LINE_SIZE];

    checking = 1;
    /* "name:[!]hash:popuser:home" lines */
    snprintf(path, sizeof(path), "%s%s", panel_config.QMAIL_ROOT_D, "/users/poppasswd");
    FILE *f = fopen(path, "r");
    while (f != nullptr && fgets(line, sizeof(line), f) != nullptr) {
        line[strcspn(line, "\n")] = '\0';
        char *hash = strchr(line, ':');
        char *home = hash ? strchr(hash + 1, ':') : nullptr;
        char *rest = home ? strchr(home + 1, ':') : nullptr;
        if (rest == nullptr)
            continue;
        *home = '\0';
        hash += 1 + (hash[1] == '!');
        disk_hashes[rest + 1] = hash;
    }
    if (f != nullptr)
        fclose(f);
}

const char *check_known_hash(const char *ascii, const char *mail_name, const char *plain,
                             const char *hash)
{
    static struct crypt_data data;
    char home[LINE_SIZE];

    if (!checking || plain == nullptr)
        return hash;
    snprintf(home, sizeof(home), "%s/%s/%s", panel_config.QMAIL_MAILNAMES_D, ascii, mail_name);
    auto known = disk_hashes.find(home);
    if (known == disk_hashes.end())
        return hash;
    const char *again = crypt_r(plain, known->second.c_str(), &data);
    return again != nullptr && known->second == again ? known->second.c_str() : hash;
}

void check_seen_mailbox(const char *mail_name)
{
    if (checking)
        seen_mailboxes.insert(mail_name);
}

/* note_surplus - a line for each directory (or link) in dir that names
 * nothing the panel has, in name order; set-aside directories are left
 * out */
static void note_surplus(const char *dir, const std::set<std::string> &seen)
{
    std::set<std::string> surplus;
    DIR *d = path_opendir(&CHECK_EFFECTS, dir);
    struct stat st;

    for (struct dirent *e; d != nullptr && (e = readdir(d)) != nullptr;) {
        std::string name = e->d_name;
        if (name == "." || name == ".." || name.starts_with("__deleted") || seen.count(name)
            || fstatat(dirfd(d), e->d_name, &st, AT_SYMLINK_NOFOLLOW) != 0
            || !(S_ISDIR(st.st_mode) || S_ISLNK(st.st_mode)))
            continue;
        surplus.insert(std::string(dir) + "/" + name);
    }
    if (d != nullptr)
        closedir(d);
    for (const std::string &path : surplus)
        check_note("surplus", path.c_str());
}

void check_domain_done(const char *ascii)
{
    char dir[LINE_SIZE];

    if (!checking)
        return;
    snprintf(dir, sizeof(dir), "%s/%s", panel_config.QMAIL_MAILNAMES_D, ascii);
    note_surplus(dir, seen_mailboxes);
    seen_mailboxes.clear();
    seen_domains.insert(ascii);
}

void check_pass_done(void)
{
    if (checking)
        note_surplus(panel_config.QMAIL_MAILNAMES_D, seen_domains);
}
