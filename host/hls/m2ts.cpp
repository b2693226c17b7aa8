#include "m2ts.h"

#include "io/message.h"
#include "survey.h"

std::string copy_m2ts_segment(Source &, const Film &, size_t, std::vector<uint8_t> &)
{
    return "M2TS isn't served yet";
}

void survey_m2ts(Source &source, Film &)
{
    throw NotDone(source.path(), "M2TS isn't served yet");
}
