/* argvec - a bounded argument vector assembled without heap allocation.
 *
 * An ArgVec holds at most ARGVEC_MAX_ENTRIES non-empty texts, copied one
 * after the other into a fixed character area; the slot after the last
 * entry is always null, so `slots` can be handed to execv() as it stands.
 * argv_init() empties a vector, argv_add() appends a copy of a text and
 * argv_cut() rolls a vector back to an earlier count and fill.
 */
#pragma once

#include <stddef.h>
#include <stdint.h>

#define ARGVEC_SLOTS 100
#define ARGVEC_AREA 16384
/* one slot always holds the terminating null */
#define ARGVEC_MAX_ENTRIES (ARGVEC_SLOTS - 1)

struct ArgVec {
    char *slots[ARGVEC_SLOTS];
    int32_t count;
    char area[ARGVEC_AREA];
    size_t used;
};

void argv_init(ArgVec *vec);
int argv_add(ArgVec *vec, const char *text);
void argv_cut(ArgVec *vec, int32_t count, size_t used);
