/* hash_pool - password hashes made on every processor (see hash_pool.h).
 *
 * The first thread reads the passwords, in the pass's order (domains, then
 * a domain's mailboxes, by identifier), with each mailbox's home when the
 * salt depends on it, and publishes the list; then every thread takes the
 * next entry nobody has claimed, until the list ends or it is told to
 * quit.  Each entry has a state: free, claimed by a thread,
 * claimed by the caller, or done.  The caller, asking for a mailbox's
 * hash, waits only for one a thread is making; one nobody has started it
 * claims and makes itself.  States are atomic bytes waited on with
 * futexes; there is no lock.  The threads allocate memory and talk to the
 * server; the children the pass starts meanwhile only exec, and the ones
 * that run the shell come after hash_pool_stop().
 */
#include "restore/hash_pool.h"

#include "restore/md5_crypt.h"

#include <algorithm>
#include <atomic>
#include <crypt.h>
#include <pthread.h>
#include <sched.h>
#include <stdlib.h>
#include <stdio.h>
#include <string.h>
#include <sys/resource.h>
#include <time.h>
#include <unistd.h>

#include <string>
#include <unordered_map>
#include <vector>

enum { ENTRY_FREE, ENTRY_THREAD, ENTRY_CALLER, ENTRY_DONE };

/* The plain passwords of the mail domains' postboxes: the mailbox's
 * identifier, its domain's, the password (postbox on, not a stored crypt
 * hash) and the mail name. */
static const char PLAINS_QUERY[] =
    "SELECT m.id, m.dom_id, IFNULL(a.password, ''), m.mail_name FROM mail m JOIN DomainServices s ON s.dom_id = m.dom_id "
    "AND s.type = 'mail' LEFT JOIN accounts a ON a.id = m.account_id WHERE m.postbox <> 'false' "
    "AND (a.type IS NULL OR a.type <> 'crypt')";

/* HashEntry - a mailbox's plain password, its home (only where the salt
 * depends on it) and its hash; made is 1 when the hash is there */
struct HashEntry {
    unsigned long long id, domain;
    std::string plain, home;
    unsigned char state, made;
    char hash[64];
};

const char HASH_NONE[] = "$1$";

static MYSQL *pool_conn;
static std::string &pool_query = *new std::string;
static char pool_salt[12];
static LoginSalt login_salt;
static std::vector<pthread_t> threads;
/* Never destroyed at exit: a fatal error ends the process while the
 * threads may still use them. */
static std::vector<HashEntry> &entries = *new std::vector<HashEntry>;
static std::unordered_map<unsigned long long, size_t> &by_id = *new std::unordered_map<unsigned long long, size_t>;
/* The ASCII names of the domains, by identifier, where homes are asked. */
static std::unordered_map<unsigned long long, std::string> &domain_ascii =
    *new std::unordered_map<unsigned long long, std::string>;
static std::atomic<size_t> next_entry;
static std::atomic<int> quit;
static unsigned char ready; /* 1: the list is read, 2: it could not be */
static struct crypt_data caller_data;

/* at - an atomic view of a state byte shared with the other threads */
static std::atomic_ref<unsigned char> at(unsigned char &byte)
{
    return std::atomic_ref<unsigned char>(byte);
}

/* set - give a state its final value and wake whoever waits on it */
static void set(unsigned char &byte, unsigned char value)
{
    at(byte).store(value, std::memory_order_release);
    at(byte).notify_all();
}

/* read_entries - the passwords in the pass's order; 0, or -1 when the
 * server failed */
static int read_entries(void)
{
    if (mysql_real_query(pool_conn, pool_query.data(), pool_query.size()) != 0)
        return -1;
    MYSQL_RES *res = mysql_store_result(pool_conn);
    if (res == nullptr)
        return -1;
    entries.reserve(mysql_num_rows(res));
    while (MYSQL_ROW row = mysql_fetch_row(res)) {
        unsigned long long id = strtoull(row[0], nullptr, 10), domain = strtoull(row[1], nullptr, 10);
        char home[QMAIL_BUF_SIZE] = "";
        auto ascii = login_salt != nullptr ? domain_ascii.find(domain) : domain_ascii.end();
        if (ascii != domain_ascii.end() && row[3] != nullptr)
            mail_path(home, ascii->second.c_str(), row[3], nullptr);
        entries.push_back({id, domain, row[2], home, ENTRY_FREE, 0, {}});
    }
    mysql_free_result(res);
    std::stable_sort(entries.begin(), entries.end(), [](const HashEntry &a, const HashEntry &b) {
        return a.domain != b.domain ? a.domain < b.domain : a.id < b.id;
    });
    for (size_t i = 0; i < entries.size(); i++)
        by_id[entries[i].id] = i;
    return 0;
}

/* salt_for - the salt of the mailbox at home: null for the run's, "" for
 * none */
static const char *salt_for(const char *home)
{
    return login_salt != nullptr && *home != '\0' ? login_salt(home) : nullptr;
}

/* hash_with - the hash of plain with salt (see hash_pool_get), made in
 * data unless made already (made: a lane's answer, or "") */
static const char *hash_with(const char *plain, const char *salt, const char *made, struct crypt_data *data)
{
    /* Nothing to compare with: nothing hashed, but a password crypt would
     * refuse (too long for it) is still told. */
    if (salt != nullptr && *salt == '\0')
        return strlen(plain) < CRYPT_MAX_PASSPHRASE_SIZE ? HASH_NONE : "*0";
    if (*made != '\0')
        return made;
    const char *hash = crypt_r(plain, salt != nullptr ? salt : pool_salt, data);
    /* A hash on disk whose salt crypt cannot read: the run's salt. */
    if (salt != nullptr && (hash == nullptr || *hash == '*'))
        hash = crypt_r(plain, pool_salt, data);
    return hash;
}

/* hash_batch - the n claimed entries hashed, together where they can be */
static void hash_batch(HashEntry *const batch[], int n, struct crypt_data *data)
{
    const char *plains[MD5_LANES], *salts[MD5_LANES], *salt[MD5_LANES];
    char made[MD5_LANES][MD5_CRYPT_SIZE];
    int at[MD5_LANES], m = 0;

    for (int k = 0; k < n; k++) {
        salt[k] = salt_for(batch[k]->home.c_str());
        at[k] = -1;
        if (salt[k] == nullptr || *salt[k] != '\0') {
            plains[m] = batch[k]->plain.c_str();
            salts[m] = salt[k] != nullptr ? salt[k] : pool_salt;
            at[k] = m++;
        }
    }
    md5_crypt_lanes(plains, salts, m, made);
    for (int k = 0; k < n; k++) {
        HashEntry *e = batch[k];
        const char *hash = hash_with(e->plain.c_str(), salt[k], at[k] >= 0 ? made[at[k]] : "", data);
        if (hash != nullptr && strlen(hash) < sizeof(e->hash)) {
            memcpy(e->hash, hash, strlen(hash) + 1);
            e->made = 1;
        }
        set(e->state, ENTRY_DONE);
    }
}

/* hash_all - a thread, below the pass's priority: the first reads the
 * list, then each hashes the entries nobody has claimed, a lane's worth
 * at a time */
static void *hash_all(void *first)
{
    struct crypt_data data = {};

    setpriority(PRIO_PROCESS, static_cast<id_t>(gettid()), 10);
    if (first != nullptr) {
        mysql_thread_init();
        set(ready, read_entries() == 0 ? 1 : 2);
        mysql_thread_end();
    }
    while (at(ready).load(std::memory_order_acquire) == 0)
        at(ready).wait(0, std::memory_order_acquire);
    for (size_t i; at(ready).load() == 1 && !quit.load() && (i = next_entry.fetch_add(MD5_LANES)) < entries.size();) {
        HashEntry *batch[MD5_LANES];
        int n = 0;
        for (size_t j = i; j < entries.size() && j < i + MD5_LANES; j++) {
            unsigned char free_state = ENTRY_FREE;
            if (at(entries[j].state).compare_exchange_strong(free_state, ENTRY_THREAD, std::memory_order_acq_rel))
                batch[n++] = &entries[j];
        }
        hash_batch(batch, n, &data);
    }
    return nullptr;
}

/* processors - how many processors the process may run on */
static int processors(void)
{
    cpu_set_t set;

    return sched_getaffinity(0, sizeof(set), &set) == 0 && CPU_COUNT(&set) > 0 ? CPU_COUNT(&set) : 1;
}

void hash_pool_start(MYSQL *conn, const char *salt, LoginSalt salt_of, const MailDomainRow *rows, size_t n,
                     const char *domain_ids)
{
    static const char alphabet[] = "./0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz";

    srand(time(nullptr));
    memcpy(pool_salt, "$1$", 3);
    for (int i = 3; i < 11; i++)
        pool_salt[i] = alphabet[(static_cast<int>(rand() * 64.0 * 4.656612873077393e-10) + 1) % 64];
    pool_salt[11] = 0;
    if (salt != nullptr)
        snprintf(pool_salt, sizeof(pool_salt), "%s", salt);
    pool_conn = conn;
    pool_query = PLAINS_QUERY;
    if (domain_ids != nullptr)
        pool_query += std::string(" AND m.dom_id IN (") + domain_ids + ")";
    login_salt = salt_of;
    entries.clear();
    by_id.clear();
    domain_ascii.clear();
    for (size_t k = 0; salt_of != nullptr && k < n; k++)
        if (rows[k].rule == nullptr)
            domain_ascii[strtoull(rows[k].id, nullptr, 10)] = rows[k].ascii;
    next_entry.store(0);
    quit.store(0);
    ready = conn != nullptr ? 0 : 2;
    /* A thread on every processor: the pass, above them, takes what it
     * needs first, and hashes whatever they have not started when it gets
     * there. */
    for (int threads_n = processors(), k = 0; conn != nullptr && k < threads_n; k++) {
        pthread_t t;
        if (pthread_create(&t, nullptr, hash_all, k == 0 ? conn : nullptr) != 0)
            break;
        threads.push_back(t);
    }
    /* Without a thread the caller makes every hash itself. */
    if (threads.empty())
        ready = 2;
}

const char *hash_pool_get(const char *mailbox_id, const char *home, const char *plain)
{
    if (at(ready).load(std::memory_order_acquire) == 1) {
        auto found = by_id.find(strtoull(mailbox_id, nullptr, 10));
        if (found != by_id.end()) {
            HashEntry *e = &entries[found->second];
            unsigned char free_state = ENTRY_FREE;
            if (e->plain == plain && (login_salt == nullptr || e->home == home)
                && !at(e->state).compare_exchange_strong(free_state, ENTRY_CALLER)) {
                unsigned char now;
                while ((now = at(e->state).load(std::memory_order_acquire)) == ENTRY_THREAD)
                    at(e->state).wait(now, std::memory_order_acquire);
                if (now == ENTRY_DONE && e->made)
                    return e->hash;
            }
        }
    }
    return hash_with(plain, salt_for(login_salt != nullptr ? home : ""), "", &caller_data);
}

void hash_pool_stop(void)
{
    quit.store(1);
    /* A thread waiting for the list is let go once it is read. */
    for (pthread_t t : threads)
        pthread_join(t, nullptr);
    threads.clear();
    entries.clear();
    by_id.clear();
    domain_ascii.clear();
    if (pool_conn != nullptr)
        mysql_close(pool_conn);
    pool_conn = nullptr;
}
