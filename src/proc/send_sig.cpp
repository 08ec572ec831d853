/* send_sig - signal processes by command name through a shell pipeline of
 * the standard process tools; while deferred, the signals due are noted
 * and sent once when the deferral ends. */
#include "proc/send_sig.h"


#include <stdio.h>
#include <stdlib.h>
#include <string.h>

static const size_t CMD_BUF_SIZE = 4096;

/* Signals noted while deferred: distinct (name, signal) pairs.  The names
 * are the callers' fixed texts, so the pointers stay valid. */
#define DEFERRED_MAX 8
static struct {
    const char *name;
    int sig;
} deferred[DEFERRED_MAX];
static int deferred_count;
static int deferring;

/* send_now - the ps and kill pipeline; the raw status of system() */
static int send_now(const char *name, int sig)
{
    char cmd[CMD_BUF_SIZE];

    /* "<pid> <command>" lines; a digit and one space must stand right before
     * the name, so a process whose name merely ends in it is left alone. */
    snprintf(cmd, sizeof(cmd),
             "for pid in `%s axc -opid,command|%s -E \"[0-9] %s$\"|%s '{print $1}' -` ; "
             "do %s -%d $pid ; done",
             "/bin/ps", "/bin/grep", name, "/usr/bin/awk", "/bin/kill", sig);
    return system(cmd);
}

int kill_by_name(const char *name, int sig)
{
    if (!deferring)
        return send_now(name, sig);
    for (int i = 0; i < deferred_count; i++)
        if (deferred[i].sig == sig && strcmp(deferred[i].name, name) == 0)
            return 0;
    if (deferred_count == DEFERRED_MAX)
        return send_now(name, sig);
    deferred[deferred_count].name = name;
    deferred[deferred_count].sig = sig;
    deferred_count++;
    return 0;
}

void kill_by_name_defer(int on)
{
    if (on) {
        deferring = 1;
        return;
    }
    deferring = 0;
    for (int i = 0; i < deferred_count; i++)
        send_now(deferred[i].name, deferred[i].sig);
    deferred_count = 0;
}
