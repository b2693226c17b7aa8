// golt info of a transport stream: what is in its packets. They have no header that would say it, so all of them are
// read.

#ifndef HOST_STREAM_INFO_H
#define HOST_STREAM_INFO_H

#include "io/message.h"
#include "io/printer.h"
#include "stream/input.h"

/// f_several: a line is printed, or a document on a line. Throws NotDone.
ExitStatus stream_info(InputFile &file, bool f_json, bool f_several, Printer &printer);

#endif
