/* progress - how far a long run is, on the administrator's terminal.
 *
 * A rebuild of a hundred thousand mailboxes takes a minute or more.  When
 * standard error is a terminal and the run is not detached, one line shows
 * the domains and mailboxes done of the total, the time taken and an
 * estimate of the time left; it is rewritten in place at most five times a
 * second and cleared at the end.  Nothing of it goes to standard output,
 * syslog, a file or a pipe, so scripts and the check report never see it.
 */
#pragma once

#include <stddef.h>
#include <time.h>

/* Progress - the counts of the line; on is 0 when no line is shown */
struct Progress {
    int on;
    size_t domains, domains_done;
    size_t mailboxes, mailboxes_done;
    struct timespec start, shown;
};

/* progress_start - the line shown when on and standard error is a
 * terminal, for the totals given */
void progress_start(Progress *p, int on, size_t domains, size_t mailboxes);
/* progress_mailbox, progress_domain - one more done */
void progress_mailbox(Progress *p);
void progress_domain(Progress *p);
void progress_end(Progress *p);
