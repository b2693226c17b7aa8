// What the processes of the server share: made bytes within a budget, counters, what each process is
// doing, the connections of all, and the files that have brought processes down. One block of memory,
// made before the first process is started; a lock that outlives the death of its owner.

#ifndef HOST_SERVE_SHARED_H
#define HOST_SERVE_SHARED_H

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <set>
#include <string>
#include <string_view>

#include <sys/types.h>

#include "client_address.h"

/// What is counted over all processes since the start.
struct Counters {
    /// Upper ends of the classes of times, in ms; the last class has none.
    static constexpr std::array<unsigned, 10> LIMITS_MS = {1,  2,   5,   10,  20,
                                                           50, 100, 200, 500, 1000};

    std::array<uint64_t, 6> answers;  ///< by the first digit of their status; [0] is not used
    uint64_t bytes;                   ///< of bodies, as handed to the network
    uint64_t hits, misses;            ///< of segments
    uint64_t segments;                ///< made
    uint64_t segment_bytes;           ///< made
    uint64_t segment_us;              ///< that making them took
    std::array<uint64_t, LIMITS_MS.size() + 1> segment_times;
    uint64_t surveys;
    uint64_t dropped;  ///< connections that were idle or slow
    uint64_t refused;  ///< connections, since their address had too many or no place was left
    uint64_t deaths;   ///< processes that had to be replaced
};

enum class Role { SERVER, MAKER };

/// One process. Its place stays when it is replaced.
struct Slot {
    pid_t pid;
    Role role;
    uint64_t memory;       ///< bytes that are its own
    uint64_t connections;  ///< open
    bool f_ready;          ///< a maker, for jobs
    bool f_working;        ///< a maker, on the job below
    uint32_t server;       ///< the slot that wants it
    uint64_t job;
    uint64_t subject;  ///< a hash of the file
    int64_t since;     ///< of steady_seconds()
    uint64_t cpu_us;   ///< that the process had used before
};

class Shared {
public:
    static constexpr size_t MOST_SLOTS = 130;

    /// A file that has failed so often of late is left alone for a while.
    static constexpr unsigned MOST_FAILURES = 3;

    /// budget: bytes of the cache; connections: at most, of all servers. Throws NotDone.
    Shared(uint64_t budget, uint64_t connections);

    uint64_t budget() const { return m_budget; }

    /// The size of what is kept under the key. Of two processes one may find it no more.
    std::optional<uint64_t> find(const std::string &key) const;
    /// Copies a part, which has to be within the size. False when it has gone meanwhile.
    bool read(const std::string &key, uint64_t offset, uint8_t *to, size_t size) const;
    /// Keeps the bytes; what was put first goes first. False when the budget is too small for them.
    bool put(const std::string &key, const uint8_t *bytes, size_t size);

    /// change(Counters &) under the lock.
    template <typename Change> void count(const Change &change)
    {
        const Lock lock(*this);
        change(counters_within());
    }
    Counters counters() const;
    uint64_t cached() const;  ///< bytes kept

    /// change(Slot &) under the lock.
    template <typename Change> void update(size_t slot, const Change &change)
    {
        const Lock lock(*this);
        change(slot_within(slot));
    }
    Slot slot(size_t slot) const;
    /// Of the process in the slot nothing is left but this.
    void clear(size_t slot);

    /// A maker is ready for jobs.
    void note_ready(size_t slot);
    /// Since when there has been none, of steady_seconds().
    std::optional<int64_t> without_makers_since() const;
    /// Whether a maker has had the file in hand for more than a moment.
    bool is_slow(uint64_t subject) const;
    /// The server's jobs that makers have in hand.
    std::set<uint64_t> jobs_in_hand(size_t server) const;

    /// A connection of the server in the slot; its place among all. Nothing when there are most from the
    /// address already, or no place is left.
    std::optional<size_t> enter(size_t slot, const ClientAddress &address, uint64_t most);
    void leave(size_t place);

    /// A process died of the file, or couldn't end its work in time. failures: what that counts for.
    void suspect(uint64_t subject, unsigned failures);
    /// Whether that has happened too often of late.
    bool is_suspect(uint64_t subject) const;

private:
    struct Region;
    struct Entry;
    struct Connection;
    class Lock {
    public:
        explicit Lock(const Shared &shared);
        ~Lock();
        Lock(const Lock &) = delete;
        Lock &operator=(const Lock &) = delete;

    private:
        Region &m_region;
    };

    Counters &counters_within();
    Slot &slot_within(size_t slot);
    const Entry *entry_of(const std::string &key, uint64_t hash) const;
    bool is_kept(const Entry &entry) const;
    void copy_out(uint64_t at, uint8_t *to, size_t size) const;
    void copy_in(uint64_t at, const uint8_t *from, size_t size);

    // Not in the block, where a process that was taken over could change them.
    const uint64_t m_budget;
    const uint64_t m_connection_count;
    Region *m_region;
    Connection *m_connections;
    uint8_t *m_bytes;
};

/// FNV-1a
uint64_t hash_of(std::string_view text);

/// Of a clock that is never set, in seconds.
int64_t steady_seconds();

#endif
