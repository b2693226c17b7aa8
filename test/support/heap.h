// The general heap as the library uses it: how much it holds, and requests that are refused. The
// linker leads the library's calls of it here (GOLT_WRAP_HEAP in CMakeLists.txt).

#ifndef GOLT_TEST_HEAP_H
#define GOLT_TEST_HEAP_H

#include <climits>
#include <cstddef>

struct HeapWatch {
    int granted = INT_MAX;  ///< further requests that are served; those after them are refused,
    int refused = INT_MAX;  ///< as many as this
    size_t held = 0;        ///< bytes that the library holds
    size_t most = 0;        ///< the largest that held has been
    size_t requests = 0;    ///< that were made, be they served or refused
    bool f_watched = false;
};

extern HeapWatch g_heap;

/// What happens while one lives is the library's doing, or, with false, the host's inside of it.
class LibraryCall {
public:
    explicit LibraryCall(bool f_library = true)
        : m_outer(g_heap.f_watched)
    {
        g_heap.f_watched = f_library;
    }
    ~LibraryCall() { g_heap.f_watched = m_outer; }
    LibraryCall(const LibraryCall &) = delete;
    LibraryCall &operator=(const LibraryCall &) = delete;

private:
    bool m_outer;
};

#endif
