/* effect - the table of effects of this process (see effect.h). */
#include "fs/effect.h"

#include "runtime/report.h"

#include <errno.h>

/* The table the command chose. */
static const Effects *chosen;

const Effects *effects(void)
{
    /* Only a program that chose none could get here: a fault of its own,
     * never a run that writes by default. */
    if (chosen == nullptr) {
        errno = 0;
        report(1, "No table of effects was chosen for this run");
    }
    return chosen;
}

void effects_use(const Effects *table)
{
    chosen = table;
}
