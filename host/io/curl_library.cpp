#include "curl_library.h"

#include "loaded_library.h"
#include "message.h"

namespace {

const char *const NAME = "libcurl.so.4";

CurlLibrary load();

}  // namespace

const CurlLibrary &CurlLibrary::get()
{
    static const CurlLibrary library = load();
    return library;
}

namespace {

CurlLibrary load()
{
    const LoadedLibrary library(NAME, "URLs need libcurl");
    CurlLibrary curl = {};
    curl.global_init = GOLT_FUNCTION(library, curl_global_init);
    curl.easy_init = GOLT_FUNCTION(library, curl_easy_init);
    curl.easy_cleanup = GOLT_FUNCTION(library, curl_easy_cleanup);
    curl.easy_setopt = GOLT_FUNCTION(library, curl_easy_setopt);
    curl.easy_getinfo = GOLT_FUNCTION(library, curl_easy_getinfo);
    curl.easy_pause = GOLT_FUNCTION(library, curl_easy_pause);
    curl.easy_strerror = GOLT_FUNCTION(library, curl_easy_strerror);
    curl.slist_append = GOLT_FUNCTION(library, curl_slist_append);
    curl.slist_free_all = GOLT_FUNCTION(library, curl_slist_free_all);
    curl.multi_init = GOLT_FUNCTION(library, curl_multi_init);
    curl.multi_cleanup = GOLT_FUNCTION(library, curl_multi_cleanup);
    curl.multi_add_handle = GOLT_FUNCTION(library, curl_multi_add_handle);
    curl.multi_remove_handle = GOLT_FUNCTION(library, curl_multi_remove_handle);
    curl.multi_perform = GOLT_FUNCTION(library, curl_multi_perform);
    curl.multi_poll = GOLT_FUNCTION(library, curl_multi_poll);
    curl.multi_info_read = GOLT_FUNCTION(library, curl_multi_info_read);
    if (curl.global_init(CURL_GLOBAL_DEFAULT) != CURLE_OK) throw NotDone(NAME, "can't be set up");
    return curl;
}

}  // namespace
