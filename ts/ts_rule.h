// What a checker may find in a stream: the rules, and the place where one is broken. docs/json.md lists the codes,
// golt(1) explains them.

#ifndef TS_TS_RULE_H
#define TS_TS_RULE_H

#include <cstdint>
#include <optional>

enum class TsAmount {
    NONE,
    TICKS,
    BYTES,
    NANOSECONDS
};  ///< what the size of a finding is measured in

/// A rule. Records of it are compared by their address.
struct TsRule {
    const char *code;  ///< for programs
    const char *text;  ///< for people: what happens where it is broken
    TsAmount amount = TsAmount::NONE;
    const char *worst_text = "";  ///< before the worst amount
    bool f_clock = false;         ///< it concerns the program's clock, not a stream
};

struct TsProblem {
    const TsRule *rule;
    uint64_t packet;  ///< its number, from 0
    uint16_t pid;
    const char *detail = nullptr;      ///< more of what was found; a text that stays
    bool f_unusual = false;            ///< the standard allows it; a remuxer just has no use for it
    std::optional<int64_t> time = {};  ///< 90 kHz
    int64_t amount = 0;                ///< how bad it is, in the unit of the rule
    uint64_t count = 1;                ///< of places, of which this is the first

    const char *what() const { return detail != nullptr ? detail : rule->text; }
};

namespace rules {

// Packets
inline constexpr TsRule
    STRUCTURE = {"structure", "in the packets"},
    SYNC_BYTE = {"sync-byte", "a packet has no sync byte"},
    LOST_BYTES = {"lost-bytes", "bytes belong to no packet", TsAmount::BYTES, "at most"},
    TRANSPORT_ERROR = {"transport-error",
                       "a packet is marked as damaged (transport_error_indicator)"},
    CONTINUITY = {"continuity", "the continuity_counter jumps"};
// Tables
inline constexpr TsRule TABLE_CRC = {"table-crc", "a PAT or PMT has a wrong CRC_32"},
                        TABLE_MISSING = {"table-missing", "its PAT or PMT is missing"},
                        TABLE_VERSION = {"table-version",
                                         "a PAT or PMT changes without a new version_number"},
                        TABLE_LATE = {"table-late", "the PAT or PMT comes later than 500 ms",
                                      TsAmount::TICKS, "at most after"};
// The clock
inline constexpr TsRule CLOCK_MISSING = {"clock-missing", "the program has no PCR", TsAmount::NONE,
                                         "", true},
                        CLOCK_BACKWARD = {"clock-backward", "the PCR runs backward",
                                          TsAmount::TICKS, "at most by", true},
                        CLOCK_LATE = {"clock-late", "the PCR comes later than 100 ms",
                                      TsAmount::TICKS, "at most after", true},
                        CLOCK_JITTER = {
                            "clock-jitter",
                            "the PCR differs from its position at the constant rate of the stream",
                            TsAmount::NANOSECONDS, "at most by", true};
// Times
inline constexpr TsRule
    LATE = {"late", "a frame arrives after its decoding time", TsAmount::TICKS, "at most by"},
    APART = {"apart", "frames come later than those of the other stream", TsAmount::TICKS,
             "at most by"},
    DTS_BACKWARD = {"dts-backward", "a decoding time isn't later than the previous one",
                    TsAmount::TICKS, "at most by"},
    DTS_AFTER_PTS = {"dts-after-pts", "a decoding time is after the presentation time",
                     TsAmount::TICKS, "at most by"},
    TIME_BACKWARD = {"time-backward", "a time runs backward", TsAmount::TICKS, "at most by"},
    TIME_REPEATED = {"time-repeated", "a frame has the time of the previous one"},
    TIME_JUMP = {"time-jump", "the time jumps", TsAmount::TICKS, "at most by"},
    OVERLAP = {"overlap", "an audio frame begins before the previous one ends", TsAmount::TICKS,
               "at most by"};
// Frames
inline constexpr TsRule
    PES_LENGTH = {"pes-length", "a PES packet isn't as long as its PES_packet_length states"},
    PES_TOO_LONG = {"pes-length", "a PES packet is longer than its length field can hold",
                    TsAmount::BYTES, "at most"},
    CUT_FRAME = {"cut-frame", "a frame is shorter than its header states", TsAmount::BYTES,
                 "at most by"},
    STRAY_BYTES = {"stray-bytes", "bytes of audio belong to no frame", TsAmount::BYTES, "at most"},
    ADTS = {"adts", "an ADTS header contradicts its frame"},
    NO_SETS = {"no-parameter-sets", "a picture comes before the first parameter sets"},
    KEY_SETS = {"key-parameter-sets", "a key picture has no parameter sets of its own"},
    NO_DELIMITER = {"no-delimiter", "a picture doesn't begin with an access unit delimiter"},
    NO_RANDOM_ACCESS = {"no-random-access",
                        "a key picture isn't marked by random_access_indicator"};

}  // namespace rules

#endif
