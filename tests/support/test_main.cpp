/* test_main - main of every test program: the library's changes are
 * applied, as in a run that restores, before the tests start. */
#include "restore/apply_effects.h"

#include <gtest/gtest.h>

int main(int argc, char **argv)
{
    effects_use(&APPLY_EFFECTS);
    testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
