#include "golt_crc.h"

#include <array>

namespace {

constexpr crc_t POLYNOMIAL = 0x04C11DB7;

constexpr std::array<crc_t, 256> make_crc_table()
{
    std::array<crc_t, 256> table{};
    for (uint32_t index = 0; index < 256; ++index) {
        crc_t crc = index << 24;
        for (int bit = 0; bit < 8; ++bit)
            crc = (crc & 0x80000000) != 0 ? (crc << 1) ^ POLYNOMIAL : crc << 1;
        table[index] = crc;
    }
    return table;
}

constexpr std::array<crc_t, 256> crc_table = make_crc_table();
static_assert(crc_table[1] == POLYNOMIAL && crc_table[2] == 0x09823B6E,
              "most significant bit first");

}  // namespace

crc_t crc_init()
{
    return 0xFFFFFFFF;
}

crc_t crc_update(crc_t crc, const unsigned char *data, size_t data_len)
{
    for (size_t at = 0; at < data_len; ++at)
        crc = crc_table[((crc >> 24) ^ data[at]) & 0xFF] ^ (crc << 8);
    return crc;
}

crc_t crc_finalize(crc_t crc)
{
    return crc;
}

uint32_t golt_crc32(const uint8_t *p, uint32_t len)
{
    return crc_finalize(crc_update(crc_init(), p, len));
}
