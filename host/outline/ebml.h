// Elements of EBML (RFC 8794), as Matroska files (RFC 9559) are made of them.

#ifndef HOST_OUTLINE_EBML_H
#define HOST_OUTLINE_EBML_H

#include <optional>

#include "reader.h"

namespace outline {

namespace id {
constexpr uint32_t EBML = 0x1A45DFA3, DOC_TYPE = 0x4282, VOID_ELEMENT = 0xEC, CRC_32 = 0xBF;
constexpr uint32_t SEGMENT = 0x18538067, SEEK_HEAD = 0x114D9B74, INFO = 0x1549A966,
                   TRACKS = 0x1654AE6B, CUES = 0x1C53BB6B, CHAPTERS = 0x1043A770, TAGS = 0x1254C367,
                   ATTACHMENTS = 0x1941A469, CLUSTER = 0x1F43B675;
constexpr uint32_t TIMESTAMP = 0xE7, SIMPLE_BLOCK = 0xA3, BLOCK_GROUP = 0xA0, BLOCK = 0xA1,
                   POSITION = 0xA7, PREV_SIZE = 0xAB, SILENT_TRACKS = 0x5854,
                   ENCRYPTED_BLOCK = 0xAF;
}  // namespace id

struct Element {
    uint32_t id;        ///< with its marker
    uint64_t begin;     ///< offset of its first byte
    Stretch body;       ///< as far as what it is in goes
    uint64_t declared;  ///< bytes of the body by the header; UINT64_MAX where it states none
    bool f_open;        ///< of unknown size

    bool is_whole() const { return !f_open && declared == body.left(); }
    uint64_t end() const { return body.end(); }
};

/// Takes the next element. None at the end, and where no element can be.
std::optional<Element> next_element(Stretch &in);

/// What an element holds. Of more than 8 bytes a number is 0.
uint64_t unsigned_of(const Element &element);
double float_of(const Element &element);
std::string text_of(const Element &element, size_t most);

}  // namespace outline

#endif
