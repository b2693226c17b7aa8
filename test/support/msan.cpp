// What the C++ library's shared object writes unseen by the memory sanitizer, and what is read again by code that is
// built here (cmake/msan.h): each of its functions is called, and what it has written is told.

#include <dlfcn.h>
#include <ios>
#include <locale>
#include <map>
#include <sanitizer/msan_interface.h>

namespace {

template <typename Function> Function real(const char *name)
{
    return reinterpret_cast<Function>(dlsym(RTLD_NEXT, name));
}

}  // namespace

// A constructor or a method without parameters, after which the whole object is written.
#define WRITES_OBJECT(mangled, type)                                                               \
    extern "C" void mangled(void *self);                                                           \
    extern "C" void mangled(void *self)                                                            \
    {                                                                                              \
        static const auto called = real<void (*)(void *)>(#mangled);                               \
        called(self);                                                                              \
        __msan_unpoison(self, sizeof(type));                                                       \
    }

WRITES_OBJECT(_ZNSt8ios_baseC2Ev, std::ios_base)
WRITES_OBJECT(_ZNSt8ios_base7_M_initEv, std::ios_base)
WRITES_OBJECT(_ZNSt6localeC1Ev, std::locale)

extern "C" void _ZNSt6localeC1ERKS_(void *self, const void *other);
extern "C" void _ZNSt6localeC1ERKS_(void *self, const void *other)
{
    static const auto called = real<void (*)(void *, const void *)>("_ZNSt6localeC1ERKS_");
    called(self, other);
    __msan_unpoison(self, sizeof(std::locale));
}

// Of maps and sets: the head of a node. Those around it were written before.
void std::_Rb_tree_insert_and_rebalance(const bool f_left, _Rb_tree_node_base *node,
                                        _Rb_tree_node_base *parent,
                                        _Rb_tree_node_base &header) throw()
{
    typedef void (*Function)(bool, _Rb_tree_node_base *, _Rb_tree_node_base *,
                             _Rb_tree_node_base &);
    static const auto called =
        real<Function>("_ZSt29_Rb_tree_insert_and_rebalancebPSt18_Rb_tree_node_baseS0_RS_");
    called(f_left, node, parent, header);
    __msan_unpoison(node, sizeof *node);
}
