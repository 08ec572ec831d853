/* process_start - a process state of our own, whatever the caller left us.
 *
 * process_start_clean() replaces what any caller hands across exec (the
 * environment, the umask, its descriptors, the working directory, interval
 * timers, ignored or blocked signals, blocking output) and is harmless
 * without privileges; process_start_root() takes user and group id 0 with
 * no supplementary groups and then sets the resource limits and the
 * scheduling priorities.  The reasons are in process_start.cpp.
 */
#pragma once

/* The whole environment of the process and of every program it starts. */
#define PROCESS_START_PATH "/usr/sbin:/usr/bin:/sbin:/bin"

void process_start_clean(void);

/* process_start_restore_output - standard output and error blocking again
 * where process_start_clean() made them non-blocking; run at exit, and
 * before the descriptors are given up by detaching */
void process_start_restore_output(void);

/* process_start_root - 0, or -1 with errno set by the id change that failed
 * (the limits are left alone then) */
int process_start_root(void);
