/* hash_ahead - password hashes made on a second processor, ahead of use.
 *
 * Every entry has a state: free, claimed or done.  The thread walks the
 * entries in order and hashes each one it can claim; the caller, asking
 * for entry i, claims it itself when the thread has not got there yet and
 * hashes it on the spot (the thread then skips it), and otherwise waits
 * for the thread to mark it done (a futex on the entry's state, no lock).
 * The caller thus never waits for the thread to start or to catch up, only
 * for a hash already under way.  The thread only calls crypt_r() on memory
 * allocated before it starts: it takes no lock and allocates nothing, so
 * the processes the caller forks meanwhile cannot inherit a lock it holds.
 */
#include "restore/hash_ahead.h"

#include "db/connect.h"

#include <atomic>
#include <crypt.h>
#include <pthread.h>
#include <stdlib.h>
#include <string.h>

/* Room for any hash crypt_r() writes (its output buffer's size); a slot
 * left empty means no hash. */
typedef char HashSlot[CRYPT_OUTPUT_SIZE];

enum { ENTRY_FREE, ENTRY_CLAIMED, ENTRY_DONE };

static const char *const *ahead_plain;
static const char *ahead_salt;
static size_t ahead_count;
static HashSlot *ahead_slot;
static unsigned char *ahead_state;
static struct crypt_data *thread_data, *caller_data;
static pthread_t ahead_thread;
static int ahead_running;
static std::atomic<int> ahead_quit;

/* state - entry i's state, shared with the other thread */
static std::atomic_ref<unsigned char> state(size_t i)
{
    return std::atomic_ref<unsigned char>(ahead_state[i]);
}

/* hash_one - hash entry i into its slot (which stays empty without one)
 * with the given work area, and mark it done */
static void hash_one(size_t i, struct crypt_data *data)
{
    if (ahead_plain[i] != nullptr) {
        const char *hash = crypt_r(ahead_plain[i], ahead_salt, data);
        if (hash != nullptr && strlen(hash) < sizeof(HashSlot))
            memcpy(ahead_slot[i], hash, strlen(hash) + 1);
    }
    state(i).store(ENTRY_DONE, std::memory_order_release);
    state(i).notify_all();
}

/* claim - 1 when entry i was free and now belongs to the claimant */
static int claim(size_t i)
{
    unsigned char free_state = ENTRY_FREE;
    return state(i).compare_exchange_strong(free_state, ENTRY_CLAIMED, std::memory_order_acquire);
}

/* hash_all - the thread: every entry it can claim, in order, until told
 * to quit */
static void *hash_all(void *)
{
    for (size_t i = 0; i < ahead_count && !ahead_quit.load(std::memory_order_relaxed); i++)
        if (ahead_plain[i] != nullptr && claim(i))
            hash_one(i, thread_data);
    return nullptr;
}

/* work_area - a zeroed crypt_r() work area, made once */
static struct crypt_data *work_area(struct crypt_data **area)
{
    if (*area == nullptr)
        *area = static_cast<struct crypt_data *>(memset(xrealloc(nullptr, sizeof(**area)), 0, sizeof(**area)));
    return *area;
}

void hash_ahead_start(const char *const *plain, size_t n, const char *salt)
{
    size_t plain_count = 0;

    ahead_plain = plain;
    ahead_salt = salt;
    ahead_count = n;
    size_t slots = (n ? n : 1) * sizeof(HashSlot);
    ahead_slot = static_cast<HashSlot *>(memset(xrealloc(nullptr, slots), 0, slots));
    ahead_state = static_cast<unsigned char *>(memset(xrealloc(nullptr, n ? n : 1), ENTRY_FREE, n ? n : 1));
    for (size_t i = 0; i < n; i++)
        plain_count += plain[i] != nullptr;
    work_area(&thread_data);
    work_area(&caller_data);
    ahead_quit.store(0);
    /* A thread for a single password would only make the caller wait for
     * it; without one every entry is hashed when it is asked for. */
    ahead_running = plain_count > 1 && pthread_create(&ahead_thread, nullptr, hash_all, nullptr) == 0;
}

const char *hash_ahead_get(size_t i)
{
    if (i >= ahead_count)
        return nullptr;
    if (claim(i)) {
        hash_one(i, caller_data);
    } else {
        unsigned char now;
        while ((now = state(i).load(std::memory_order_acquire)) != ENTRY_DONE)
            state(i).wait(now, std::memory_order_acquire);
    }
    return ahead_slot[i][0] != '\0' ? ahead_slot[i] : nullptr;
}

void hash_ahead_stop(void)
{
    if (ahead_running) {
        ahead_quit.store(1);
        pthread_join(ahead_thread, nullptr);
        ahead_running = 0;
    }
    free(ahead_slot);
    ahead_slot = nullptr;
    free(ahead_state);
    ahead_state = nullptr;
    ahead_plain = nullptr;
    ahead_count = 0;
}
