// The samples of a track of MP4 (ISO/IEC 14496-12) one by one, by tables that are in memory as a whole.

#ifndef HOST_OUTLINE_SAMPLE_WALK_H
#define HOST_OUTLINE_SAMPLE_WALK_H

#include "outline.h"

/// Tables as the file has them: numbers of 32 bits, without what comes before the entries.
struct SampleTables {
    uint64_t samples = 0;
    std::vector<uint32_t> lengths;  ///< "stts": pairs
    std::vector<uint32_t> offsets;  ///< "ctts": pairs
    std::vector<uint32_t> keys;     ///< "stss"
    bool f_all_keys = false;
    uint32_t size = 0;             ///< of all samples; 0: sizes has them
    std::vector<uint32_t> sizes;   ///< "stsz"
    std::vector<uint32_t> runs;    ///< "stsc": triples
    std::vector<uint32_t> places;  ///< "stco"
};

/// 16 MiB. The tables of ten hours of audio have 7 MiB.
constexpr size_t MOST_TABLE_WORDS = 4 * 1024 * 1024;

/// None where a table is missing, cut or damaged. words: numbers that may be read; those that were are taken off.
std::optional<SampleTables> load_tables(Reader &reader, const Mp4Details &mp4, size_t &words);

struct Sample {
    uint64_t time = 0;    ///< of decoding, ticks of the track
    uint32_t length = 0;  ///< ticks
    uint32_t offset = 0;  ///< of presentation, ticks; below 0 as modulo 2^32
    uint32_t size = 0;    ///< bytes
    uint64_t place = 0;   ///< in the file
    bool f_key = false;
};

class SampleWalk {
public:
    /// tables: have to outlive the object.
    explicit SampleWalk(const SampleTables &tables)
        : m_tables(tables)
        , m_lengths(tables.lengths)
        , m_offsets(tables.offsets)
    {
    }

    /// Goes to the next sample. False after the last one, and where the tables have no more.
    bool next();
    const Sample &sample() const { return m_sample; }
    uint64_t number() const { return m_number; }  ///< of it, from 1
    /// After the last sample: the tables that lead to bytes had one entry for each of them, and no more.
    bool is_whole() const;

private:
    class Runs {
    public:
        explicit Runs(const std::vector<uint32_t> &pairs)
            : m_pairs(pairs)
        {
        }
        /// The value of the next sample; none beyond the table.
        std::optional<uint32_t> next();

    private:
        const std::vector<uint32_t> &m_pairs;
        size_t m_at = 0;
        uint32_t m_left = 0;
    };

    bool enter_chunk();

    const SampleTables &m_tables;
    Runs m_lengths, m_offsets;
    Sample m_sample;
    uint64_t m_number = 0;
    size_t m_key = 0, m_run = 0, m_chunk = 0;  // the next ones
    uint32_t m_left = 0;                       // samples of the present chunk
};

#endif
