#include "work_list.h"

#include <unistd.h>

#include "maker.h"

namespace {

// More requests are sent away.
constexpr size_t MOST_PENDING = 512;
// A job that no maker has taken by then is given up; sooner, where there are no makers.
constexpr int64_t BEGIN_SECONDS = 20;
constexpr int64_t BEGIN_SECONDS_WITHOUT_MAKERS = 3;
// A maker ends before.
constexpr int64_t PATIENCE_SECONDS = BEGIN_SECONDS + LONGEST_WORK_SECONDS + 10;
// One that has lost so many makers isn't given to more.
constexpr unsigned MOST_TIMES_SENT = 8;
// By so many looks: at one, a maker may be just between taking it and saying so.
constexpr unsigned TIMES_MISSED_WHEN_LOST = 2;

constexpr unsigned STATUS_UNAVAILABLE = 503;

// What is asked for. Without a version, the key would tell whose job it is.
std::string task_of(Job job)
{
    job.id = 0;
    return job.key();
}

}  // namespace

WorkList::WorkList(const Channel &jobs, const Shared &shared, size_t slot, size_t makers)
    : m_jobs(jobs)
    , m_shared(shared)
    , m_most_busy(makers)
    , m_slot(static_cast<uint32_t>(slot))
    // Replies to the process that was here before mean nothing.
    , m_next(static_cast<uint64_t>(getpid()) << 32)
{
}

bool WorkList::add(Job &job, Waiter &waiter)
{
    if (m_f_given_up) return false;
    job.server = m_slot;
    const std::string task = task_of(job);
    const auto same = m_by_task.find(task);
    if (same != m_by_task.end()) {
        job.id = same->second;
        m_pending.at(same->second).waiters.push_back(&waiter);
        return true;
    }
    if (m_pending.size() >= MOST_PENDING) return false;
    m_by_task[task] = job.id = ++m_next;
    const int64_t now = steady_seconds();
    send(m_pending[job.id] = {job, now, now, {&waiter}});
    return true;
}

void WorkList::take(const Reply &reply)
{
    const auto found = m_pending.find(reply.id);
    if (found == m_pending.end()) return;
    take_back(found->second);
    if (reply.status == Reply::LOST && found->second.times_sent < MOST_TIMES_SENT) {
        send(found->second);
        return;
    }
    const Pending pending = std::move(found->second);
    m_by_task.erase(task_of(pending.job));
    m_pending.erase(found);
    if (reply.status == Reply::LOST) {
        const Reply last = {reply.id, STATUS_UNAVAILABLE, 0,
                            "the processes that worked on it have ended"};
        for (Waiter *waiter : pending.waiters)
            waiter->on_reply(last);
        return;
    }
    for (Waiter *waiter : pending.waiters)
        waiter->on_reply(reply);
}

void WorkList::look_after(int64_t now)
{
    const bool f_look = now != m_looked;
    m_looked = now;
    if (f_look && !m_pending.empty()) {
        const std::set<uint64_t> in_hand = m_shared.jobs_in_hand(m_slot);
        if (has_no_job(m_jobs)) find_lost(in_hand);
        reply_to_late(in_hand, now);
    }
    if (!f_look && !m_f_room) return;
    m_f_room = false;
    for (auto &[id, pending] : m_pending)
        send(pending);
}

// Makers have taken all jobs, but these are in no maker's hands: it died before it could say so, or its
// reply got lost.
void WorkList::find_lost(const std::set<uint64_t> &in_hand)
{
    for (auto &[id, pending] : m_pending) {
        if (!pending.f_sent || in_hand.count(id) != 0)
            pending.times_missed = 0;
        else if (++pending.times_missed >= TIMES_MISSED_WHEN_LOST)
            take_back(pending);
    }
}

void WorkList::reply_to_late(const std::set<uint64_t> &in_hand, int64_t now)
{
    const std::optional<int64_t> without = m_shared.without_makers_since();
    const bool f_makers = !without || now - *without < BEGIN_SECONDS_WITHOUT_MAKERS;
    std::vector<uint64_t> late;
    for (const auto &[id, pending] : m_pending) {
        const bool f_begun = in_hand.count(id) != 0;
        const bool f_begins_late =
            now - pending.not_begun_since > BEGIN_SECONDS && !is_for_slow_file(pending);
        if (now - pending.since > PATIENCE_SECONDS || (!f_begun && (!f_makers || f_begins_late)))
            late.push_back(id);
    }
    for (const uint64_t id : late)
        take({id, STATUS_UNAVAILABLE, 0,
              f_makers ? "there is too much to do" : "no process that reads files can be started"});
}

void WorkList::give_up_all()
{
    m_f_given_up = true;
    while (!m_pending.empty())
        take({m_pending.begin()->first, STATUS_UNAVAILABLE, 0, "the server ends"});
}

// Another job is under way for the same file, as on a slow network: when it is done, this one may be soon.
bool WorkList::is_for_slow_file(const Pending &pending) const
{
    const uint64_t subject = pending.job.subject();
    return !pending.f_sent && (m_busy.count(subject) != 0 || m_shared.is_slow(subject));
}

void WorkList::send(Pending &pending)
{
    if (pending.f_sent || m_busy.size() >= m_most_busy || is_for_slow_file(pending)) return;
    pending.f_sent = send_job(m_jobs, pending.job);
    if (!pending.f_sent) return;
    m_busy.insert(pending.job.subject());
    ++pending.times_sent;
    pending.times_missed = 0;
}

void WorkList::take_back(Pending &pending)
{
    if (!pending.f_sent) return;
    pending.f_sent = false;
    pending.not_begun_since = steady_seconds();
    m_busy.erase(pending.job.subject());
    m_f_room = true;
}
