// Matroska files (RFC 8794, RFC 9559) from a text, whose words say in the order of the file what
// is in it:
//
//     h0 h1000                a SeekHead with the place of the Cues, or with one so much later
//     d473B8000               an Info with a Duration
//     t1['V_VP8']E0[B0[10]]   a track: its number, its codec, its further children
//     k                       the Cues
//     c2000 C2000 q2000       a Cluster of that time; one with a cue point; a further cue point
//     v40(65) a-1=0102        blocks of track 1 and of track 2: the relative time and the payload
//     l02..                   a block of track 2 from its flags on, for laces
//     =EC[00*5]               bytes, within what the word before it began
//     .                       ends that
//     n4FFE[01]               elements for the begin and the end of every master that follows
//
// Bytes are hexadecimal digits, with points between them anywhere; 41*9 are nine bytes of 0x41,
// 41~9 has nine bytes of a pattern after it; #9 is a number of eight bytes, %9 a block's time with
// its flags, 0; [..] is a payload after its size, (..) and {..} are NAL units after a length of
// four and of three bytes; 'A_AAC' is a text.

#ifndef GOLT_TEST_MKV_BUILDER_H
#define GOLT_TEST_MKV_BUILDER_H

#include <cstring>
#include <sstream>
#include <utility>

#include "bytes.h"

/// The size of an element, of the smallest width that holds it.
inline Bytes element_size(uint64_t size)
{
    int width = 1;
    while (size >= (uint64_t{1} << (7 * width)) - 1)
        ++width;
    return be(size | uint64_t{1} << (7 * width), width);
}

/// The bytes that a notation means.
inline Bytes spell(const std::string &notation)
{
    Bytes out;
    std::vector<Bytes> outer;  // what is before each payload that is open
    for (size_t i = 0, used = 0; i < notation.size(); i += 1 + used) {
        const char sign = notation[i];
        used = 0;
        if (strchr("*~#%", sign) != nullptr) {
            const uint64_t number = std::stoull(notation.substr(i + 1, 20), &used);
            const auto count = static_cast<size_t>(number);
            out += sign == '*'   ? Bytes(count - 1, out.back())
                   : sign == '~' ? pattern(count, out.back())
                   : sign == '#' ? be(number, 8)
                                 : be(number << 8, 3);
        } else if (strchr("[({", sign) != nullptr) {
            outer.push_back(std::move(out));
            out.clear();
        } else if (strchr("])}", sign) != nullptr) {
            const size_t size = out.size();
            const Bytes length = sign == ']' ? element_size(size) : be(size, sign == ')' ? 4 : 3);
            outer.back() += length + out;
            out = std::move(outer.back());
            outer.pop_back();
        } else if (sign == '\'') {
            used = notation.find(sign, i + 1) - i;
            out += text(notation.substr(i + 1, used - 1));
        } else if (sign != '.' && sign != '=') {
            out += hex(notation.substr(i, 2));
            used = 1;
        }
    }
    return out;
}

/// The file of such a text.
class MkvFile {
public:
    explicit MkvFile(const std::string &words)
    {
        // Each turn writes the places that the one before has found. All have the same width.
        for (int turn = 0; turn < 3; ++turn) {
            m_segment.clear();
            m_found_cues = std::exchange(m_cues, "");
            std::istringstream in(words);
            for (std::string word; in >> word;)
                put(word[0], word.substr(1));
            begin("", "");
        }
    }
    Bytes build() const { return spell("1A45DFA3[]18538067[" + m_segment + "]"); }

private:
    void put(char kind, const std::string &rest)
    {
        switch (kind) {
        case 'h':
            begin("114D9B74",
                  master("4DBB", "53AB[1C53BB6B]53AC" + number(m_cues_at + std::stoull(rest))));
            break;
        case 'd': begin("1549A966", "4489[" + rest + "]"); break;
        case 't':
            if (m_id != "1654AE6B") begin("1654AE6B", "");
            m_segment += master("AE", "D7[0" + rest.substr(0, 1) + "]83[0" +
                                          (rest[3] == 'V' ? "1" : "2") + "]86" + rest.substr(1));
            break;
        case 'k':
            begin("", "");
            m_cues_at = spell(m_segment).size();
            begin("1C53BB6B", m_found_cues);
            break;
        case 'C':
            begin("", "");
            m_cluster_at = spell(m_segment).size();
            put('q', rest);
            [[fallthrough]];
        case 'c': begin("1F43B675", "E7[#" + rest + "]"); break;
        case 'q':
            m_cues += master("BB", "B3[#" + rest + "]" + master("B7", "F1" + number(m_cluster_at)));
            break;
        case 'v': m_segment += "A3[81%" + rest + "]"; break;
        case 'a': m_segment += "A3[82%" + rest + "]"; break;
        case 'l': m_segment += "A3[82.0000." + rest + "]"; break;
        case '=': m_segment += rest; break;
        case '.': begin("", ""); break;
        case 'n': m_noise = rest;
        }
    }

    static std::string number(uint64_t value) { return "[#" + std::to_string(value) + "]"; }
    std::string master(const std::string &id, const std::string &children) const
    {
        return id + "[" + m_noise + children + m_noise + "]";
    }
    // Ends the master that is open, and begins one, or what is outside of one.
    void begin(const std::string &id, const std::string &children)
    {
        if (!m_id.empty()) m_segment += m_noise + "]";
        m_id = id;
        m_segment += id.empty() ? "" : id + "[" + m_noise + children;
    }

    std::string m_segment;  // as far as it is written
    std::string m_id;       // of the master that is open
    std::string m_noise, m_cues, m_found_cues;
    uint64_t m_cues_at = 0, m_cluster_at = 0;
};

#endif
