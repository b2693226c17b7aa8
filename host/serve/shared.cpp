#include "shared.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>

#include <pthread.h>
#include <sys/mman.h>

#include "io/message.h"

namespace {

// After its last failure; those before count as long.
constexpr int64_t FAILURE_SECONDS = 60;
// Most jobs take milliseconds.
constexpr int64_t SLOW_SECONDS = 1;

constexpr size_t MOST_ENTRIES = 4096;
constexpr size_t MOST_SUSPECTS = 256;
// The lock is held for a copy of this size at most.
constexpr size_t PIECE_SIZE = 256 * 1024;

struct Suspect {
    uint64_t subject;
    unsigned failures;
    int64_t last;  // of steady_seconds()
};

}  // namespace

// The bytes lie one after another along an endless line, of which the last `budget` bytes are there:
// nothing has to be removed, and a process that dies at any place leaves nothing that isn't true.
struct Shared::Entry {
    uint64_t hash;
    uint64_t at;  // on the line: the key, then the bytes
    uint32_t key_size;
    uint64_t size;
};

// One that a server has accepted. What a server leaves that dies is cleared with its slot.
struct Shared::Connection {
    uint32_t owner;  // its slot and 1; 0: the place is free
    ClientAddress address;
};

struct Shared::Region {
    pthread_mutex_t mutex;
    int64_t without_makers;  // since; 0: there are some
    uint64_t end;            // of the line
    uint64_t entry_count;
    Entry entries[MOST_ENTRIES];  // the newest at entry_count - 1, modulo their number
    Counters counters;
    Slot slots[MOST_SLOTS];
    Suspect suspects[MOST_SUSPECTS];
};

Shared::Shared(uint64_t budget, uint64_t connections)
    : m_budget(budget)
    , m_connection_count(connections)
{
    constexpr uint64_t MOST = SIZE_MAX / 4;
    const uint64_t size = sizeof(Region) + connections * sizeof(Connection) + budget;
    void *const memory = budget > MOST || connections > MOST / sizeof(Connection)
                             ? MAP_FAILED
                             : mmap(nullptr, static_cast<size_t>(size), PROT_READ | PROT_WRITE,
                                    MAP_SHARED | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    if (memory == MAP_FAILED) throw NotDone("the cache", error_text(ENOMEM));
    m_region = new (memory) Region();
    m_connections = reinterpret_cast<Connection *>(m_region + 1);
    m_bytes = reinterpret_cast<uint8_t *>(m_connections + connections);
    m_region->without_makers = steady_seconds();
    pthread_mutexattr_t attributes;
    pthread_mutexattr_init(&attributes);
    pthread_mutexattr_setpshared(&attributes, PTHREAD_PROCESS_SHARED);
    pthread_mutexattr_setrobust(&attributes, PTHREAD_MUTEX_ROBUST);
    pthread_mutex_init(&m_region->mutex, &attributes);
    pthread_mutexattr_destroy(&attributes);
}

std::optional<uint64_t> Shared::find(const std::string &key) const
{
    const Lock lock(*this);
    const Entry *const entry = entry_of(key, hash_of(key));
    if (entry == nullptr) return {};
    return entry->size;
}

bool Shared::read(const std::string &key, uint64_t offset, uint8_t *to, size_t size) const
{
    const uint64_t hash = hash_of(key);
    const Lock lock(*this);
    const Entry *const entry = entry_of(key, hash);
    if (entry == nullptr || offset > entry->size || size > entry->size - offset) return false;
    copy_out(entry->at + entry->key_size + offset, to, size);
    return true;
}

bool Shared::put(const std::string &key, const uint8_t *bytes, size_t size)
{
    Entry entry = {hash_of(key), 0, static_cast<uint32_t>(key.size()), size};
    if (key.size() > m_budget || size > m_budget - key.size()) return false;
    {
        // Taken before anything is written there: what lay there isn't found from now on.
        const Lock lock(*this);
        entry.at = m_region->end;
        m_region->end += key.size() + size;
        copy_in(entry.at, reinterpret_cast<const uint8_t *>(key.data()), key.size());
    }
    for (size_t done = 0; done < size; done += std::min(PIECE_SIZE, size - done)) {
        const Lock lock(*this);
        if (!is_kept(entry)) return true;  // others have made so much that it has gone already
        copy_in(entry.at + key.size() + done, bytes + done, std::min(PIECE_SIZE, size - done));
    }
    const Lock lock(*this);
    m_region->entries[m_region->entry_count % MOST_ENTRIES] = entry;
    ++m_region->entry_count;
    return true;
}

Counters Shared::counters() const
{
    const Lock lock(*this);
    return m_region->counters;
}

uint64_t Shared::cached() const
{
    const Lock lock(*this);
    return std::min(m_region->end, m_budget);
}

Slot Shared::slot(size_t slot) const
{
    const Lock lock(*this);
    return m_region->slots[slot];
}

void Shared::clear(size_t slot)
{
    const Lock lock(*this);
    m_region->slots[slot] = {};
    for (size_t i = 0; i < m_connection_count; ++i) {
        if (m_connections[i].owner == slot + 1) m_connections[i].owner = 0;
    }
    const bool f_maker = std::any_of(std::begin(m_region->slots), std::end(m_region->slots),
                                     [](const Slot &other) { return other.f_ready; });
    if (!f_maker && m_region->without_makers == 0) m_region->without_makers = steady_seconds();
}

void Shared::note_ready(size_t slot)
{
    const Lock lock(*this);
    m_region->slots[slot].f_ready = true;
    m_region->without_makers = 0;
}

std::optional<int64_t> Shared::without_makers_since() const
{
    const Lock lock(*this);
    if (m_region->without_makers == 0) return {};
    return m_region->without_makers;
}

bool Shared::is_slow(uint64_t subject) const
{
    const Lock lock(*this);
    const int64_t now = steady_seconds();
    return std::any_of(
        std::begin(m_region->slots), std::end(m_region->slots), [&](const Slot &slot) {
            return slot.f_working && slot.subject == subject && now - slot.since > SLOW_SECONDS;
        });
}

std::set<uint64_t> Shared::jobs_in_hand(size_t server) const
{
    std::set<uint64_t> jobs;
    const Lock lock(*this);
    for (const Slot &slot : m_region->slots) {
        if (slot.f_working && slot.server == server) jobs.insert(slot.job);
    }
    return jobs;
}

std::optional<size_t> Shared::enter(size_t slot, const ClientAddress &address, uint64_t most)
{
    const Lock lock(*this);
    uint64_t count = 0;
    std::optional<size_t> place;
    for (size_t i = 0; i < m_connection_count; ++i) {
        const Connection &connection = m_connections[i];
        if (connection.owner == 0)
            place = i;
        else if (connection.address == address)
            ++count;
    }
    if (!place || count >= most) {
        ++m_region->counters.refused;
        return {};
    }
    m_connections[*place] = {static_cast<uint32_t>(slot + 1), address};
    return place;
}

void Shared::leave(size_t place)
{
    const Lock lock(*this);
    m_connections[place].owner = 0;
}

void Shared::suspect(uint64_t subject, unsigned failures)
{
    const Lock lock(*this);
    Suspect *place = &m_region->suspects[0];
    for (Suspect &suspect : m_region->suspects) {
        if (suspect.subject == subject) place = &suspect;
        if (place->subject != subject && suspect.last < place->last) place = &suspect;
    }
    const int64_t now = steady_seconds();
    if (place->subject != subject || now - place->last >= FAILURE_SECONDS)
        *place = {subject, 0, now};
    place->failures += failures;
    place->last = now;
}

bool Shared::is_suspect(uint64_t subject) const
{
    const Lock lock(*this);
    const int64_t now = steady_seconds();
    return std::any_of(std::begin(m_region->suspects), std::end(m_region->suspects),
                       [&](const Suspect &suspect) {
                           return suspect.subject == subject && suspect.failures >= MOST_FAILURES &&
                                  now - suspect.last < FAILURE_SECONDS;
                       });
}

uint64_t hash_of(std::string_view text)
{
    uint64_t hash = 0xcbf29ce484222325;
    for (const char letter : text)
        hash = (hash ^ static_cast<unsigned char>(letter)) * 0x100000001b3;
    return hash;
}

Shared::Lock::Lock(const Shared &shared)
    : m_region(*shared.m_region)
{
    if (pthread_mutex_lock(&m_region.mutex) == EOWNERDEAD)
        pthread_mutex_consistent(&m_region.mutex);
}

Shared::Lock::~Lock()
{
    pthread_mutex_unlock(&m_region.mutex);
}

Counters &Shared::counters_within()
{
    return m_region->counters;
}

Slot &Shared::slot_within(size_t slot)
{
    return m_region->slots[slot];
}

const Shared::Entry *Shared::entry_of(const std::string &key, uint64_t hash) const
{
    const uint64_t count = std::min<uint64_t>(m_region->entry_count, MOST_ENTRIES);
    for (uint64_t back = 1; back <= count; ++back) {
        const Entry &entry = m_region->entries[(m_region->entry_count - back) % MOST_ENTRIES];
        if (entry.hash != hash || entry.key_size != key.size() || !is_kept(entry)) continue;
        std::string found(key.size(), '\0');
        copy_out(entry.at, reinterpret_cast<uint8_t *>(found.data()), found.size());
        if (found == key) return &entry;
    }
    return nullptr;
}

// All of it is among the last bytes of the line. Says no to an entry that can't be, too.
bool Shared::is_kept(const Entry &entry) const
{
    const uint64_t from = m_region->end - entry.at;
    return entry.at <= m_region->end && from <= m_budget && entry.size <= from &&
           entry.key_size <= from - entry.size;
}

void Shared::copy_out(uint64_t at, uint8_t *to, size_t size) const
{
    const uint64_t from = at % m_budget;
    const auto first = static_cast<size_t>(std::min<uint64_t>(size, m_budget - from));
    memcpy(to, m_bytes + from, first);
    memcpy(to + first, m_bytes, size - first);
}

void Shared::copy_in(uint64_t at, const uint8_t *from, size_t size)
{
    const uint64_t to = at % m_budget;
    const auto first = static_cast<size_t>(std::min<uint64_t>(size, m_budget - to));
    memcpy(m_bytes + to, from, first);
    memcpy(m_bytes, from + first, size - first);
}

int64_t steady_seconds()
{
    timespec now = {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return now.tv_sec;
}
