#include "status.h"

#include <ctime>
#include <vector>

#include <fmt/format.h>

#include "libgolt.h"
#include "stream/json_text.h"

namespace {

constexpr double US_PER_SECOND = 1e6;

struct Processes {
    std::vector<Slot> slots;
    uint64_t memory = 0;
    uint64_t connections = 0;
};

Processes processes_of(const Shared &shared)
{
    Processes processes;
    for (size_t i = 0; i < Shared::MOST_SLOTS; ++i) {
        const Slot slot = shared.slot(i);
        if (slot.pid == 0) continue;
        processes.slots.push_back(slot);
        processes.memory += slot.memory;
        processes.connections += slot.connections;
    }
    return processes;
}

}  // namespace

std::string status_json(const Shared &shared, int64_t start)
{
    const Counters counters = shared.counters();
    const Processes processes = processes_of(shared);
    Json json = json_document("golt.status/1");
    json["version"] = GOLT_version();
    json["uptime_s"] = time(nullptr) - start;
    json["connections"] = processes.connections;
    json["connections_dropped"] = counters.dropped;
    json["connections_refused"] = counters.refused;
    json["sent_bytes"] = counters.bytes;
    for (size_t i = 1; i < counters.answers.size(); ++i)
        json["answers"][fmt::format("{}xx", i)] = counters.answers[i];
    json["cache"] = {{"budget", shared.budget()},
                     {"bytes", shared.cached()},
                     {"hits", counters.hits},
                     {"misses", counters.misses}};
    json["segments"] = {{"made", counters.segments},
                        {"bytes", counters.segment_bytes},
                        {"mean_ms", counters.segments == 0
                                        ? Json()
                                        : Json(static_cast<double>(counters.segment_us) / 1000 /
                                               static_cast<double>(counters.segments))}};
    json["surveys"] = counters.surveys;
    json["memory_bytes"] = processes.memory;
    json["deaths"] = counters.deaths;
    json["processes"] = Json::array();
    for (const Slot &slot : processes.slots) {
        Json process = {{"pid", slot.pid},
                        {"role", slot.role == Role::SERVER ? "server" : "maker"},
                        {"memory_bytes", slot.memory}};
        if (slot.role == Role::SERVER)
            process["connections"] = slot.connections;
        else
            process["working"] = slot.f_working;
        json["processes"].push_back(process);
    }
    return json_text(json) + "\n";
}

std::string status_metrics(const Shared &shared, int64_t start)
{
    const Counters counters = shared.counters();
    const Processes processes = processes_of(shared);
    std::string text;
    const auto add = [&](const char *name, const char *type, const char *help, const auto &value) {
        text += fmt::format("# HELP golt_{0} {1}\n# TYPE golt_{0} {2}\ngolt_{0} {3}\n", name, help,
                            type, value);
    };
    text += "# HELP golt_requests_total Answers, by the class of their status.\n"
            "# TYPE golt_requests_total counter\n";
    for (size_t i = 1; i < counters.answers.size(); ++i)
        text += fmt::format("golt_requests_total{{status=\"{}xx\"}} {}\n", i, counters.answers[i]);
    add("sent_bytes_total", "counter", "Bytes of bodies sent.", counters.bytes);
    add("cache_hits_total", "counter", "Segments that were in the cache.", counters.hits);
    add("cache_misses_total", "counter", "Segments that had to be made.", counters.misses);
    add("cache_bytes", "gauge", "Bytes in the cache.", shared.cached());
    add("cache_budget_bytes", "gauge", "Bytes that the cache may hold.", shared.budget());
    add("surveys_total", "counter", "Films whose segments were planned.", counters.surveys);
    add("connections", "gauge", "Open connections.", processes.connections);
    add("connections_dropped_total", "counter", "Connections that were idle or slow.",
        counters.dropped);
    add("connections_refused_total", "counter",
        "Connections from addresses that had too many, or for which no place was left.",
        counters.refused);
    add("memory_bytes", "gauge", "Memory of servers and makers beside the cache.",
        processes.memory);
    add("deaths_total", "counter", "Processes that had to be replaced.", counters.deaths);
    add("start_time_seconds", "gauge", "Start, in seconds since 1970.", start);
    text += "# HELP golt_segment_seconds Time that a segment took to be made.\n"
            "# TYPE golt_segment_seconds histogram\n";
    uint64_t count = 0;
    for (size_t i = 0; i < counters.segment_times.size(); ++i) {
        count += counters.segment_times[i];
        const std::string limit = i < Counters::LIMITS_MS.size()
                                      ? fmt::format("{}", Counters::LIMITS_MS[i] / 1000.0)
                                      : "+Inf";
        text += fmt::format("golt_segment_seconds_bucket{{le=\"{}\"}} {}\n", limit, count);
    }
    return text + fmt::format("golt_segment_seconds_sum {}\ngolt_segment_seconds_count {}\n",
                              static_cast<double>(counters.segment_us) / US_PER_SECOND, count);
}
