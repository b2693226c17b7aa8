// The functions of libmicrohttpd that the server uses, found when it starts: the other commands shall
// neither wait for it nor need it.

#ifndef HOST_SERVE_HTTP_LIBRARY_H
#define HOST_SERVE_HTTP_LIBRARY_H

#include <cstdarg>
#include <cstdint>

#include <sys/socket.h>
#include <sys/types.h>

#include <microhttpd.h>

struct HttpLibrary {
    decltype(&::MHD_start_daemon) start_daemon;
    decltype(&::MHD_stop_daemon) stop_daemon;
    decltype(&::MHD_quiesce_daemon) quiesce_daemon;
    decltype(&::MHD_run) run;
    decltype(&::MHD_get_timeout) get_timeout;
    decltype(&::MHD_get_daemon_info) get_daemon_info;
    decltype(&::MHD_get_connection_info) get_connection_info;
    decltype(&::MHD_suspend_connection) suspend_connection;
    decltype(&::MHD_resume_connection) resume_connection;
    decltype(&::MHD_get_connection_values) get_connection_values;
    decltype(&::MHD_create_response_from_buffer) create_response_from_buffer;
    decltype(&::MHD_create_response_from_buffer_with_free_callback_cls)
        create_response_from_buffer_with_free_callback_cls;
    decltype(&::MHD_create_response_from_callback) create_response_from_callback;
    decltype(&::MHD_add_response_header) add_response_header;
    decltype(&::MHD_set_response_options) set_response_options;
    decltype(&::MHD_queue_response) queue_response;
    decltype(&::MHD_destroy_response) destroy_response;

    /// Loads the library, once. Throws NotDone.
    static const HttpLibrary &get();
};

#endif
