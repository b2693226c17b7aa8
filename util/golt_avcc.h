// The parameter sets of an AVC decoder configuration record (ISO/IEC 14496-15, 5.2.4.1), as both
// Matroska and MP4 store it.

#ifndef GOLT_AVCC_H
#define GOLT_AVCC_H

#include <cstdint>

#include "golt_reader.h"

/// AVCProfileIndication, compatibility, level and the like: bytes ahead of
/// numOfSequenceParameterSets.
constexpr uint32_t AVCC_HEAD_SIZE = 5;

struct avc_parameter_set_t {
    const uint8_t *pb_unit;  ///< the NAL unit, inside the record
    uint32_t ui4_size;       ///< may be 0
};

/// Walks over the sequence parameter sets, then over the picture parameter sets, in the order of
/// the record.
class avc_parameter_sets_t {
public:
    /// t_record: from numOfSequenceParameterSets on, that is without AVCC_HEAD_SIZE bytes.
    explicit avc_parameter_sets_t(golt_reader_t t_record)
        : m_record(t_record)
    {
        m_left = m_record.get_u8() & 0x1Fu;
    }

    /// The next set. False after the last one, and where the record ends inside a set: such a set
    /// is left out, and so is all that would follow it.
    bool next(avc_parameter_set_t *pt_set)
    {
        if (m_left == 0 && !m_fPicture) {
            m_fPicture = true;
            m_left = m_record.get_u8();
        }
        if (m_left == 0) return false;
        --m_left;
        pt_set->ui4_size = m_record.get_u16();
        pt_set->pb_unit = m_record.take(pt_set->ui4_size);
        return !m_record.f_short();
    }

private:
    golt_reader_t m_record;
    uint32_t m_left = 0;      // sets of the present kind still to come
    bool m_fPicture = false;  // the present kind is picture parameter sets
};

#endif
