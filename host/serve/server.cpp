#include "server.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <list>
#include <optional>

#include <poll.h>
#include <sys/socket.h>

#include "client_address.h"
#include "exchange.h"
#include "io/interrupt.h"
#include "io/message.h"
#include "maker.h"

namespace {

// For all that a request says before its body. Larger ones are refused. MHD has it in use from the first answer of
// a connection to its end.
constexpr size_t HEAD_SIZE = 8 * 1024;
// When most of the connections are taken, the idle ones have to go sooner.
constexpr int64_t IDLE_SECONDS_WHEN_FULL = 5;
// Answers under way at the end get so long.
constexpr int64_t END_SECONDS = 3;
constexpr int LOOK_MS = 1000;

class Server {
public:
    explicit Server(const ServerSetting &setting);
    ~Server();
    Server(const Server &) = delete;
    Server &operator=(const Server &) = delete;

    void run(const sigset_t &waiting);

private:
    static MHD_Result on_request(void *server, MHD_Connection *connection, const char *address,
                                 const char *method, const char *version, const char *upload,
                                 size_t *upload_size, void **exchange);
    static MHD_Result on_client(void *server, const sockaddr *address, socklen_t size);
    static void *on_address(void *server, const char *address, MHD_Connection *connection);
    static void on_end(void *server, MHD_Connection *connection, void **exchange,
                       MHD_RequestTerminationCode how);
    static void on_connection(void *server, MHD_Connection *connection, void **peer,
                              MHD_ConnectionNotificationCode what);
    static size_t leave_encoded(void *server, MHD_Connection *connection, char *text);

    Peer &peer_of(MHD_Connection *connection) const;
    void wait(const sigset_t &waiting);
    void take_replies();
    void look_after(int64_t now);
    void drop(Peer &peer);
    void count_dropped() const;

    ServerContext m_context;
    std::list<Peer> m_peers;
    MHD_Daemon *m_daemon;
    int64_t m_looked = 0;
    bool m_f_closed = false;  // a connection has ended in this turn
    // Of the client that has been let in last, until its connection begins.
    std::optional<size_t> m_place;
};

}  // namespace

void run_server(const ServerSetting &setting, const sigset_t &waiting)
{
    Server server(setting);
    server.run(waiting);
}

namespace {

Server::Server(const ServerSetting &setting)
    : m_context{setting, HttpLibrary::get(),
                WorkList(setting.jobs, setting.shared, setting.slot, setting.makers)}
{
    m_daemon = m_context.http.start_daemon(
        MHD_USE_EPOLL | MHD_ALLOW_SUSPEND_RESUME, 0, on_client, this, on_request, this,
        MHD_OPTION_LISTEN_SOCKET, setting.listener, MHD_OPTION_CONNECTION_LIMIT,
        setting.connections, MHD_OPTION_CONNECTION_MEMORY_LIMIT, HEAD_SIZE,
        MHD_OPTION_CONNECTION_TIMEOUT, setting.idle_seconds, MHD_OPTION_STRICT_FOR_CLIENT, 1,
        MHD_OPTION_URI_LOG_CALLBACK, on_address, this, MHD_OPTION_UNESCAPE_CALLBACK, leave_encoded,
        this, MHD_OPTION_NOTIFY_COMPLETED, on_end, this, MHD_OPTION_NOTIFY_CONNECTION,
        on_connection, this, MHD_OPTION_END);
    if (m_daemon == nullptr) throw NotDone("the server", error_text(errno));
}

Server::~Server()
{
    m_context.work.give_up_all();
    m_context.http.run(m_daemon);
    m_context.http.stop_daemon(m_daemon);
}

void Server::run(const sigset_t &waiting)
{
    int64_t end = 0;
    while (end == 0 || (m_context.exchanges > 0 && steady_seconds() < end)) {
        wait(waiting);
        take_replies();
        m_f_closed = false;
        m_context.http.run(m_daemon);
        const int64_t now = steady_seconds();
        if (now != m_looked) look_after(now);
        if (stop_signal() != 0 && end == 0) {
            end = now + END_SECONDS;
            m_context.http.quiesce_daemon(m_daemon);
        }
    }
}

// Until there is something to do. Without connections and jobs nothing has to be looked after.
void Server::wait(const sigset_t &waiting)
{
    const MHD_DaemonInfo *const epoll =
        m_context.http.get_daemon_info(m_daemon, MHD_DAEMON_INFO_EPOLL_FD);
    pollfd ready[] = {{epoll->epoll_fd, POLLIN, 0},
                      {m_context.setting.replies.from.get(), POLLIN, 0}};
    MHD_UNSIGNED_LONG_LONG ms = 0;
    // Below its limit of connections MHD listens again, but only from its next turn on.
    const bool f_limit =
        m_f_closed || (m_context.http.get_timeout(m_daemon, &ms) == MHD_YES && ms < LOOK_MS);
    const bool f_idle = m_peers.empty() && m_context.work.is_empty() && stop_signal() == 0;
    if (!f_limit) ms = LOOK_MS;
    const timespec limit = {static_cast<time_t>(ms / 1000), static_cast<long>(ms % 1000) * 1000000};
    ppoll(ready, 2, f_idle && !f_limit ? nullptr : &limit, &waiting);
    // Where a descriptor is ready, ppoll() lets no signal through.
    const timespec none = {};
    ppoll(nullptr, 0, &none, &waiting);
}

void Server::take_replies()
{
    Reply reply;
    while (receive_reply(m_context.setting.replies, reply))
        m_context.work.take(reply);
    m_context.work.look_after(steady_seconds());
}

void Server::look_after(int64_t now)
{
    m_looked = now;
    const bool f_full = m_peers.size() * 4 > uint64_t{m_context.setting.connections} * 3;
    const int64_t usual = m_context.setting.request_seconds();
    const int64_t early = f_full ? usual - std::min(usual, IDLE_SECONDS_WHEN_FULL) : 0;
    for (Peer &peer : m_peers) {
        const int64_t deadline = peer.deadline - (peer.f_answered ? 0 : early);
        if (!peer.f_waiting && now > deadline) drop(peer);
    }
    m_context.setting.shared.update(m_context.setting.slot,
                                    [&](Slot &slot) { slot.memory = own_memory(); });
}

// MHD finds the connection closed.
void Server::drop(Peer &peer)
{
    const MHD_ConnectionInfo *const info =
        m_context.http.get_connection_info(peer.connection, MHD_CONNECTION_INFO_CONNECTION_FD);
    if (info == nullptr || shutdown(info->connect_fd, SHUT_RDWR) != 0) return;
    peer.deadline = INT64_MAX;  // it is counted once
    count_dropped();
}

void Server::count_dropped() const
{
    m_context.setting.shared.count([](Counters &counters) { ++counters.dropped; });
}

Peer &Server::peer_of(MHD_Connection *connection) const
{
    const MHD_ConnectionInfo *const info =
        m_context.http.get_connection_info(connection, MHD_CONNECTION_INFO_SOCKET_CONTEXT);
    return *static_cast<Peer *>(info->socket_context);
}

void Server::on_connection(void *server, MHD_Connection *connection, void **peer,
                           MHD_ConnectionNotificationCode what)
{
    auto &self = *static_cast<Server *>(server);
    if (what == MHD_CONNECTION_NOTIFY_STARTED) {
        const int64_t deadline = steady_seconds() + self.m_context.setting.request_seconds();
        self.m_peers.push_front({connection, deadline, self.m_place.value()});
        self.m_place.reset();
        *peer = &self.m_peers.front();
    } else {
        self.m_f_closed = true;
        const Peer &last = *static_cast<Peer *>(*peer);
        // MHD says that it was idle only where a request had begun. The deadline says since when it has been.
        const unsigned idle_seconds = self.m_context.setting.idle_seconds;
        if (steady_seconds() >= last.deadline - idle_seconds) self.count_dropped();
        self.m_context.setting.shared.leave(last.place);
        self.m_peers.remove_if([&](const Peer &candidate) { return &candidate == *peer; });
    }
    self.m_context.setting.shared.update(
        self.m_context.setting.slot, [&](Slot &slot) { slot.connections = self.m_peers.size(); });
}

// Whether the client is let in. Of one that is, the connection begins next, unless memory is short.
MHD_Result Server::on_client(void *server, const sockaddr *address, socklen_t /*size*/)
{
    auto &self = *static_cast<Server *>(server);
    const ServerSetting &setting = self.m_context.setting;
    if (self.m_place) setting.shared.leave(*self.m_place);
    self.m_place =
        setting.shared.enter(setting.slot, client_address(address), setting.from_one_address);
    return self.m_place ? MHD_YES : MHD_NO;
}

void *Server::on_address(void *server, const char *address, MHD_Connection *connection)
{
    auto &self = *static_cast<Server *>(server);
    return new Exchange(self.m_context, self.peer_of(connection), address);
}

MHD_Result Server::on_request(void * /*server*/, MHD_Connection * /*connection*/,
                              const char * /*address*/, const char *method,
                              const char * /*version*/, const char * /*upload*/,
                              size_t *upload_size, void **exchange)
{
    return static_cast<Exchange *>(*exchange)->step(method, upload_size);
}

void Server::on_end(void *server, MHD_Connection *connection, void **exchange,
                    MHD_RequestTerminationCode how)
{
    delete static_cast<Exchange *>(*exchange);
    *exchange = nullptr;
    auto &self = *static_cast<Server *>(server);
    self.peer_of(connection).deadline = steady_seconds() + self.m_context.setting.request_seconds();
    // MHD closes it.
    if (how == MHD_REQUEST_TERMINATED_TIMEOUT_REACHED) self.count_dropped();
}

// Addresses are decoded part by part: a slash that is encoded is no slash.
size_t Server::leave_encoded(void * /*server*/, MHD_Connection * /*connection*/, char *text)
{
    return strlen(text);
}

}  // namespace
