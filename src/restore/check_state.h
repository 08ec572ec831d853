/* check_state - what a check run remembers while the pass walks the panel.
 *
 * A check run verifies each plain password of the panel against its hash
 * on disk in users/poppasswd, so that the run's new salt does not count as
 * a change (check_known_hash), and notes the domains and mailboxes the
 * panel has, to report each directory on disk that names none of them as
 * surplus (check_seen_mailbox, check_domain_done, check_pass_done).  Only
 * a run that called check_state_begin is a check: in any other, every
 * call does nothing and check_known_hash gives the hash it was handed.
 */
#ifndef REBOX_RESTORE_CHECK_STATE_H
#define REBOX_RESTORE_CHECK_STATE_H

/* check_state_begin - the run is a check: users/poppasswd's hashes read
 * from the disk */
void check_state_begin(void);

/* check_known_hash - the hash on disk of a mailbox's plain password when
 * it verifies the password, else hash */
const char *check_known_hash(const char *ascii, const char *mail_name, const char *plain,
                             const char *hash);

void check_seen_mailbox(const char *mail_name);

/* check_domain_done - the domain's surplus mailbox directories reported */
void check_domain_done(const char *ascii);

/* check_pass_done - the surplus domain directories reported */
void check_pass_done(void);

#endif
