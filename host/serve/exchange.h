// One request and its answer.

#ifndef HOST_SERVE_EXCHANGE_H
#define HOST_SERVE_EXCHANGE_H

#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "address.h"
#include "conditions.h"
#include "http_library.h"
#include "server.h"
#include "work_list.h"

/// A connection of a server.
struct Peer {
    MHD_Connection *connection;
    int64_t deadline;         ///< of steady_seconds(), by which it has to have got on
    size_t place;             ///< among the connections of all servers
    bool f_waiting = false;   ///< for a maker
    bool f_answered = false;  ///< an answer is under way
};

/// What all exchanges of a server share.
struct ServerContext {
    const ServerSetting &setting;
    const HttpLibrary &http;
    WorkList work;
    uint64_t exchanges = 0;   ///< under way
    uint64_t bodies = 0;      ///< of them, that are sent from the cache
    uint64_t text_bytes = 0;  ///< of the others, long ones held until they are sent
};

/// What there is to say.
struct Answer {
    unsigned status = 200;
    std::string type;      ///< Content-Type
    std::string caching;   ///< Cache-Control
    std::string tag;       ///< ETag, with its quotes; may be empty
    int64_t modified = 0;  ///< seconds since 1970; 0: not known
    std::string location;
    std::string text;         ///< the body,
    std::string_view part;    ///< unless it is this, which outlives the server,
    std::optional<Job> kept;  ///< or is kept as the result of this job
    uint64_t size = 0;        ///< of what is kept; MHD_SIZE_UNKNOWN: of what the client has
};

class Exchange final : public Waiter {
public:
    /// path: as it came, with the query. peer: stays as long as its connection.
    Exchange(ServerContext &context, Peer &peer, const std::string &path);
    ~Exchange();
    Exchange(const Exchange &) = delete;
    Exchange &operator=(const Exchange &) = delete;

    /// As MHD calls its handler: with the request's head, with parts of its body, at its end, and after
    /// each wait.
    MHD_Result step(const char *method, size_t *upload_size);
    void on_reply(const Reply &reply) override;

private:
    MHD_Result route();
    MHD_Result route_part();
    MHD_Result route_place(const Place &place);
    MHD_Result route_result(const Place &place);
    MHD_Result answer_result();
    MHD_Result answer_kept(uint64_t size);
    MHD_Result wait();
    MHD_Result refuse(unsigned status, const std::string &reason);
    MHD_Result send(Answer &answer);
    MHD_Response *make_response(Answer &answer, uint64_t first, uint64_t size);
    Answer own(const char *type, const char *caching, std::string text) const;
    std::string field(const char *name) const;
    Conditions conditions() const;

    ServerContext &m_context;
    Peer &m_peer;
    const std::string m_path, m_query;
    Address m_address;
    bool m_f_begun = false;
    std::string m_method;
    // What a maker is asked for.
    Job m_job;
    Answer m_answer;
    std::optional<Reply> m_reply;
    int m_tries = 0;
};

#endif
