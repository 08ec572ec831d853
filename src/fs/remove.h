/* remove - whole trees removed, and objects set aside, through directory
 * descriptors.
 *
 * remove_tree_at() deletes a tree below an open directory without
 * following a link: it holds one directory open at a time and climbs back
 * through "..", checked against the device and inode it came down
 * through, so that a tree of any depth costs a few descriptors and no
 * stack, and a directory moved elsewhere meanwhile stops the removal
 * instead of leading it out of the tree.  rename_aside_at() moves an
 * object, in one step, to a new name of its own in the same directory.
 * random_letters() gives the letters such names are made of.
 */
#pragma once

/* remove_tree_at - delete name in the open directory dir and everything
 * below it; 0, or -1 with errno.  A missing name counts as removed. */
int remove_tree_at(int dir, const char *name);

/* rename_aside_at - move name in the open directory dir, in one step, to a
 * new name of its own there (".rebox-aside-" and six random characters,
 * written to aside, 32 bytes) that no mailbox or qmail file can have; 0, or
 * -1 with errno */
int rename_aside_at(int dir, const char *name, char *aside);

/* aside_hook - null in a run; a test sets it to act in the instant
 * between a caller's look at name in dir and rename_aside_at's move */
extern void (*aside_hook)(int dir, const char *name);

/* random_letters - n (at most 16) letters and digits from the kernel's
 * random source into buf; 0, or -1 */
int random_letters(char *buf, int n);
