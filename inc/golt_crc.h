// The checksum of program-specific information: CRC-32/MPEG-2 (ISO/IEC 13818-1, Annex A),
// polynomial 0x04C11DB7, most significant bit first, initial value all ones, no final inversion.

#ifndef GOLT_CRC_H
#define GOLT_CRC_H

#include <cstddef>
#include <cstdint>

typedef uint32_t crc_t;

/// Value to start a running checksum with.
crc_t crc_init();

/// Running checksum after data_len more bytes at data.
crc_t crc_update(crc_t crc, const unsigned char *data, size_t data_len);

/// Checksum of all bytes given so far.
crc_t crc_finalize(crc_t crc);

/// Checksum of the len bytes at p. Over a section with its CRC_32 at the end it is 0.
uint32_t golt_crc32(const uint8_t *p, uint32_t len);

#endif
