// Before every source file of a build with the memory sanitizer, which knows nothing of what the C++ library's shared
// object writes: strings and streams are instantiated here, and thereby observed, instead of taken from there.

#ifdef __cplusplus
#include <cstddef>
#undef _GLIBCXX_EXTERN_TEMPLATE
#define _GLIBCXX_EXTERN_TEMPLATE 0
#endif
