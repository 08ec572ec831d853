/* progress - the progress line of a long run (see progress.h). */
#include "restore/progress.h"

#include "runtime/report.h"

#include <stdio.h>
#include <unistd.h>

/* How often the line is rewritten at most, in nanoseconds. */
static const long SHOW_EVERY_NS = 200000000L;

/* seconds_since - the seconds from then to now */
static double seconds_since(const struct timespec &then, const struct timespec &now)
{
    return static_cast<double>(now.tv_sec - then.tv_sec) + static_cast<double>(now.tv_nsec - then.tv_nsec) / 1e9;
}

/* show - the line, unless it was rewritten less than a fifth of a second
 * ago (forced: always) */
static void show(Progress *p, int forced)
{
    struct timespec now;
    char line[256], left[64] = "";

    if (!p->on)
        return;
    clock_gettime(CLOCK_MONOTONIC, &now);
    if (!forced && seconds_since(p->shown, now) < SHOW_EVERY_NS / 1e9)
        return;
    p->shown = now;
    double taken = seconds_since(p->start, now);
    if (p->mailboxes_done > 0 && p->mailboxes >= p->mailboxes_done) {
        long rest = static_cast<long>(taken * (p->mailboxes - p->mailboxes_done) / p->mailboxes_done + 0.5);
        snprintf(left, sizeof(left), ", about %ld:%02ld left", rest / 60, rest % 60);
    }
    long secs = static_cast<long>(taken);
    snprintf(line, sizeof(line), "%zu/%zu domains, %zu/%zu mailboxes, %ld:%02ld%s", p->domains_done, p->domains,
             p->mailboxes_done, p->mailboxes, secs / 60, secs % 60, left);
    report_progress(line);
}

void progress_start(Progress *p, int on, size_t domains, size_t mailboxes)
{
    *p = Progress{};
    p->on = on && isatty(STDERR_FILENO);
    p->domains = domains;
    p->mailboxes = mailboxes;
    clock_gettime(CLOCK_MONOTONIC, &p->start);
    show(p, 1);
}

void progress_mailbox(Progress *p)
{
    p->mailboxes_done++;
    show(p, 0);
}

void progress_domain(Progress *p)
{
    p->domains_done++;
    show(p, 0);
}

void progress_end(Progress *p)
{
    show(p, 1);
    if (p->on)
        report_progress(nullptr);
    p->on = 0;
}
