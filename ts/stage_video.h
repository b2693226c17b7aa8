// What the stage has to know of pictures: where the first slice of one begins, what parameter sets it needs and
// brings, whether decoding can start at it, and how far pictures are reordered. H.264 is ISO/IEC 14496-10, MPEG-2
// video ISO/IEC 13818-2.

#ifndef GOLT_STAGE_VIDEO_H
#define GOLT_STAGE_VIDEO_H

#include <cstddef>
#include <cstdint>

namespace golt {

enum class VideoCodec : uint8_t { NONE, H264, MPEG2 };

namespace nal {
constexpr uint8_t SLICE = 1, IDR = 5, SEI = 6, SPS = 7, PPS = 8, DELIMITER = 9;
/// A whole unit, with its start code; any kind of slices may follow.
constexpr uint8_t DELIMITER_UNIT[] = {0, 0, 0, 1, DELIMITER, 0xF0};
}  // namespace nal

struct SpsFacts {
    /// By how many pictures one can be delayed until it is shown (max_num_reorder_frames). Where the SPS doesn't state
    /// it, what its profile, level and size allow. -1: the SPS can't be read.
    int reorder_depth = -1;
    bool f_fields = false;  ///< there may be pictures of one field
};

/// sps: a NAL unit.
SpsFacts read_sps(const uint8_t *sps, size_t size);

/// The parameter sets that are in force, a NAL unit each, without start codes.
class ParameterSets {
public:
    /// Of an AVCDecoderConfigurationRecord. Takes what it can read.
    void take_config(const uint8_t *config, size_t size);
    /// Puts a SPS or PPS in the place of that of its number. Returns whether something is new. Sets for which there
    /// is no room are left out.
    bool take(const uint8_t *unit, size_t size);
    /// Whether exactly this one is in force.
    bool has(const uint8_t *unit, size_t size) const;

    size_t count() const { return m_count; }
    const uint8_t *unit(size_t index) const { return m_bytes + m_sets[index].at; }
    size_t size(size_t index) const { return m_sets[index].size; }
    uint8_t type(size_t index) const { return m_sets[index].type; }
    /// The largest of all SPS; -1 without any.
    int reorder_depth() const { return m_depth; }
    /// Of any SPS.
    bool may_have_fields() const { return m_f_fields; }

private:
    static constexpr size_t MOST_SETS = 64;
    static constexpr size_t MOST_BYTES = 8192;

    struct Set {
        uint8_t type;
        uint32_t id;
        size_t at;
        size_t size;
    };

    void remove(size_t index);

    Set m_sets[MOST_SETS];
    size_t m_count = 0;
    uint8_t m_bytes[MOST_BYTES];
    size_t m_used = 0;
    int m_depth = -1;
    bool m_f_fields = false;
};

/// Gathers a picture up to where its first slice begins, and reports what is there.
class PictureHead {
public:
    static constexpr size_t MOST_BYTES = 16 * 1024;
    static constexpr size_t MOST_UNITS = 64;

    struct Unit {
        size_t start;  ///< of its start code
        size_t at;     ///< of its first byte
        size_t end;    ///< without the zero bytes after it
        uint8_t type;  ///< nal_unit_type, or the start code's value
    };

    /// Takes the first bytes, TS_SIZE at most. True once the first slice has begun: then bytes() are these.
    bool begin(VideoCodec codec, const uint8_t *bytes, size_t size);
    /// Takes the next ones. True as before, or when there is no room for more.
    bool add(const uint8_t *bytes, size_t size);
    /// To be called when the picture has no more bytes.
    void end() { close(m_size); }

    bool is_complete() const { return m_f_complete; }
    const uint8_t *bytes() const { return m_bytes; }
    size_t size() const { return m_size; }  ///< bytes that were taken
    size_t count() const { return m_count; }
    const Unit &unit(size_t index) const { return m_units[index]; }
    /// Where the units that count() counts end; after it begins the first slice.
    size_t body() const { return m_body; }

    /// Whether decoding can begin with this picture: IDR, recovery point, or sequence header.
    bool is_key() const;
    bool is_idr() const { return m_codec == VideoCodec::H264 && m_first_slice == nal::IDR; }
    bool begins_with_delimiter() const;
    /// Of MPEG-2 video, by its sequence extension: 0 where low_delay is set; -1 without a sequence header.
    int mpeg2_depth() const;

private:
    void scan();
    void close(size_t at);
    bool add_unit(size_t code_at);
    bool has_recovery_point(const Unit &unit) const;

    VideoCodec m_codec = VideoCodec::NONE;
    uint8_t m_gathered[MOST_BYTES];
    const uint8_t *m_bytes = m_gathered;  // or where they came from, while that holds
    size_t m_size = 0;
    size_t m_scanned = 0;
    size_t m_body = 0;
    Unit m_units[MOST_UNITS];
    size_t m_count = 0;
    uint8_t m_first_slice = 0;  // nal_unit_type
    bool m_f_complete = false;
};

/// Whether a start code may be in the bytes, or begin with the last of them. There is at least one.
[[gnu::noinline]] bool may_have_code(const uint8_t *bytes, size_t size);

/// Leaves out of the slices of a picture the parameter sets that are between them and are in force already. Where the
/// picture is the first field of a frame, a delimiter goes before what follows it: the other field is an access unit of
/// its own (ISO/IEC 14496-10, 7.4.1.2.4).
class SliceFilter {
public:
    typedef void (*Put)(void *handle, const uint8_t *bytes, size_t size);

    /// sets: those in force; others are added as they come. next: gets what is left.
    SliceFilter(ParameterSets &sets, Put next, void *handle)
        : m_sets(sets)
        , m_put(next)
        , m_handle(handle)
    {
    }

    void begin();
    /// Takes the next bytes of the picture, beginning with a start code; TS_SIZE at most.
    void add(const uint8_t *bytes, size_t size);
    void end();
    /// Whether nothing is held back.
    bool is_between() const { return m_carried == 0 && !m_f_in_set; }

private:
    static constexpr size_t PIECE = 188;
    static constexpr size_t CARRY = 5;  // 00 00 00 01 and the unit's first byte
    static constexpr size_t MOST_SET = 2048;

    void put(const uint8_t *bytes, size_t size);
    void begin_unit(const uint8_t *unit);
    void delimit();
    void end_unit();

    ParameterSets &m_sets;
    Put m_put;
    void *m_handle;
    uint8_t m_carry[CARRY];
    size_t m_carried = 0;
    bool m_f_slices = false;  // of the present picture have come
    bool m_f_in_set = false;
    uint8_t m_set[MOST_SET];  // with its start code
    size_t m_set_size = 0;
    size_t m_set_code = 0;  // bytes of its start code
};

}  // namespace golt

#endif
