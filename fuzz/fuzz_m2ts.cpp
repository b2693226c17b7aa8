// The demuxer behind "m2ts", without cache and driver.

#include "target.h"

int LLVMFuzzerTestOneInput(const uint8_t *pb_data, size_t size)
{
    run_demuxer(GOLT::g_dmx_handlers[0], Input(pb_data, size));
    return 0;
}
