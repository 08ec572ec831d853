/* fuzz_check - what every fuzz target shares: the check that stops a run
 * on a broken property, with a message that still reaches the terminal when
 * the runner has sent the target's own output to /dev/null
 * (-close_fd_mask=3, for code that reports warnings on every call). */
#ifndef REBOX_FUZZ_CHECK_H
#define REBOX_FUZZ_CHECK_H

#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

/* fuzz_diag - a copy of standard error taken before libFuzzer closes it */
static FILE *fuzz_diag;

static inline void fuzz_diag_init(void)
{
    int fd = dup(2);
    fuzz_diag = fd >= 0 ? fdopen(fd, "w") : stderr;
}

#define FUZZ_CHECK(cond, ...)                                                   \
    do {                                                                        \
        if (!(cond)) {                                                          \
            FILE *out_ = fuzz_diag ? fuzz_diag : stderr;                        \
            fprintf(out_, "%s:%d: check failed: %s\n  ", __FILE__, __LINE__, #cond); \
            fprintf(out_, __VA_ARGS__);                                         \
            fprintf(out_, "\n");                                                \
            fflush(out_);                                                       \
            abort();                                                            \
        }                                                                       \
    } while (0)

#endif
