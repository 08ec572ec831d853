/* shared_files - qmail's five shared files, held for the rebuild pass.
 *
 * shared_files_take() takes the named locks of control/rcpthosts,
 * control/virtualdomains, users/assign, users/poppasswd and
 * control/rejectnonexist once, in that order, and holds the files in
 * memory (fs/held_file) emptied, users/assign with its closing "." and
 * control/rejectnonexist as it is: every edit of the pass goes to those
 * copies, the signals to qmail-send wait, and the system users the files
 * are given to are looked up once.  A run limited to some domains holds
 * them as they are, less those domains' lines, and at the commit keeps in
 * place each of their lines the pass wrote again (fs/line_merge), so that
 * every other domain's lines stay as they were.  shared_files_commit(), when the pass
 * has succeeded, replaces each file that differs from the disk, whole and
 * together with the others, releases the locks and sends the signals;
 * files that cannot be written end the run.  Nothing reaches the disk
 * before: a fatal error or a kill leaves the previous files whole.
 */
#pragma once

#include "fs/effect.h"
#include "restore/domain_scope.h"

/* shared_files_take - the five files held, their locks, leftovers and
 * replacements through fx; scope: the run is limited to its domains (null
 * for a full run) */
void shared_files_take(const Effects *fx, DomainScope *scope, const MailDomains *domains);
/* shared_files_commit - the files written; scope: the one they were
 * taken for */
void shared_files_commit(const DomainScope *scope);
