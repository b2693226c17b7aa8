#include "loaded_library.h"

#include "message.h"

#if GOLT_STATIC

LoadedLibrary::LoadedLibrary(const std::string &file, const std::string & /*need*/)
    : m_file(file)
{
}

#else

#include <dlfcn.h>

LoadedLibrary::LoadedLibrary(const std::string &file, const std::string &need)
    : m_file(file)
    , m_library(dlopen(file.c_str(), RTLD_NOW | RTLD_LOCAL))
{
    if (m_library != nullptr) return;
    const char *const reason = dlerror();
    throw NotDone(need, reason != nullptr ? reason : "it can't be loaded");
}

void *LoadedLibrary::address_of(const char *name) const
{
    void *const address = dlsym(m_library, name);
    if (address == nullptr) throw NotDone(m_file, std::string("is too old, it lacks ") + name);
    return address;
}

#endif
