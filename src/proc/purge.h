/* purge - deleting what deferred removal has set aside.
 *
 * purge_deleted_entries() runs "/bin/rm -rf" on every directory whose name
 * begins with DEFERRED_PREFIX in the deferred-removal base directories
 * (fs/tree), in their order; one it cannot remove stays for the next purge.
 * It changes the working directory while it runs and restores it after.
 */
#pragma once

void purge_deleted_entries(void);
