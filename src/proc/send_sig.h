/* send_sig - signal running processes by their command name.
 *
 * kill_by_name() lists the processes with /bin/ps and signals, with
 * /bin/kill, every one whose bare command name is exactly the given name
 * (used to make the qmail processes re-read their control files).
 * A run reaches kill_by_name through the
 * signal effect of the table it was handed (fs/effect).
 */
#pragma once

/* kill_by_name - send sig to every process called name; returns the raw
 * wait status of the shell that runs the pipeline.  name is an extended regular expression put into a
 * shell command unquoted: pass fixed names only. */
int kill_by_name(const char *name, int sig);
