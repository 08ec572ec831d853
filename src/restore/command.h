/* command - the whole rebox command, callable from a program's main. */
#ifndef REBOX_RESTORE_COMMAND_H
#define REBOX_RESTORE_COMMAND_H

int rebox_main(int argc, char **argv);

#endif
