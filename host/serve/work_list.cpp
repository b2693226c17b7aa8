#include "work_list.h"

#include <ctime>

#include <unistd.h>

#include "maker.h"

namespace {

// More requests are sent away.
constexpr size_t MOST_PENDING = 512;
// A maker ends before; then its reply has been lost.
constexpr int64_t PATIENCE_SECONDS = 2 * LONGEST_WORK_SECONDS;

constexpr unsigned STATUS_UNAVAILABLE = 503;

}  // namespace

WorkList::WorkList(const Channel &jobs, size_t slot, size_t makers)
    : m_jobs(jobs)
    , m_most_busy(makers)
    , m_slot(static_cast<uint32_t>(slot))
    // Replies to the process that was here before mean nothing.
    , m_next(static_cast<uint64_t>(getpid()) << 32)
{
}

bool WorkList::add(Job &job, Waiter &waiter)
{
    job.server = m_slot;
    job.id = ++m_next;
    const auto same = m_by_key.find(job.key());
    if (same != m_by_key.end()) {
        job.id = same->second;
        m_pending.at(same->second).waiters.push_back(&waiter);
        return true;
    }
    if (m_pending.size() >= MOST_PENDING) return false;
    m_by_key[job.key()] = job.id;
    send(m_pending[job.id] = {job, steady_seconds(), false, {&waiter}});
    return true;
}

void WorkList::take(const Reply &reply)
{
    const auto found = m_pending.find(reply.id);
    if (found == m_pending.end()) return;
    const Pending pending = std::move(found->second);
    m_by_key.erase(pending.job.key());
    if (pending.f_sent) m_busy.erase(pending.job.subject());
    m_pending.erase(found);
    for (Waiter *waiter : pending.waiters)
        waiter->on_reply(reply);
}

void WorkList::look_after(int64_t now)
{
    std::vector<uint64_t> late;
    for (auto &[id, pending] : m_pending) {
        send(pending);
        if (now - pending.since > PATIENCE_SECONDS) late.push_back(id);
    }
    for (const uint64_t id : late)
        take({id, STATUS_UNAVAILABLE, 0, "it took too long"});
}

void WorkList::give_up_all()
{
    while (!m_pending.empty())
        take({m_pending.begin()->first, STATUS_UNAVAILABLE, 0, "the server ends"});
}

void WorkList::send(Pending &pending)
{
    const uint64_t subject = pending.job.subject();
    if (pending.f_sent || m_busy.size() >= m_most_busy || m_busy.count(subject) != 0) return;
    pending.f_sent = send_job(m_jobs, pending.job);
    if (pending.f_sent) m_busy.insert(subject);
}

int64_t steady_seconds()
{
    timespec now = {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return now.tv_sec;
}
