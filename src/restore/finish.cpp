/* finish - qmail-newu, the restart and the run's summary (see finish.h). */
#include "restore/finish.h"

#include "proc/exec.h"
#include "proc/service.h"
#include "restore/apply_effects.h"
#include "runtime/config.h"
#include "runtime/report.h"

#include <stdio.h>
#include <stdlib.h>

/* What the pass did, for the summary line. */
static unsigned counts[RUN_COUNTS];

void run_count(RunCount what)
{
    counts[what]++;
}

void rebuild_log_summary(const char *done, double seconds)
{
    report_syslog_info("summary: %u domains, %u mailboxes and %u aliases %s, %u rows skipped, "
                       "%lu files replaced, %.1f seconds",
                       counts[RUN_DOMAINS], counts[RUN_MAILBOXES], counts[RUN_ALIASES],
                       done, counts[RUN_SKIPPED], replace_count(), seconds);
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
