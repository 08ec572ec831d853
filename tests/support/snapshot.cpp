/* snapshot - directory trees as comparable text. */
#include "support/snapshot.h"

#include "support/sandbox.h"

#include <dirent.h>
#include <limits.h>
#include <stdio.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <vector>

std::string file_meta(const std::string &path)
{
    struct stat st;
    char buf[64];

    if (lstat(path.c_str(), &st) != 0)
        return "missing";
    snprintf(buf, sizeof(buf), "%04o %u %u", st.st_mode & 07777, st.st_uid, st.st_gid);
    return buf;
}

/* walk - append the lines of dir/rel and everything below it */
static void walk(const std::string &top, const std::string &rel, std::string &out)
{
    std::string path = rel.empty() ? top : top + "/" + rel;
    DIR *d = opendir(path.c_str());
    if (d == nullptr)
        return;
    std::vector<std::string> names;
    while (struct dirent *e = readdir(d))
        if (std::string(e->d_name) != "." && std::string(e->d_name) != "..")
            names.push_back(e->d_name);
    closedir(d);
    std::sort(names.begin(), names.end());
    for (const std::string &name : names) {
        std::string r = rel.empty() ? name : rel + "/" + name;
        std::string p = top + "/" + r;
        struct stat st;
        if (lstat(p.c_str(), &st) != 0)
            continue;
        out += r + " " + file_meta(p);
        if (S_ISDIR(st.st_mode)) {
            out += " dir\n";
            walk(top, r, out);
        } else if (S_ISLNK(st.st_mode)) {
            char target[PATH_MAX];
            ssize_t n = readlink(p.c_str(), target, sizeof(target));
            out += " link " + std::string(target, n > 0 ? n : 0) + "\n";
        } else {
            out += " file\n" + read_file(p) + "<<end\n";
        }
    }
}

std::string tree_snapshot(const std::string &dir)
{
    std::string out;
    walk(dir, "", out);
    return out;
}
