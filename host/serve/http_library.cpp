#include "http_library.h"

#include "io/loaded_library.h"

namespace {

HttpLibrary load();

}  // namespace

const HttpLibrary &HttpLibrary::get()
{
    static const HttpLibrary library = load();
    return library;
}

namespace {

HttpLibrary load()
{
    const LoadedLibrary library("libmicrohttpd.so.12", "the server needs libmicrohttpd");
    HttpLibrary http = {};
    http.start_daemon = GOLT_FUNCTION(library, MHD_start_daemon);
    http.stop_daemon = GOLT_FUNCTION(library, MHD_stop_daemon);
    http.quiesce_daemon = GOLT_FUNCTION(library, MHD_quiesce_daemon);
    http.run = GOLT_FUNCTION(library, MHD_run);
    http.get_timeout = GOLT_FUNCTION(library, MHD_get_timeout);
    http.get_daemon_info = GOLT_FUNCTION(library, MHD_get_daemon_info);
    http.get_connection_info = GOLT_FUNCTION(library, MHD_get_connection_info);
    http.suspend_connection = GOLT_FUNCTION(library, MHD_suspend_connection);
    http.resume_connection = GOLT_FUNCTION(library, MHD_resume_connection);
    http.get_connection_values = GOLT_FUNCTION(library, MHD_get_connection_values);
    http.create_response_from_buffer = GOLT_FUNCTION(library, MHD_create_response_from_buffer);
    http.create_response_from_buffer_with_free_callback_cls =
        GOLT_FUNCTION(library, MHD_create_response_from_buffer_with_free_callback_cls);
    http.create_response_from_callback = GOLT_FUNCTION(library, MHD_create_response_from_callback);
    http.add_response_header = GOLT_FUNCTION(library, MHD_add_response_header);
    http.set_response_options = GOLT_FUNCTION(library, MHD_set_response_options);
    http.queue_response = GOLT_FUNCTION(library, MHD_queue_response);
    http.destroy_response = GOLT_FUNCTION(library, MHD_destroy_response);
    return http;
}

}  // namespace
