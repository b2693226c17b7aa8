// The few functions of libcurl that the program uses, found when the first URL comes: files of this
// machine shall neither wait for it nor need it.

#ifndef HOST_IO_CURL_LIBRARY_H
#define HOST_IO_CURL_LIBRARY_H

#include <curl/curl.h>

struct CurlLibrary {
    decltype(&::curl_global_init) global_init;
    decltype(&::curl_easy_init) easy_init;
    decltype(&::curl_easy_cleanup) easy_cleanup;
    decltype(&::curl_easy_setopt) easy_setopt;
    decltype(&::curl_easy_getinfo) easy_getinfo;
    decltype(&::curl_easy_pause) easy_pause;
    decltype(&::curl_easy_strerror) easy_strerror;
    decltype(&::curl_slist_append) slist_append;
    decltype(&::curl_slist_free_all) slist_free_all;
    decltype(&::curl_multi_init) multi_init;
    decltype(&::curl_multi_cleanup) multi_cleanup;
    decltype(&::curl_multi_add_handle) multi_add_handle;
    decltype(&::curl_multi_remove_handle) multi_remove_handle;
    decltype(&::curl_multi_perform) multi_perform;
    decltype(&::curl_multi_poll) multi_poll;
    decltype(&::curl_multi_info_read) multi_info_read;

    /// Loads the library, once. Throws NotDone.
    static const CurlLibrary &get();
};

#endif
