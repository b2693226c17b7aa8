// The heap, made ready for what the library takes of it.

#ifndef HOST_HEAP_H
#define HOST_HEAP_H

#include <cstddef>

/// Has the system fill in the next size bytes of the heap at once. Otherwise it does so page by page
/// as each is first written, which can take longer than all else that a short run does.
void fill_heap(size_t size);

/// Keeps blocks below 4 MiB on the heap: by default those above 128 KiB, such as large frames, go
/// back to the system one by one, and come anew.
void keep_large_blocks();

#endif
