// Result codes of the host's own operations. The library returns none of them.

#ifndef PELA_STATUS_H
#define PELA_STATUS_H

namespace PELA {

enum Status {
    SUCCESS = 0,
    INVALID_ARGUMENTS = 1,
    IO_ERROR = 2,
    TIMED_OUT = 3,
    FAILURE = 4,
    NOT_SUPPORTED = 5,
    ABORT = 6,
    OUT_OF_MEMORY = 7,
    NERRORS = 8  ///< count of codes
};

}  // namespace PELA

#endif
