#include "http_library.h"

#include <dlfcn.h>

#include "io/message.h"

namespace {

const char *const NAME = "libmicrohttpd.so.12";

HttpLibrary load();

template <typename Function> void find(void *library, const char *name, Function &place)
{
    void *const address = dlsym(library, name);
    if (address == nullptr) throw NotDone(NAME, std::string("is too old, it lacks ") + name);
    place = reinterpret_cast<Function>(address);
}

}  // namespace

const HttpLibrary &HttpLibrary::get()
{
    static const HttpLibrary library = load();
    return library;
}

namespace {

HttpLibrary load()
{
    // It stays loaded until the program ends.
    void *const library = dlopen(NAME, RTLD_NOW | RTLD_LOCAL);
    if (library == nullptr) {
        const char *const reason = dlerror();
        throw NotDone("the server needs libmicrohttpd",
                      reason != nullptr ? reason : "it can't be loaded");
    }
    HttpLibrary http = {};
    find(library, "MHD_start_daemon", http.start_daemon);
    find(library, "MHD_stop_daemon", http.stop_daemon);
    find(library, "MHD_quiesce_daemon", http.quiesce_daemon);
    find(library, "MHD_run", http.run);
    find(library, "MHD_get_timeout", http.get_timeout);
    find(library, "MHD_get_daemon_info", http.get_daemon_info);
    find(library, "MHD_get_connection_info", http.get_connection_info);
    find(library, "MHD_suspend_connection", http.suspend_connection);
    find(library, "MHD_resume_connection", http.resume_connection);
    find(library, "MHD_lookup_connection_value", http.lookup_connection_value);
    find(library, "MHD_create_response_from_buffer", http.create_response_from_buffer);
    find(library, "MHD_create_response_from_callback", http.create_response_from_callback);
    find(library, "MHD_add_response_header", http.add_response_header);
    find(library, "MHD_queue_response", http.queue_response);
    find(library, "MHD_destroy_response", http.destroy_response);
    return http;
}

}  // namespace
