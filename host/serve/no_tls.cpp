// Debian's libmicrohttpd.a calls GnuTLS, of which there is no whole static library. The server of golt never
// asks for TLS, so that the program that is linked statically goes without: these stand in for all that the
// archive names. Only gnutls_global_init and gnutls_global_deinit are ever called, and their results aren't used.

#include <cstddef>

namespace {

constexpr int UNIMPLEMENTED = -1250;  // GNUTLS_E_UNIMPLEMENTED_FEATURE

}  // namespace

#define WITHOUT_TLS(name)                                                                          \
    extern "C" int name();                                                                         \
    extern "C" int name()                                                                          \
    {                                                                                              \
        return UNIMPLEMENTED;                                                                      \
    }

// The one that isn't a function, but points to one.
extern "C" {
extern void *(*gnutls_malloc)(size_t);
void *(*gnutls_malloc)(size_t) = nullptr;
}

WITHOUT_TLS(gnutls_alpn_set_protocols)
WITHOUT_TLS(gnutls_bye)
WITHOUT_TLS(gnutls_certificate_allocate_credentials)
WITHOUT_TLS(gnutls_certificate_free_credentials)
WITHOUT_TLS(gnutls_certificate_server_set_request)
WITHOUT_TLS(gnutls_certificate_set_dh_params)
WITHOUT_TLS(gnutls_certificate_set_retrieve_function2)
WITHOUT_TLS(gnutls_certificate_set_retrieve_function3)
WITHOUT_TLS(gnutls_certificate_set_x509_key_mem)
WITHOUT_TLS(gnutls_certificate_set_x509_key_mem2)
WITHOUT_TLS(gnutls_certificate_set_x509_trust_mem)
WITHOUT_TLS(gnutls_cipher_get)
WITHOUT_TLS(gnutls_credentials_set)
WITHOUT_TLS(gnutls_deinit)
WITHOUT_TLS(gnutls_dh_params_deinit)
WITHOUT_TLS(gnutls_dh_params_import_pkcs3)
WITHOUT_TLS(gnutls_dh_params_init)
WITHOUT_TLS(gnutls_global_deinit)
WITHOUT_TLS(gnutls_global_init)
WITHOUT_TLS(gnutls_handshake)
WITHOUT_TLS(gnutls_init)
WITHOUT_TLS(gnutls_priority_deinit)
WITHOUT_TLS(gnutls_priority_init)
WITHOUT_TLS(gnutls_priority_set)
WITHOUT_TLS(gnutls_protocol_get_version)
WITHOUT_TLS(gnutls_psk_allocate_server_credentials)
WITHOUT_TLS(gnutls_psk_free_server_credentials)
WITHOUT_TLS(gnutls_psk_set_server_credentials_function)
WITHOUT_TLS(gnutls_record_check_pending)
WITHOUT_TLS(gnutls_record_get_direction)
WITHOUT_TLS(gnutls_record_recv)
WITHOUT_TLS(gnutls_record_send)
WITHOUT_TLS(gnutls_session_get_ptr)
WITHOUT_TLS(gnutls_session_set_ptr)
WITHOUT_TLS(gnutls_strerror)
WITHOUT_TLS(gnutls_transport_set_int2)
