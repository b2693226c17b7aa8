// Memory: the heap, made ready for what the library takes of it, and the code that has done its work.

#ifndef HOST_STREAM_HEAP_H
#define HOST_STREAM_HEAP_H

#include <cstddef>

/// Has the system fill in the next size bytes of the heap at once, and keeps blocks up to this size
/// on the heap. Otherwise the system fills pages in one by one as each is first written, and a large
/// frame has pages of its own that come and go with it: both can take longer than all else that a
/// short run does. With 32-bit pointers size counts up to 448 KiB only.
void prepare_heap(size_t size);

/// Gives the system's memory back that the code has taken up to now, a third of what a run needs in all: most of it
/// runs only at the start. What goes on running is there again with its next call.
void release_start_up();

#endif
