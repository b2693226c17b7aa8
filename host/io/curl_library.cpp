#include "curl_library.h"

#include <dlfcn.h>

#include "message.h"

namespace {

const char *const NAME = "libcurl.so.4";

CurlLibrary load();

/// Stores the address of the function in its place.
template <typename Function> void find(void *library, const char *name, Function &place)
{
    void *const address = dlsym(library, name);
    if (address == nullptr) throw NotDone(NAME, std::string("is too old, it lacks ") + name);
    place = reinterpret_cast<Function>(address);
}

}  // namespace

const CurlLibrary &CurlLibrary::get()
{
    static const CurlLibrary library = load();
    return library;
}

namespace {

CurlLibrary load()
{
    // It stays loaded until the program ends.
    void *const library = dlopen(NAME, RTLD_NOW | RTLD_LOCAL);
    if (library == nullptr) {
        const char *const reason = dlerror();
        throw NotDone("URLs need libcurl", reason != nullptr ? reason : "it can't be loaded");
    }
    CurlLibrary curl = {};
    find(library, "curl_global_init", curl.global_init);
    find(library, "curl_easy_init", curl.easy_init);
    find(library, "curl_easy_cleanup", curl.easy_cleanup);
    find(library, "curl_easy_setopt", curl.easy_setopt);
    find(library, "curl_easy_getinfo", curl.easy_getinfo);
    find(library, "curl_easy_pause", curl.easy_pause);
    find(library, "curl_easy_strerror", curl.easy_strerror);
    find(library, "curl_slist_append", curl.slist_append);
    find(library, "curl_slist_free_all", curl.slist_free_all);
    find(library, "curl_multi_init", curl.multi_init);
    find(library, "curl_multi_cleanup", curl.multi_cleanup);
    find(library, "curl_multi_add_handle", curl.multi_add_handle);
    find(library, "curl_multi_remove_handle", curl.multi_remove_handle);
    find(library, "curl_multi_perform", curl.multi_perform);
    find(library, "curl_multi_poll", curl.multi_poll);
    find(library, "curl_multi_info_read", curl.multi_info_read);
    if (curl.global_init(CURL_GLOBAL_DEFAULT) != CURLE_OK) throw NotDone(NAME, "can't be set up");
    return curl;
}

}  // namespace
