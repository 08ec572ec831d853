/* file_str - locked editing of shared line-oriented files.
 *
 * file_str() and file_str_list() add entries to a file or remove the lines
 * that equal or match them, under the file's named lock, through a
 * temporary file "<path>.tmp" and a rename, and put the file's owner, group
 * and mode back afterwards.  The editing rules themselves live in
 * line_edit.  Results: 0 on success, 1 on failure.
 */
#ifndef REBOX_FS_FILE_STR_H
#define REBOX_FS_FILE_STR_H

#include "fs/line_edit.h"

int file_str(const char *path, const char *line, int operation, int mode);
int file_str_list(const char *path, const char *const *lines, int operation, int mode);

#endif
