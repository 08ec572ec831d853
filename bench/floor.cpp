/* floor - the least work a rebuild can do on a disk: the directories and
 * files of every domain and mailbox made directly, without the database and
 * without any of rebox's logic, for comparison with rebox's own time.
 *
 * usage: floor ROOT < listing
 *
 * The listing has one tab-separated line per mailbox: ASCII domain name,
 * mailbox name, then the .qmail lines joined by ";", then the quota in
 * bytes (negative: none).  ROOT gets mailnames/<domain>/<mailbox>/ with
 * Maildir/{tmp,new,cur} and @attachments, .qmail and @mbox.quota, every
 * domain directory a .qmail-default, and the four shared files written
 * once at the end.
 */
#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

static const uid_t OWNER = 7781;

/* put - create path with text, owner popuser, mode */
static void put(const char *path, const char *text, mode_t mode)
{
    int fd = open(path, O_WRONLY | O_CREAT | O_TRUNC, mode);
    if (fd < 0 || write(fd, text, strlen(text)) < 0 || fchown(fd, OWNER, OWNER) != 0 || close(fd) != 0) {
        perror(path);
        exit(1);
    }
}

/* dir - make a directory owned by popuser */
static void dir(const char *path)
{
    if ((mkdir(path, 0700) != 0 && errno != EEXIST) || chown(path, OWNER, OWNER) != 0) {
        perror(path);
        exit(1);
    }
}

/* append - add a line to a growing in-memory file */
static void append(char **buf, size_t *len, const char *line)
{
    size_t n = strlen(line);
    *buf = static_cast<char *>(realloc(*buf, *len + n + 2));
    memcpy(*buf + *len, line, n);
    (*buf)[*len + n] = '\n';
    *len += n + 1;
}

/* flush_file - one shared file written at once */
static void flush_file(const char *root, const char *name, const char *buf, size_t len)
{
    char path[4096];
    snprintf(path, sizeof(path), "%s/%s", root, name);
    int fd = open(path, O_WRONLY | O_CREAT | O_TRUNC, 0644);
    if (fd < 0 || (len && write(fd, buf, len) < 0) || close(fd) != 0) {
        perror(path);
        exit(1);
    }
}

int main(int argc, char **argv)
{
    char line[8192], path[4096], last[1024] = "";
    char *assign = nullptr, *pop = nullptr, *hosts = nullptr;
    size_t assign_len = 0, pop_len = 0, hosts_len = 0;

    if (argc != 2) {
        fprintf(stderr, "usage: floor ROOT < listing\n");
        return 2;
    }
    const char *root = argv[1];
    snprintf(path, sizeof(path), "%s/mailnames", root);
    mkdir(path, 0755);
    while (fgets(line, sizeof(line), stdin)) {
        line[strcspn(line, "\n")] = 0;
        char *domain = strtok(line, "\t"), *mailbox = strtok(nullptr, "\t");
        char *qmail = strtok(nullptr, "\t"), *quota = strtok(nullptr, "\t");
        if (!domain || !mailbox || !qmail || !quota)
            continue;
        if (strcmp(domain, last) != 0) {
            snprintf(last, sizeof(last), "%s", domain);
            snprintf(path, sizeof(path), "%s/mailnames/%s", root, domain);
            dir(path);
            snprintf(path, sizeof(path), "%s/mailnames/%s/.qmail-default", root, domain);
            put(path, "|bouncesaying This\\ address\\ no\\ longer\\ accepts\\ mail.\n", 0600);
            snprintf(path, sizeof(path), "+1:popuser:7781:7781:%s/mailnames/%s:::", root, domain);
            append(&assign, &assign_len, path);
            append(&hosts, &hosts_len, domain);
        }
        static const char *const parts[] = {"", "/Maildir", "/Maildir/tmp", "/Maildir/new", "/Maildir/cur",
                                            "/@attachments"};
        for (const char *part : parts) {
            snprintf(path, sizeof(path), "%s/mailnames/%s/%s%s", root, domain, mailbox, part);
            dir(path);
        }
        for (char *p = qmail; *p; p++)
            if (*p == ';')
                *p = '\n';
        char text[4096];
        snprintf(text, sizeof(text), "%s\n", qmail);
        snprintf(path, sizeof(path), "%s/mailnames/%s/%s/.qmail", root, domain, mailbox);
        put(path, text, 0600);
        if (atol(quota) >= 0) {
            snprintf(text, sizeof(text), "%ld\n", atol(quota) >> 10);
            snprintf(path, sizeof(path), "%s/mailnames/%s/%s/@mbox.quota", root, domain, mailbox);
            put(path, text, 0640);
        }
        snprintf(path, sizeof(path), "=1-%s:popuser:7781:7781:%s/mailnames/%s/%s:::", mailbox, root, domain,
                 mailbox);
        append(&assign, &assign_len, path);
        snprintf(path, sizeof(path), "%s@%s:$1$salt$hash:popuser:%s/mailnames/%s/%s", mailbox, domain, root,
                 domain, mailbox);
        append(&pop, &pop_len, path);
    }
    flush_file(root, "assign", assign, assign_len);
    flush_file(root, "poppasswd", pop, pop_len);
    flush_file(root, "rcpthosts", hosts, hosts_len);
    flush_file(root, "virtualdomains", hosts, hosts_len);
    return 0;
}
