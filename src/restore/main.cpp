/* rebox - restore the mail server's configuration for all mailboxes. */
#include "restore/command.h"

int main(int argc, char **argv)
{
    return rebox_main(argc, argv);
}
