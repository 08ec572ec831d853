/* fresh_run - runs of the real binary on an emptied mail tree. */
#include "restore/fresh_run.h"

#include "support/snapshot.h"

#include <regex>

FreshRun fresh_run(const std::string &command_line)
{
    run_command("cd \"$REBOX_SANDBOX\" && rm -rf qmail/mailnames drweb/* qmail/control/* qmail/users/* && "
                "find . -name '*.calls' -delete");
    rebox_standins();
    FreshRun o;
    o.run = run_command(command_line);
    o.tree = tree_snapshot(sandbox_path("qmail/mailnames")) + tree_snapshot(sandbox_path("qmail/control")) +
             std::regex_replace(tree_snapshot(sandbox_path("qmail/users")), std::regex("\\$1\\$[^:\n]*"), "<hash>") +
             read_file(sandbox_path(STANDIN_SPAMCTL ".calls")) + read_file(sandbox_path(STANDIN_VIRUSCTL ".calls"));
    return o;
}
