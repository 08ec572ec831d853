/* finish - qmail-newu, the restart and the run's summary (see finish.h). */
#include "restore/finish.h"

#include "proc/exec.h"
#include "proc/service.h"
#include "restore/apply_effects.h"
#include "runtime/config.h"
#include "runtime/report.h"

#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <string>
#include <vector>

/* How many removed lines syslog names. */
static const unsigned RUN_LINES_NAMED = 20;

/* What the pass did, for the summary line: its counts, each shared file's
 * lines added and removed, and the first removed lines. */
static unsigned counts[RUN_COUNTS];
static std::string &changes = *new std::string;
static std::vector<std::string> &named = *new std::vector<std::string>;
static unsigned unnamed;

void run_count(RunCount what)
{
    counts[what]++;
}

void run_lines(const char *file, unsigned added, unsigned removed)
{
    changes += std::string(changes.empty() ? "" : ", ") + (strrchr(file, '/') + 1) + " +" + std::to_string(added) +
               " -" + std::to_string(removed);
}

void run_line_removed(const char *file, const char *line)
{
    if (named.size() < RUN_LINES_NAMED)
        named.push_back(std::string(file) + ": " + line);
    else
        unnamed++;
}

void rebuild_log_summary(const char *done, double seconds, const char *domains)
{
    /* Nothing leaves qmail's files without trace: each line the panel no
     * longer has (an old domain, another utility's line) is named. */
    const char *verb = strcmp(done, "checked") == 0 ? "to be removed from" : "removed from";
    for (const std::string &line : named)
        report_syslog_info("%s %s", verb, line.c_str());
    if (unnamed > 0)
        report_syslog_info("%s the shared files: %u more lines", verb, unnamed);
    report_syslog_info("summary: %u domains, %u mailboxes and %u aliases %s, %u rows skipped, "
                       "%lu files replaced, %.1f seconds%s%s%s%s",
                       counts[RUN_DOMAINS], counts[RUN_MAILBOXES], counts[RUN_ALIASES],
                       done, counts[RUN_SKIPPED], replace_count(), seconds,
                       changes.empty() ? "" : "; lines added and removed: ", changes.c_str(),
                       domains != nullptr ? "; only mail domains " : "", domains != nullptr ? domains : "");
}

int run_qmail_newu(void)
{
    char command[4096];

    snprintf(command, sizeof(command), "%s%s", panel_config.QMAIL_ROOT_D, "/bin/qmail-newu");
    int status = shell_run(command);
    return (status >> 8) & 0xff;
}

int restart_qmail(int really)
{
    if (really == 0)
        return 0;
    return service_control("qmail", "restart");
}
