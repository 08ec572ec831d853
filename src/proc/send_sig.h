/* send_sig - signal running processes by their command name.
 *
 * kill_by_name() lists the processes with /bin/ps and signals, with
 * /bin/kill, every one whose bare command name is exactly the given name
 * (used to make the qmail processes re-read their control files).
 * kill_by_name_defer() lets a batch of edits signal once at its end
 * instead of after every edit.  A run reaches kill_by_name through the
 * signal effect of the table it was handed (fs/effect).
 */
#ifndef REBOX_PROC_SEND_SIG_H
#define REBOX_PROC_SEND_SIG_H

/* kill_by_name - send sig to every process called name; returns the raw
 * status of system().  name is an extended regular expression put into a
 * shell command unquoted: pass fixed names only. */
int kill_by_name(const char *name, int sig);


/* kill_by_name_defer - on: kill_by_name only notes what is due and
 * returns 0; off: every noted name and signal is sent once, then calls
 * signal at once again */
void kill_by_name_defer(int on);

#endif
