/* send_sig - signal processes by command name through a shell pipeline of
 * the standard process tools. */
#include "proc/send_sig.h"

#include "proc/exec.h"

#include <stdio.h>

static const size_t CMD_BUF_SIZE = 4096;

int kill_by_name(const char *name, int sig)
{
    char cmd[CMD_BUF_SIZE];

    /* "<pid> <command>" lines; a digit and one space must stand right before
     * the name, so a process whose name merely ends in it is left alone. */
    snprintf(cmd, sizeof(cmd),
             "for pid in `%s axc -opid,command|%s -E \"[0-9] %s$\"|%s '{print $1}' -` ; "
             "do %s -%d $pid ; done",
             "/bin/ps", "/bin/grep", name, "/usr/bin/awk", "/bin/kill", sig);
    return shell_run(cmd);
}
