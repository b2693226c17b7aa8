// What a server has asked the makers for, and who waits for it. The same thing is asked for once.

#ifndef HOST_SERVE_WORK_LIST_H
#define HOST_SERVE_WORK_LIST_H

#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "job.h"
#include "shared.h"

/// Something that waits for a reply.
class Waiter {
public:
    virtual void on_reply(const Reply &reply) = 0;

protected:
    ~Waiter() = default;
};

class WorkList {
public:
    /// jobs, shared: have to outlive the object. slot: of this server.
    WorkList(const Channel &jobs, const Shared &shared, size_t slot, size_t makers);

    /// Has the job done, or waits for one that is the same. job: its id and server are filled in here. The
    /// waiter stays where it is until its reply comes, exactly once and never within this call. False when
    /// there is too much to do, and after give_up_all.
    bool add(Job &job, Waiter &waiter);
    /// Passes the reply on; what is lost is done again.
    void take(const Reply &reply);
    /// Sends what found no room. Each second also what has been lost; gives up what can't be begun.
    void look_after(int64_t now);
    /// Replies to all.
    void give_up_all();
    bool is_empty() const { return m_pending.empty(); }

private:
    struct Pending {
        Job job;
        int64_t since;
        int64_t not_begun_since;  // later than since where makers have lost it
        std::vector<Waiter *> waiters;
        bool f_sent = false;
        unsigned times_sent = 0;
        unsigned times_missed = 0;  // by those who look for it in the makers' hands
    };

    bool is_for_slow_file(const Pending &pending) const;
    void send(Pending &pending);
    void take_back(Pending &pending);
    void find_lost(const std::set<uint64_t> &in_hand);
    void reply_to_late(const std::set<uint64_t> &in_hand, int64_t now);

    const Channel &m_jobs;
    const Shared &m_shared;
    // What is made too far ahead has left the cache before it could be sent.
    const size_t m_most_busy;
    const uint32_t m_slot;
    uint64_t m_next;
    std::map<uint64_t, Pending> m_pending;  // by their id
    std::map<std::string, uint64_t> m_by_task;
    // Files that a maker has in hand. One that is slow takes no more makers than there are servers.
    std::set<uint64_t> m_busy;
    bool m_f_room = false;  // there may be some for what hasn't been sent
    int64_t m_looked = 0;
    bool m_f_given_up = false;
};

#endif
