// One request after another to an HTTP server: each asks for all of a file from an offset on, and
// what comes goes to a receiver, piece by piece and never unasked.

#ifndef HOST_IO_HTTP_TRANSFER_H
#define HOST_IO_HTTP_TRANSFER_H

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "http_options.h"

/// What the server's answer says about the file.
struct HttpAnswer {
    uint64_t first = 0;             ///< offset of the first byte that comes
    std::optional<uint64_t> end;    ///< offset after the last byte that comes
    std::optional<uint64_t> total;  ///< bytes of the whole file
    bool f_range = false;           ///< the server serves ranges
    bool f_framed = false;          ///< an answer that breaks off is noticed
    // Both change when the file does; empty if the server doesn't send them.
    std::string tag;       ///< strong ETag
    std::string modified;  ///< Last-Modified
};

class HttpReceiver {
public:
    /// Comes before the first bytes of a request. False refuses them: the transfer fails.
    virtual bool on_answer(const HttpAnswer &answer) = 0;
    /// False when there is no room: the transfer pauses, and the same bytes come again after
    /// resume.
    virtual bool on_bytes(const uint8_t *bytes, size_t size) = 0;
    /// There is nothing from the requested offset on. total: bytes of the whole file, if stated.
    virtual void on_nothing(std::optional<uint64_t> total) = 0;

protected:
    ~HttpReceiver() = default;
};

class HttpTransfer {
public:
    enum State {
        IDLE,
        RUNNING,
        DONE,    ///< all came that the server had announced
        FAILED,  ///< by its fault or the network's; another try may help
        REFUSED  ///< as it will be every time
    };

    /// tag: the strong ETag of the file that the bytes have to belong to; empty: not known.
    virtual void start(uint64_t offset, const std::string &tag) = 0;
    virtual void stop() = 0;
    /// Lets the bytes come that found no room.
    virtual void resume() = 0;
    /// Takes what has come, and waits for more where nothing has, as long as wait_ms at most.
    virtual void work(int wait_ms) = 0;
    virtual State state() const = 0;
    /// Why it failed or was refused.
    virtual const std::string &reason() const = 0;
    virtual ~HttpTransfer() = default;
};

/// options, receiver: have to outlive the transfer. Throws NotDone.
std::unique_ptr<HttpTransfer> make_http_transfer(const std::string &url, const HttpOptions &options,
                                                 HttpReceiver &receiver);

#endif
