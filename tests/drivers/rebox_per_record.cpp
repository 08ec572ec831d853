/* rebox_per_record - the rebox command with the rebuild pass editing every
 * record on disk at once, for comparing it with the batched pass. */
#include "restore/command.h"
#include "restore/rebuild.h"

int main(int argc, char **argv)
{
    rebuild_batched = 0;
    return rebox_main(argc, argv);
}
