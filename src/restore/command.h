/* command - the whole rebox command, callable from a program's main. */
#pragma once

int rebox_main(int argc, char **argv);
