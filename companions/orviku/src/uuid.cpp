#include <orviku/uuid.hpp>

#include <pthread.h>
#include <sys/random.h>
#include <uuid/uuid.h>

#include <atomic>
#include <cerrno>
#include <cstddef>
#include <cstring>

namespace orviku {

namespace {

// libuuid makes about six system calls for every id (it reseeds and checks
// its process each time), which made the id the most expensive part of
// building a message. The random bytes of this many ids are fetched with one
// getrandom() instead, from the same kernel source.
constexpr std::size_t ids_per_refill = 64;
constexpr std::size_t id_bytes = sizeof(uuid_t);

// Counts the forks of this process: a child must never hand out ids made
// from random bytes that its parent has too.
std::atomic<unsigned> fork_generation{0};

void afterForkInChild() {
    fork_generation.fetch_add(1, std::memory_order_relaxed);
}

// Each thread draws from a pool of its own, so no lock is taken.
struct RandomPool {
    unsigned char bytes[ids_per_refill * id_bytes];
    std::size_t next_id = ids_per_refill;
    unsigned generation = 0;
};

thread_local RandomPool pool;

bool refill(RandomPool& random) {
    std::size_t filled = 0;
    while (filled < sizeof random.bytes) {
        const ssize_t got =
            getrandom(random.bytes + filled, sizeof random.bytes - filled, GRND_NONBLOCK);
        if (got < 0) {
            if (errno == EINTR) {
                continue;
            }
            return false;
        }
        filled += static_cast<std::size_t>(got);
    }
    random.next_id = 0;
    return true;
}

// Fills id with the next random bytes of this thread's pool; false when the
// kernel gives none (no getrandom, or its pool not yet initialised).
bool takeRandomId(uuid_t id) {
    static const bool fork_handler_installed =
        pthread_atfork(nullptr, nullptr, &afterForkInChild) == 0;
    const unsigned generation = fork_generation.load(std::memory_order_relaxed);
    if (pool.generation != generation || !fork_handler_installed) {
        pool.generation = generation;
        pool.next_id = ids_per_refill;
    }
    if (pool.next_id == ids_per_refill && !refill(pool)) {
        return false;
    }
    unsigned char* const bytes = pool.bytes + pool.next_id * id_bytes;
    std::memcpy(id, bytes, id_bytes);
    // Bytes once handed out are not kept around.
    std::memset(bytes, 0, id_bytes);
    ++pool.next_id;
    // Version 4 (random), variant 10: what uuid_generate_random produces.
    id[6] = static_cast<unsigned char>((id[6] & 0x0f) | 0x40);
    id[8] = static_cast<unsigned char>((id[8] & 0x3f) | 0x80);
    return true;
}

}  // namespace

std::string generate_str_uuid() {
    uuid_t id;
    if (!takeRandomId(id)) {
        uuid_generate_random(id);
    }
    char text[37];
    uuid_unparse_lower(id, text);
    return std::string(text, 36);
}

}  // namespace orviku
