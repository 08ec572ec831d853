/* hash_ahead - password hashes made on a second processor, ahead of use.
 *
 * The thread walks the lists in order.  Each list has a state: free,
 * being read by the thread, ready (read), or the caller's (the caller got
 * there first: the thread passes it over, and so catches up with the pass
 * at once instead of hashing what is no longer wanted).  Within a ready
 * list every entry has a state too: free, claimed by the thread, claimed
 * by the caller, or done.  The caller, asking for entry i, waits only for
 * a hash already under way; one the thread has not started it claims and
 * makes itself.  When the pass leaves a list, it claims what is left, waits
 * for the thread to be out of the list and frees it.  States are atomic
 * bytes waited on with futexes; there is no lock.
 *
 * The thread reads at most HASH_LEAD entries more than the pass has left
 * behind, so a slow pass (a fresh rebuild, making every file) keeps only
 * a window of lists in memory.  The thread allocates memory and talks to
 * the server; the children the pass starts meanwhile only exec, and the
 * ones that run the shell come after hash_ahead_stop().
 */
#include "restore/hash_ahead.h"

#include <atomic>
#include <crypt.h>
#include <pthread.h>
#include <stdlib.h>
#include <string.h>

/* How many entries the thread may have read that the pass has not yet
 * left behind. */
static const size_t HASH_LEAD = 8192;

enum { ENTRY_FREE, ENTRY_THREAD, ENTRY_CALLER, ENTRY_DONE };
enum { LIST_FREE, LIST_READING, LIST_READY, LIST_CALLER };

/* HashEntry - a row's plain password (null: none) and its hash; made is 1
 * when the hash is there, 0 when crypt failed or its answer did not fit */
struct HashEntry {
    const char *plain;
    unsigned char state, made;
    char hash[64];
};

/* HashList - one mailbox list as the thread read it */
struct HashList {
    size_t n;
    HashEntry *entry;
    char *texts;
    unsigned char thread_out; /* 1 once the thread is done with it */
};

static MYSQL *thread_conn;
static const char *const *list_query;
static size_t list_count;
static HashOrder list_order;
static HashPlain list_plain;
static const char *run_salt;
static unsigned char *list_state;
static HashList **list_read;
static std::atomic<size_t> pending;
static std::atomic<int> quit;
static pthread_t thread;
static int running;
static struct crypt_data thread_data, caller_data;

/* The list the pass is on. */
static HashList *current;
static size_t current_k;

/* at - an atomic view of a state byte shared with the other thread */
static std::atomic_ref<unsigned char> at(unsigned char &byte)
{
    return std::atomic_ref<unsigned char>(byte);
}

/* move - change a state from one value to another; 1 when it was from */
static int move(unsigned char &byte, unsigned char from, unsigned char to)
{
    return at(byte).compare_exchange_strong(from, to, std::memory_order_acq_rel);
}

/* set - give a state its final value and wake whoever waits on it */
static void set(unsigned char &byte, unsigned char value)
{
    at(byte).store(value, std::memory_order_release);
    at(byte).notify_all();
}

/* wait_while - wait until a state is no longer busy; its value then */
static unsigned char wait_while(unsigned char &byte, unsigned char busy)
{
    unsigned char now;

    while ((now = at(byte).load(std::memory_order_acquire)) == busy)
        at(byte).wait(now, std::memory_order_acquire);
    return now;
}

/* free_list - free a list and give its room back to the thread */
static void free_list(HashList *list)
{
    pending.fetch_sub(list->n);
    pending.notify_all();
    free(list->entry);
    free(list->texts);
    free(list);
}

/* read_list - ask query over the thread's connection and copy its rows'
 * plain passwords; null when the server or the memory failed */
static HashList *read_list(const char *query)
{
    if (mysql_real_query(thread_conn, query, strlen(query)) != 0)
        return nullptr;
    MYSQL_RES *res = mysql_store_result(thread_conn);
    if (res == nullptr)
        return nullptr;
    std::vector<MYSQL_ROW> rows;
    list_order(res, &rows);
    size_t n = rows.size(), bytes = 1;
    for (MYSQL_ROW row : rows)
        if (const char *plain = list_plain(row))
            bytes += strlen(plain) + 1;
    HashList *list = static_cast<HashList *>(calloc(1, sizeof(HashList)));
    if (list != nullptr) {
        list->entry = static_cast<HashEntry *>(calloc(n ? n : 1, sizeof(HashEntry)));
        list->texts = static_cast<char *>(malloc(bytes));
    }
    if (list == nullptr || list->entry == nullptr || list->texts == nullptr) {
        if (list != nullptr) {
            free(list->entry);
            free(list);
        }
        mysql_free_result(res);
        return nullptr;
    }
    char *text = list->texts;
    for (size_t i = 0; i < n; i++) {
        const char *plain = list_plain(rows[i]);
        if (plain == nullptr) {
            list->entry[i].state = ENTRY_DONE;
            continue;
        }
        list->entry[i].plain = static_cast<char *>(memcpy(text, plain, strlen(plain) + 1));
        text += strlen(plain) + 1;
    }
    list->n = n;
    mysql_free_result(res);
    return list;
}

/* hash_entry - the thread's hash of one entry it claimed */
static void hash_entry(HashEntry *e)
{
    const char *hash = crypt_r(e->plain, run_salt, &thread_data);

    if (hash != nullptr && strlen(hash) < sizeof(e->hash)) {
        memcpy(e->hash, hash, strlen(hash) + 1);
        e->made = 1;
    }
    set(e->state, ENTRY_DONE);
}

/* hash_all - the thread: read each list the pass has not reached, hash
 * the entries nobody has claimed, until the lists end, a list cannot be
 * read, or it is told to quit */
static void *hash_all(void *)
{
    mysql_thread_init();
    for (size_t k = 0; k < list_count && !quit.load(); k++) {
        size_t now;
        while (!quit.load() && (now = pending.load()) >= HASH_LEAD)
            pending.wait(now);
        if (list_query[k] == nullptr || quit.load() || !move(list_state[k], LIST_FREE, LIST_READING))
            continue;
        HashList *list = read_list(list_query[k]);
        if (list != nullptr)
            pending.fetch_add(list->n);
        list_read[k] = list;
        set(list_state[k], list ? LIST_READY : LIST_CALLER);
        if (list == nullptr)
            break;
        for (size_t i = 0; i < list->n && !quit.load(); i++)
            if (move(list->entry[i].state, ENTRY_FREE, ENTRY_THREAD))
                hash_entry(&list->entry[i]);
        set(list->thread_out, 1);
    }
    mysql_thread_end();
    return nullptr;
}

void hash_ahead_start(MYSQL *conn, const char *const *queries, size_t n, HashOrder order, HashPlain plain,
                      const char *salt)
{
    list_order = order;
    thread_conn = conn;
    list_query = queries;
    list_count = n;
    list_plain = plain;
    run_salt = salt;
    current = nullptr;
    pending.store(0);
    quit.store(0);
    list_state = static_cast<unsigned char *>(calloc(n ? n : 1, 1));
    list_read = static_cast<HashList **>(calloc(n ? n : 1, sizeof(HashList *)));
    /* Without a connection, the memory or a thread the caller makes every
     * hash itself. */
    running = conn != nullptr && list_state != nullptr && list_read != nullptr
              && pthread_create(&thread, nullptr, hash_all, nullptr) == 0;
}

/* leave_current - the pass is done with its list: what the thread has not
 * started is the caller's, and the list is freed once the thread is out */
static void leave_current(void)
{
    if (current == nullptr)
        return;
    for (size_t i = 0; i < current->n; i++)
        move(current->entry[i].state, ENTRY_FREE, ENTRY_CALLER);
    wait_while(current->thread_out, 0);
    list_read[current_k] = nullptr;
    set(list_state[current_k], LIST_CALLER);
    free_list(current);
    current = nullptr;
}

void hash_ahead_domain(size_t k)
{
    leave_current();
    if (!running || k >= list_count || move(list_state[k], LIST_FREE, LIST_CALLER))
        return;
    if (wait_while(list_state[k], LIST_READING) != LIST_READY)
        return;
    current = list_read[k];
    current_k = k;
}

const char *hash_ahead_get(size_t i, const char *plain)
{
    if (current != nullptr && i < current->n) {
        HashEntry *e = &current->entry[i];
        if (e->plain != nullptr && strcmp(e->plain, plain) == 0
            && !move(e->state, ENTRY_FREE, ENTRY_CALLER)
            && wait_while(e->state, ENTRY_THREAD) == ENTRY_DONE && e->made)
            return e->hash;
    }
    return crypt_r(plain, run_salt, &caller_data);
}

void hash_ahead_stop(void)
{
    leave_current();
    if (running) {
        quit.store(1);
        pending.store(0);
        pending.notify_all();
        pthread_join(thread, nullptr);
        running = 0;
    }
    for (size_t k = 0; list_read != nullptr && k < list_count; k++)
        if (list_read[k] != nullptr)
            free_list(list_read[k]);
    free(list_read);
    free(list_state);
    list_read = nullptr;
    list_state = nullptr;
    list_count = 0;
    if (thread_conn != nullptr)
        mysql_close(thread_conn);
    thread_conn = nullptr;
}
