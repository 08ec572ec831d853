/* snapshot - a directory tree as text, for comparing whole trees.
 *
 * tree_snapshot() lists every entry below a directory in name order, one
 * line each: relative path, type, mode, owner, group, and for regular files
 * and symbolic links their content or target.
 */
#pragma once

#include <string>

std::string tree_snapshot(const std::string &dir);

/* file_meta - "mode uid gid" of one path, e.g. "0600 7781 7781" */
std::string file_meta(const std::string &path);
