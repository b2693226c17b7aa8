// A film of any bytes: its plan, its playlists, and some of its segments, in two orders. The recipe before the file
// says how the source behaves, and which segments are made.

#include <malloc.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <sstream>
#include <string_view>

#include "finished_stream.h"
#include "hls/film.h"
#include "hls/plan.h"
#include "watch.h"

// The host's own memory counts, too: the linker leads its requests here.
#if defined(__LP64__)
#define THROWING_NEW(head) head##Znwm
#else
#define THROWING_NEW(head) head##Znwj
#endif

extern "C" {

void *THROWING_NEW(__real__)(size_t size);

void *THROWING_NEW(__wrap__)(size_t size)
{
    void *const block = THROWING_NEW(__real__)(size);
    if (g_heap.f_watched) g_heap.held += malloc_usable_size(block);
    g_heap.most = std::max(g_heap.most, g_heap.held);
    return block;
}
}

namespace {

constexpr size_t PACKET_SIZE = 188;
constexpr int64_t SECOND = 90000;
constexpr size_t MADE = 2, LISTED = 500;
// Of a film: its segments, and what its outline keeps.
constexpr size_t FILM_MOST = 8 * 1024 * 1024;
// Reads of the file for a survey and for a segment, and the bytes in them: those of the library's cache, which is filled
// anew at each start, those of the outline's windows, and the file itself.
constexpr uint64_t CALLS_MOST = 1 << 17;
constexpr uint64_t BYTES_MOST = 64 * 1024 * 1024;

/// A file in memory, whose reads deliver as much as the recipe says, and may fail from one on.
class FuzzedSource final : public Source {
public:
    FuzzedSource(const uint8_t *recipe, const Bytes &file)
        : Source("film")
        , m_file(file)
        , m_most(recipe[2] == 0 ? INT32_MAX : recipe[2] * 64)
        , m_fails_from((recipe[3] & 1) != 0 ? recipe[5] : UINT64_MAX)
    {
    }

    int read(uint8_t *buffer, int size) override
    {
        ++g_hosts.calls;
        if (g_hosts.calls > m_fails_from) m_fault = "the disk is gone";
        if (!m_fault.empty() || position() >= m_file.size()) return 0;
        const size_t left = m_file.size() - static_cast<size_t>(position());
        const auto count =
            static_cast<int>(std::min<size_t>(left, static_cast<size_t>(std::min(size, m_most))));
        memcpy(buffer, m_file.data() + position(), static_cast<size_t>(count));
        m_position += count;
        g_hosts.delivered += static_cast<unsigned>(count);
        return count;
    }
    int64_t seek(int64_t offset, int whence) override
    {
        if (offset < 0 || whence != 0) return -1;
        m_position = offset;
        return 0;
    }
    uint64_t size() const override { return m_file.size(); }

private:
    const Bytes &m_file;
    const int m_most;
    const uint64_t m_fails_from;
};

void require_work(const CallWatch &watch)
{
    require(watch.work().calls <= CALLS_MOST, "a file is read a limited number of times");
    require(watch.work().delivered <= BYTES_MOST, "a limited number of bytes is read");
}

bool is_printable(const std::string &text)
{
    return std::all_of(text.begin(), text.end(),
                       [](char letter) { return letter >= 0x20 && letter < 0x7F; });
}

void check_plan(const Film &film)
{
    require(film.memory() <= FILM_MOST, "a film takes little memory");
    require(is_printable(film.codecs) && is_printable(film.kinds) && is_printable(film.refusal),
            "texts can be printed");
    require(film.codecs.find('"') == std::string::npos, "codecs can be quoted");
    int64_t end = 0;
    for (const Segment &segment : film.segments) {
        require(segment.start == end && segment.end > segment.start, "segments follow each other");
        end = segment.end;
    }
    require(film.duration == end, "segments make up the film");
    if (!film.refusal.empty()) return;
    require(!film.segments.empty(), "a film has a segment");
    require(film.average_bits > 0 && film.peak_bits >= film.average_bits, "a peak is the most");
}

// As RFC 8216 has them. Times are whole numbers: a few bytes may state centuries.
void check_playlists(const Film &film)
{
    // The last digit of a duration. Ten of them are nine ticks.
    constexpr int64_t UNITS = 100000, UNIT = 9, TICK = 10;
    std::istringstream media(media_playlist(film, "v/"));
    std::string line;
    size_t number = 0;
    int64_t target = 0, sum = 0;
    bool f_ended = false;
    require(std::getline(media, line) && line == "#EXTM3U", "a playlist says that it is one");
    while (std::getline(media, line)) {
        require(is_printable(line), "a playlist is text");
        f_ended = line == "#EXT-X-ENDLIST";
        if (line.compare(0, 22, "#EXT-X-TARGETDURATION:") == 0)
            target = std::stoll(line.substr(22));
        if (line.compare(0, 8, "#EXTINF:") != 0) continue;
        const size_t point = line.find('.');
        require(point + 7 == line.size() && line.back() == ',', "five digits after the point");
        const int64_t units =
            std::stoll(line.substr(8, point - 8)) * UNITS + std::stoll(line.substr(point + 1, 5));
        const Segment &segment = film.segments.at(number);
        const int64_t length = segment.end - segment.start;
        require(std::abs(units * UNIT - length * TICK) <= UNIT / 2,
                "durations are those of the segments");
        require((units + UNITS / 2) / UNITS <= target, "none is above the target duration");
        sum += units;
        require(std::getline(media, line) && line == "v/" + std::to_string(number) + ".ts",
                "segments in their order");
        ++number;
    }
    require(f_ended && number == film.segments.size(), "all segments, and an end");
    require(std::abs(sum * UNIT - film.duration * TICK) <=
                static_cast<int64_t>(number) * (UNIT / 2),
            "durations add up");
    const std::string master = master_playlist(film, "media.m3u8");
    require(std::count(master.begin(), master.end(), '\n') == 4 + film.f_independent,
            "one variant, a line of its own for each of its parts");
}

// Reached by a time of 33 bits, but for the millisecond that the library cuts off, and for half a frame of audio alone.
bool is_reached(const Film &film, int64_t time, int64_t bound)
{
    constexpr int64_t RANGE = int64_t{1} << 33, MS = 90;
    const golt::AudioGrid &grid = film.file.audio_grid;
    const bool f_frames = !film.f_video && grid.rate != 0;
    const int64_t frame = f_frames ? std::min(grid.samples * SECOND / grid.rate, SECOND) : 0;
    return ((time - bound + MS + frame / 2) % RANGE + RANGE) % RANGE < RANGE / 2;
}

// Packets of each PID come in sixteens, so that counters go on in any other segment, unless there aren't bytes enough
// for that.
void check_counters(const Bytes &bytes)
{
    std::map<size_t, size_t> packets, divisible;
    for (size_t at = 0; at < bytes.size(); at += PACKET_SIZE) {
        const uint8_t *const packet = bytes.data() + at;
        if ((packet[3] & 0x10) == 0) continue;
        const size_t pid = (packet[1] & 0x1Fu) << 8 | packet[2];
        const size_t begin = 4 + ((packet[3] & 0x20) != 0 ? 1u + packet[4] : 0u);
        const size_t head = (packet[1] & 0x40) != 0 ? 9u + packet[begin + 8] : 1u;
        ++packets[pid];
        divisible[pid] += PACKET_SIZE - begin - head;
    }
    for (const auto &[pid, count] : packets)
        require(count % 16 == 0 || (pid != 0 && pid != 0xFFF && divisible[pid] == 0),
                "counters go on in any other segment");
}

void check_segment(const Film &film, size_t number, const Bytes &bytes)
{
    require(!bytes.empty() && bytes.size() <= LARGEST_SEGMENT, "a segment has a limited size");
    require(bytes.size() % PACKET_SIZE == 0, "whole packets");
    if (film.file.outline.container == Container::TRANSPORT_STREAM) return;
    const FinishedStream finished(bytes);
    require(finished.faults.empty(),
            finished.faults.empty() ? "" : finished.faults.front().c_str());
    require(!finished.pats.empty() && finished.pats.front() == 0, "tables come first");
    require(!finished.pmts.empty() && finished.pmts.front() == 1, "both of them");
    check_counters(bytes);
    const Segment &segment = film.segments[number];
    const int64_t first = film.file.first_time;
    if (film.file.outline.container == Container::MPEG_AUDIO) return;
    bool f_first = true;
    for (const FinishedUnit &unit : finished.of(film.f_video ? 0x100 : 0x101)) {
        // One that is too long for a PES packet goes on in another, without a time.
        if (unit.pts == NOT_TOLD) continue;
        require(number == 0 || !f_first || is_reached(film, unit.pts, first + segment.start),
                "a segment begins with its begin");
        require(number + 1 == film.segments.size() ||
                    !is_reached(film, unit.pts, first + segment.end),
                "a segment ends before the next one");
        f_first = false;
    }
}

/// What has to be the same again. The bytes themselves would take more memory than what is tested.
struct Made {
    size_t number = 0;
    std::string fault;
    size_t size = 0, hash = 0;

    void note(const Bytes &bytes)
    {
        size = bytes.size();
        hash = std::hash<std::string_view>()(
            {reinterpret_cast<const char *>(bytes.data()), bytes.size()});
    }
    bool is_same(const Made &other) const { return size == other.size && hash == other.hash; }
};

std::string make(FuzzedSource &source, const Film &film, size_t number, Bytes &bytes)
{
    const CallWatch watch;
    source.seek(0, 0);
    const std::string fault = make_segment(source, film, number, bytes);
    require_work(watch);
    return fault;
}

void make_segments(FuzzedSource &source, const Film &film, const uint8_t *picks)
{
    std::vector<Made> made;
    Bytes bytes;
    for (size_t i = 0; i < std::min(MADE, film.segments.size()); ++i) {
        Made one;
        one.number = (picks[i] + i) % film.segments.size();
        one.fault = make(source, film, one.number, bytes);
        if (one.fault.empty()) check_segment(film, one.number, bytes);
        one.note(bytes);
        made.push_back(std::move(one));
    }
    for (auto one = made.rbegin(); one != made.rend(); ++one) {
        const std::string fault = make(source, film, one->number, bytes);
        // The disk may have gone only now.
        if (!source.fault().empty()) return;
        require(fault == one->fault, "the same fault again");
        Made again;
        again.note(bytes);
        require(!one->fault.empty() || again.is_same(*one), "the same bytes again");
    }
}

}  // namespace

int LLVMFuzzerTestOneInput(const uint8_t *pb_data, size_t size)
{
    if (size <= RECIPE_SIZE) return 0;
    begin_input();
    const Bytes file(pb_data + RECIPE_SIZE, pb_data + size);
    FuzzedSource source(pb_data, file);
    Film film;
    {
        const CallWatch watch;
        film = survey_film(source);
        require_work(watch);
    }
    check_plan(film);
    if (!film.refusal.empty()) return 0;
    // A few bytes may state days.
    if (film.segments.size() <= LISTED) check_playlists(film);
    make_segments(source, film, pb_data + RECIPE_SIZE - 8);
    return 0;
}
