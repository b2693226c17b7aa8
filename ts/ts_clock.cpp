#include "ts_clock.h"

#include <algorithm>
#include <cmath>
#include <utility>

#include "ts_packet.h"

namespace {

constexpr int64_t PCR_PER_SECOND = TICKS_PER_SECOND * PCR_PER_TICK;
constexpr int64_t PCR_RANGE = (int64_t{1} << PTS_BITS) * PCR_PER_TICK;
constexpr int64_t MOST_DISTANCE = PCR_PER_SECOND / 10;  // ISO/IEC 13818-1, of PCRs
constexpr int64_t MOST_TABLES = PCR_PER_SECOND / 2;     // ETSI TR 101 290
constexpr int64_t JUMP = 10 * PCR_PER_SECOND;           // what is longer says nothing of the tables
constexpr double TOLERANCE = 13.5;                      // 500 ns, ISO/IEC 13818-1
// Of a stream whose rate is constant nearly all PCRs fit; where it varies hardly any do.
constexpr uint64_t LEAST_POINTS = 16;
constexpr uint64_t MOST_UNFITTING_PER_CENT = 5;

// The nearer way round, as the clock starts again every 26 hours.
int64_t step_between(uint64_t before, uint64_t now)
{
    int64_t step = (static_cast<int64_t>(now) - static_cast<int64_t>(before)) % PCR_RANGE;
    if (step > PCR_RANGE / 2) step -= PCR_RANGE;
    if (step < -PCR_RANGE / 2) step += PCR_RANGE;
    return step;
}

}  // namespace

void Distances::add(int64_t distance)
{
    least = std::min(least, distance);
    most = std::max(most, distance);
    sum += distance;
    ++count;
}

void TsClock::on_pcr(uint64_t packet, uint64_t pcr, bool f_jumps)
{
    const int64_t step = m_last ? step_between(m_pcr, pcr) : 0;
    m_pcr = pcr;
    if (m_last && !f_jumps) {
        if (step < 0) report(rules::CLOCK_BACKWARD, packet, m_pid, -step / PCR_PER_TICK);
        if (step > MOST_DISTANCE) report(rules::CLOCK_LATE, packet, m_pid, step / PCR_PER_TICK);
        if (step >= 0) m_pcrs.add(step);
    }
    const bool f_goes_on = m_last && !f_jumps && step >= 0 && step <= JUMP;
    const Point now = {packet, m_last ? m_last->pcr + (f_goes_on ? step : 0) : 0};
    if (f_goes_on) {
        m_packets += packet - m_last->packet;
        add_jitter(now);
        add_tables(*m_last, now);
    } else {
        // Tables before it are taken to come with it.
        for (TableTimes &table : m_tables) {
            if (table.f_pending || table.last) table.last = now.pcr;
            table.f_pending = false;
        }
        m_before.reset();
    }
    if (f_goes_on) m_before = m_last;
    m_last = now;
}

void TsClock::on_table(Table table, uint64_t packet, uint16_t pid)
{
    TableTimes &times = m_tables[table];
    times.pid = pid;
    if (!std::exchange(times.f_pending, true)) {
        times.first = packet;
        times.widest = 0;
    } else {
        times.widest = std::max(times.widest, packet - times.newest);
    }
    times.newest = packet;
}

void TsClock::finish()
{
    if (!m_last) return;
    for (TableTimes &table : m_tables) {
        // Up to the end none has come.
        if (!table.f_pending && table.last && m_last->pcr - *table.last > MOST_TABLES)
            add_table(table, m_last->packet, m_last->pcr);
    }
    if (!jitter() || m_unfitting == 0) return;
    constexpr int64_t PICOSECONDS = 1000000000000 / PCR_PER_SECOND;
    m_problems.found({&rules::CLOCK_JITTER, m_first_unfitting, m_pid, nullptr, false,
                      m_first_unfitting_time, m_worst * PICOSECONDS / 1000, m_unfitting});
}

std::optional<int64_t> TsClock::now() const
{
    if (!m_last) return {};
    return static_cast<int64_t>(m_pcr) / PCR_PER_TICK;
}

uint64_t TsClock::bit_rate() const
{
    if (m_pcrs.sum <= 0) return 0;
    return static_cast<uint64_t>(static_cast<double>(m_packets * TS_PACKET_SIZE * 8) *
                                 static_cast<double>(PCR_PER_SECOND) /
                                 static_cast<double>(m_pcrs.sum));
}

std::optional<int64_t> TsClock::jitter() const
{
    const uint64_t points = m_fitting + m_unfitting;
    if (points < LEAST_POINTS || m_unfitting * 100 > points * MOST_UNFITTING_PER_CENT) return {};
    return m_worst;
}

// Looks at the PCR before: it should lie between its neighbours as its packet does.
void TsClock::add_jitter(const Point &now)
{
    if (!m_before) return;
    const double part = static_cast<double>(m_last->packet - m_before->packet) /
                        static_cast<double>(now.packet - m_before->packet);
    const double off = std::fabs(static_cast<double>(m_last->pcr - m_before->pcr) -
                                 part * static_cast<double>(now.pcr - m_before->pcr));
    m_worst = std::max(m_worst, static_cast<int64_t>(off));
    if (off <= TOLERANCE) {
        ++m_fitting;
    } else if (m_unfitting++ == 0) {
        m_first_unfitting = m_last->packet;
        m_first_unfitting_time =
            (static_cast<int64_t>(m_pcr) - (now.pcr - m_last->pcr)) / PCR_PER_TICK;
    }
}

// Between two PCRs time passes as the packets do.
void TsClock::add_tables(const Point &from, const Point &to)
{
    const double per_packet = static_cast<double>(to.pcr - from.pcr) /
                              static_cast<double>(std::max<uint64_t>(to.packet - from.packet, 1));
    const auto time_of = [&](uint64_t packet) {
        return from.pcr +
               static_cast<int64_t>(static_cast<double>(packet - from.packet) * per_packet);
    };
    for (TableTimes &table : m_tables) {
        if (!std::exchange(table.f_pending, false)) continue;
        add_table(table, table.first, time_of(table.first));
        if (table.widest > 0)
            table.distances.add(
                static_cast<int64_t>(static_cast<double>(table.widest) * per_packet));
        table.last = time_of(table.newest);
    }
}

void TsClock::add_table(TableTimes &table, uint64_t packet, int64_t time)
{
    if (table.last) {
        const int64_t distance = time - *table.last;
        table.distances.add(distance);
        if (distance > MOST_TABLES)
            report(rules::TABLE_LATE, packet, table.pid, distance / PCR_PER_TICK);
    }
    table.last = time;
}

void TsClock::report(const TsRule &rule, uint64_t packet, uint16_t pid, int64_t amount)
{
    m_problems.found(
        {&rule, packet, pid, nullptr, false, static_cast<int64_t>(m_pcr) / PCR_PER_TICK, amount});
}
