/* argvec - the bounded argument vector of the spam-filter command lines.
 *
 * Entries are stored in the vector's own area; nothing is allocated, so a
 * command line that does not fit is refused entry by entry instead of
 * growing.  The caller decides what a refusal means.
 */
#include "filters/argvec.h"

#include <stdio.h>

void argv_init(ArgVec *vec)
{
    for (int i = 0; i < ARGVEC_SLOTS; i++)
        vec->slots[i] = nullptr;
    vec->count = 0;
    vec->used = 0;
}

/* argv_add - append a copy of text; 1 when added, 0 when refused (empty
 * text, no room for the copy and its terminator, or no free slot).  A
 * refused copy may have been written into the free part of the area; it is
 * simply not counted. */
int argv_add(ArgVec *vec, const char *text)
{
    size_t room = ARGVEC_AREA - vec->used;
    int n = snprintf(vec->area + vec->used, room, "%s", text);

    if (n < 1 || static_cast<size_t>(n) >= room || vec->count > ARGVEC_MAX_ENTRIES - 1)
        return 0;
    vec->slots[vec->count] = vec->area + vec->used;
    vec->count++;
    vec->slots[vec->count] = nullptr;
    vec->used += static_cast<size_t>(n) + 1;
    return 1;
}

/* argv_cut - roll the vector back to an earlier state (count entries, used
 * bytes), keeping the null after the last entry */
void argv_cut(ArgVec *vec, int32_t count, size_t used)
{
    for (int32_t i = count; i < vec->count; i++)
        vec->slots[i] = nullptr;
    vec->count = count;
    vec->used = used;
    vec->slots[count] = nullptr;
}
