// The heap, made ready for what the library takes of it.

#ifndef HOST_STREAM_HEAP_H
#define HOST_STREAM_HEAP_H

#include <cstddef>

/// Has the system fill in the next size bytes of the heap at once, and keeps blocks up to this size
/// on the heap. Otherwise the system fills pages in one by one as each is first written, and a large
/// frame has pages of its own that come and go with it: both can take longer than all else that a
/// short run does. With 32-bit pointers size counts up to 448 KiB only.
void prepare_heap(size_t size);

#endif
