// Reads a file at any place, a little at a time: the outline takes what it needs and passes over the
// rest. All that is read counts against a budget, so that no file can keep a reader busy.

#ifndef HOST_OUTLINE_READER_H
#define HOST_OUTLINE_READER_H

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

/// A file, by whatever means its bytes come.
class ByteSource {
public:
    /// Copies the bytes from offset on, most at most; how many they were. Fewer than least: the file
    /// ends there, or can't be read.
    virtual size_t read_at(uint64_t offset, uint8_t *buffer, size_t least, size_t most) = 0;
    /// In bytes; 0 where that isn't known.
    virtual uint64_t size() const = 0;

protected:
    ~ByteSource() = default;
};

/// A source behind a window, within a budget.
class Reader {
public:
    // What is loaded at once: the header of most files, or some thousand entries of a table.
    static constexpr size_t WINDOW_SIZE = 16384;
    // Times that the window moves. Audio files need ten or twenty, and one more for each window full of
    // a table: those of ten hours of audio in MP4 take 7 MiB.
    static constexpr uint32_t MOST_LOADS = 2048;

    /// source: has to outlive the object.
    explicit Reader(ByteSource &source, uint32_t most_loads = MOST_LOADS)
        : m_source(source)
        , m_most_loads(most_loads)
    {
    }

    /// Copies size bytes, all of them or none. False at the end of the file, and beyond the budget.
    bool read(uint64_t offset, uint8_t *buffer, size_t size);
    /// The file's size in bytes; UINT64_MAX where it isn't known.
    uint64_t size() const { return m_source.size() == 0 ? UINT64_MAX : m_source.size(); }
    bool knows_size() const { return m_source.size() != 0; }
    /// Whether the budget is spent: what can't be read then may be there all the same.
    bool is_exhausted() const { return m_loads >= m_most_loads; }
    /// Whether something couldn't be read that may be there: beyond the budget, or by the source's fault.
    bool has_failed() const { return m_f_failed; }

private:
    bool load(uint64_t offset, size_t least);

    ByteSource &m_source;
    const uint32_t m_most_loads;
    std::array<uint8_t, WINDOW_SIZE> m_window;
    uint64_t m_begin = 0;  // offset in the file of what the window holds
    size_t m_held = 0;
    uint64_t m_end = UINT64_MAX;  // beyond which nothing was found
    uint32_t m_loads = 0;
    bool m_f_failed = false;
};

/// A stretch of a file, read from its begin on. What is read past its end is 0, and marks it as short for
/// good: a record is checked once, after its last field.
class Stretch {
public:
    /// reader: has to outlive the object. end: offset after the last byte.
    Stretch(Reader &reader, uint64_t begin, uint64_t end)
        : m_reader(&reader)
        , m_at(begin)
        , m_end(end < begin ? begin : end)
    {
    }

    Reader &reader() const { return *m_reader; }
    uint64_t at() const { return m_at; }
    uint64_t end() const { return m_end; }
    uint64_t left() const { return m_end - m_at; }
    bool is_short() const { return m_f_short; }

    uint8_t u8() { return static_cast<uint8_t>(number(1)); }
    uint16_t u16() { return static_cast<uint16_t>(number(2)); }
    uint32_t u24() { return static_cast<uint32_t>(number(3)); }
    uint32_t u32() { return static_cast<uint32_t>(number(4)); }
    uint64_t u64() { return number(8); }
    /// A big-endian number of size bytes, 8 at most.
    uint64_t number(size_t size);
    void skip(uint64_t size);
    /// The next size bytes, of which most are kept.
    std::vector<uint8_t> bytes(uint64_t size, size_t most);
    /// The same as a text, cut at a NUL; what isn't printable ASCII is '?'.
    std::string text(uint64_t size, size_t most);
    /// The next size bytes, or those that there are, as a stretch of their own. This one goes on after
    /// them.
    Stretch child(uint64_t size);

private:
    Reader *m_reader;
    uint64_t m_at;
    uint64_t m_end;
    bool m_f_short = false;
};

#endif
