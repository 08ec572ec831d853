/* hash_ahead - password hashes made on a second processor, ahead of use.
 *
 * The thread writes hash i into its slot, then publishes i + 1 in
 * ahead_done; the caller waits on that counter (a futex, no lock) and
 * reads slot i only once the counter is past it.  The thread only calls
 * crypt_r() on memory allocated before it starts: it takes no lock and
 * allocates nothing, so the processes the caller forks meanwhile cannot
 * inherit a lock it holds.
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

static const char *const *ahead_plain;
static const char *ahead_salt;
static size_t ahead_count;
static HashSlot *ahead_slot;
static struct crypt_data *ahead_data;
static pthread_t ahead_thread;
static int ahead_running;
static std::atomic<size_t> ahead_done;
static std::atomic<int> ahead_quit;

/* hash_one - hash entry i into its slot, which stays empty without one */
static void hash_one(size_t i)
{
    if (ahead_plain[i] == nullptr)
        return;
    const char *hash = crypt_r(ahead_plain[i], ahead_salt, ahead_data);
    if (hash != nullptr && strlen(hash) < sizeof(HashSlot))
        memcpy(ahead_slot[i], hash, strlen(hash) + 1);
}

/* hash_all - the thread: every entry in order, until told to quit */
static void *hash_all(void *)
{
    for (size_t i = 0; i < ahead_count && !ahead_quit.load(std::memory_order_relaxed); i++) {
        hash_one(i);
        ahead_done.store(i + 1, std::memory_order_release);
        ahead_done.notify_all();
    }
    return nullptr;
}

void hash_ahead_start(const char *const *plain, size_t n, const char *salt)
{
    ahead_plain = plain;
    ahead_salt = salt;
    ahead_count = n;
    size_t size = (n ? n : 1) * sizeof(HashSlot);
    ahead_slot = static_cast<HashSlot *>(memset(xrealloc(nullptr, size), 0, size));
    if (ahead_data == nullptr)
        ahead_data = static_cast<struct crypt_data *>(
            memset(xrealloc(nullptr, sizeof(*ahead_data)), 0, sizeof(*ahead_data)));
    ahead_done.store(0);
    ahead_quit.store(0);
    /* Without a thread every entry is hashed when it is asked for. */
    ahead_running = n > 0 && pthread_create(&ahead_thread, nullptr, hash_all, nullptr) == 0;
}

const char *hash_ahead_get(size_t i)
{
    if (i >= ahead_count)
        return nullptr;
    if (ahead_running) {
        size_t done;
        while ((done = ahead_done.load(std::memory_order_acquire)) <= i)
            ahead_done.wait(done, std::memory_order_acquire);
    } else {
        hash_one(i);
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
    ahead_plain = nullptr;
    ahead_count = 0;
}
