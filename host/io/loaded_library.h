// A library of which some commands need a few functions. It is loaded when the first of them runs: the others
// shall neither wait for it nor need it. The program that is linked statically has the functions in itself.

#ifndef HOST_IO_LOADED_LIBRARY_H
#define HOST_IO_LOADED_LIBRARY_H

#include <string>

class LoadedLibrary {
public:
    /// It stays loaded until the program ends. need: what it is for; NotDone, which is thrown if it can't be
    /// loaded, begins with that.
    LoadedLibrary(const std::string &file, const std::string &need);

    /// Throws NotDone if the library lacks the function.
    template <typename Function> Function find(const char *name) const
    {
        return reinterpret_cast<Function>(address_of(name));
    }

private:
    void *address_of(const char *name) const;

    std::string m_file;
    void *m_library = nullptr;
};

/// The address of a function by its name in the library's header.
#if GOLT_STATIC
#define GOLT_FUNCTION(library, name) (static_cast<void>(library), &::name)
#else
#define GOLT_FUNCTION(library, name) (library).find<decltype(&::name)>(#name)
#endif

#endif
