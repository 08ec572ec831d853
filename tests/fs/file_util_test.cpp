/* Tests of the file utilities and tree walks on real files: each row one
 * call, its result, its message, and what it leaves on the paths it names. */
#include "fs/file_util.h"
#include "fs/tree.h"

#include "restore/apply_effects.h"
#include "runtime/config.h"

#include "support/sandbox.h"
#include "support/snapshot.h"

#include <gtest/gtest.h>

#include <limits.h>
#include <stdlib.h>
#include <sys/stat.h>

#include <functional>
#include <sstream>

/* look - what is at each of the space-separated paths below d, comma
 * separated: "missing", "link", "dir <meta>" or "<meta> <content>" */
static std::string look(const std::string &d, const std::string &paths)
{
    std::istringstream names(paths);
    std::string name, out;
    struct stat st;
    while (names >> name) {
        std::string p = d + "/" + name;
        out += out.empty() ? "" : ",";
        out += lstat(p.c_str(), &st) != 0 ? "missing"
               : S_ISLNK(st.st_mode)      ? "link"
               : S_ISDIR(st.st_mode)      ? "dir " + file_meta(p)
                                          : file_meta(p) + " " + read_file(p);
    }
    return out;
}

TEST(FileUtil, EachCallItsResultMessageAndWhatItLeaves)
{
    REQUIRE_SANDBOX();
    load_panel_config();
    umask(022);
    const Effects *fx = &APPLY_EFFECTS;
    std::string d = sandbox_path("u");
    ASSERT_EQ(run_command("mkdir -p " + d + "/tree/sub " + d + "/out && cd " + d +
                          " && printf 'kept\\n' >f && printf 'line one\\nsecond\\n' >src && touch tree/a tree/sub/a out/t"
                          " && ln -s ../out tree/link && ln -s ../../out/t tree/sub/a-link && chmod 640 out/t")
                  .status, 0);
    char real[PATH_MAX], parents[4096];
    ASSERT_NE(realpath(d.c_str(), real), nullptr);
    snprintf(parents, sizeof(parents), "%s/p/q/r", d.c_str());
    auto at = [&](const char *name) { return std::string(d + "/" + name); };
    std::string dom = sandbox_path("qmail/mailnames/dom");
    ASSERT_EQ(run_command("mkdir -p " + dom + "/info").status, 0);
    std::string f = at("f"), g = at("g"), src = at("src"), none = at("none"), tree = at("tree");
    const char *weak[] = {"abcd", "abcdefghijklmnopq", "xjohnx1", "caf\xc3\xa9s"};
    const char *found = "x", *list[] = {none.c_str(), src.c_str(), nullptr};

    struct Row {
        std::function<int()> call;
        int want;
        std::string message; /* part of what goes to standard error; "" none */
        const char *paths;
        const char *state;
    } rows[] = {
        {[&] { return create_file(fx, f.c_str()); }, 0, "", "f", "0644 0 0 kept\n"},
        {[&] { return truncate_file(fx, f.c_str()); }, 0, "", "f", "0644 0 0 "},
        {[&] { return create_file(fx, g.c_str()); }, 0, "", "g", "0644 0 0 "},
        {[&] { return truncate_file(fx, at("no/such").c_str()); }, -1, "Unable to truncate or create file " + at("no/such"),
         "no", "missing"},
        {[&] { return make_dir(fx, at("m").c_str(), 7781, 7781, 0700); }, 0, "", "m", "dir 0700 7781 7781"},
        {[&] { return make_dir(fx, at("m").c_str(), 7781, 0, 0750); }, 0, "", "m", "dir 0750 7781 0"},
        {[&] { return set_owner_mode(fx, none.c_str(), 1, 1, 0600); }, 0, "", "none", "missing"},
        {[&] { return set_owner_mode(fx, g.c_str(), 7781, 7781, 0600); }, 0, "", "g", "0600 7781 7781 "},
        {[&] { return rename_dir(fx, none.c_str(), at("m2").c_str()); }, 0, "", "m2", "missing"},
        {[&] { return rename_dir(fx, at("m").c_str(), at("out").c_str()); }, -1,
         "Directory rename error: target directory " + at("out") + " already exists.", "m out/t", "dir 0750 7781 0,0640 0 0 "},
        {[&] { return rename_dir(fx, at("m").c_str(), at("m2").c_str()); }, 0, "", "m m2", "missing,dir 0750 7781 0"},
        /* the copy under the lock keeps the destination's owner and mode */
        {[&] { return copy_file_locked(fx, src.c_str(), g.c_str()); }, 0, "", "g", "0600 7781 7781 line one\nsecond\n"},
        {[&] { return copy_file_locked(fx, g.c_str(), g.c_str()); }, 0, "", "g", "0600 7781 7781 line one\nsecond\n"},
        {[&] { return copy_file_locked(fx, none.c_str(), g.c_str()); }, 1, "Unable to open file " + none, "g",
         "0600 7781 7781 line one\nsecond\n"},
        {[&] { return (copy_file_atomic(fx, src.c_str(), f.c_str(), 7781, 0, 0640), 0); }, 0, "", "f",
         "0640 7781 0 line one\nsecond\n"},
        {[&] { return make_dir_parents(fx, parents, 7781, 7781, 01750); }, 0, "", "p/q p/q/r",
         "dir 0750 7781 7781,dir 1750 7781 7781"},
        {[&] { return std::string(parents) == at("p/q/r"); }, 1, "", "", ""},
        /* the walks: top 0 leaves the top directory, links and what they
         * point to stay as they are */
        {[&] { return chown_chmod_tree(fx, tree.c_str(), 7781, 7781, 0600, 0751, 0); }, 0, "",
         "tree tree/sub tree/sub/a tree/link out out/t",
         "dir 0755 0 0,dir 0751 7781 7781,0600 7781 7781 ,link,dir 0755 0 0,0640 0 0 "},
        {[&] { return (chmod_tree(fx, tree.c_str(), 0644, 0700, 1), 0); }, 0, "", "tree tree/a",
         "dir 0700 0 0,0644 7781 7781 "},
        {[&] { return (chown_tree(fx, tree.c_str(), 0, 7781, 1), 0); }, 0, "", "tree tree/sub/a out/t",
         "dir 0700 0 7781,0644 0 7781 ,0640 0 0 "},
        {[&] { return (rename_in_tree(fx, tree.c_str(), "a", "b", 0), 0); }, 0, "", "tree/a tree/b tree/sub/b tree/sub/a-link",
         "0644 0 7781 ,missing,0644 0 7781 ,link"},
        {[&] { return (rename_in_tree(fx, tree.c_str(), "a-link", "x", 1), 0); }, 0, "", "tree/sub/a-link tree/sub/x",
         "link,missing"},
        {[&] { return (rename_in_tree(fx, at("tree/a").c_str(), "a", "b", 1), 0); }, 0,
         "It's a regulat entry(not directory): " + at("tree/a"), "tree/a", "0644 0 7781 "},
        {[&] { return (deferred_remove(fx, dom.c_str()), 0); }, 0,
         "deferred_remove(): rename dir " + dom + " to " + sandbox_path("qmail/mailnames/__deleted"),
         "../qmail/mailnames/dom", "missing"},
        /* the path helpers */
        {[&] { return std::string(real_path(at("tree/sub/../a").c_str())) == std::string(real) + "/tree/a"; }, 1, "", "", ""},
        {[&] { return std::string(real_path(at("tree/sub/").c_str())) == std::string(real) + "/tree/sub"; }, 1, "", "", ""},
        {[&] { return real_path(none.c_str()) == nullptr; }, 1, "Such path '" + none + "' does not exist", "", ""},
        {[&] { return is_empty_string(nullptr) + 2 * is_empty_string("") + 4 * is_empty_string("x"); }, 3, "", "", ""},
        {[&] { return std::string(read_first_line(src.c_str())) == "line one"; }, 1, "", "", ""},
        {[&] { return first_existing_path(&found, list) + 2 * (found == list[1]); }, 3, "", "", ""},
        {[&] { return first_existing_path(&found, list + 2) + 2 * (found == nullptr); }, 2, "", "", ""},
        {[&] {
             FILE *full = fopen("/dev/full", "w");
             fputs("data", full);
             return fclose_report(full);
         },
         EOF, "Unable to close the file: No space left on device", "", ""},
        {[&] { return password_policy_check("john", "abcde"); }, 0, "", "", ""},
        {[&] { int sum = 0; for (const char *w : weak) sum += password_policy_check("john", w); return sum; }, -4, "", "", ""},
    };
    for (const Row &r : rows) {
        int got = 0;
        std::string err = stderr_of([&] { got = r.call(); });
        SCOPED_TRACE("row " + std::to_string(&r - rows));
        EXPECT_EQ(got, r.want);
        EXPECT_TRUE(r.message.empty() ? err.empty() : has(err, r.message)) << err;
        EXPECT_EQ(look(d, r.paths), r.state);
    }

    /* Failures that end the process. */
    std::string below_file = at("f/sub");
    EXPECT_EXIT(make_dir_parents(fx, &below_file[0], 0, 0, 0700), testing::ExitedWithCode(1),
                "Cannot create directory .*/u/f: Not a directory");
    EXPECT_EXIT(copy_file_atomic(fx, d.c_str(), f.c_str(), 0, 0, 0600), testing::ExitedWithCode(1),
                "copy_file_atomic\\(.*/u -> .*/u/f\\): read failed");
    EXPECT_EXIT(chmod_tree(fx, none.c_str(), 0644, 0755, 1), testing::ExitedWithCode(1),
                "Unable to get entry .*/none: No such file or directory");
    EXPECT_EXIT(deferred_remove(fx, d.c_str()), testing::ExitedWithCode(1),
                "not supported directory for deferred remove: .*/u\n");
    EXPECT_EXIT(read_first_line(none.c_str()), testing::ExitedWithCode(1), "Unable to open file '.*/none'");
    EXPECT_EQ(read_file(f), "line one\nsecond\n");
}
