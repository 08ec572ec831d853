/* hash_ahead - password hashes made on a second processor, ahead of use.
 *
 * An MD5-crypt hash takes a thousand rounds of MD5; for a server whose
 * mailboxes have plain passwords, making them one by one between the
 * mailboxes' directories and files is a large part of the rebuild.
 * hash_ahead_start() hands a list of passwords to a thread that hashes
 * them in order with one salt; hash_ahead_get() answers the hash of entry
 * i, making it itself if the thread has not started on it yet, and
 * hash_ahead_stop() ends the thread and forgets the list.  The list (and
 * the texts it points to) must stay untouched until hash_ahead_stop().
 * When no thread can be started the hashes are made by the caller, one by
 * one, as they are asked for.
 */
#ifndef REBOX_RESTORE_HASH_AHEAD_H
#define REBOX_RESTORE_HASH_AHEAD_H

#include <stddef.h>

/* hash_ahead_start - hash plain[0..n) with salt; null entries are skipped */
void hash_ahead_start(const char *const *plain, size_t n, const char *salt);

/* hash_ahead_get - crypt()'s answer for entry i: null when it failed or
 * the entry was null; valid until hash_ahead_stop() */
const char *hash_ahead_get(size_t i);

void hash_ahead_stop(void);

#endif
