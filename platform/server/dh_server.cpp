#include "device_handler_api.hpp"
#include "host.hpp"
#include "listener.hpp"
#include "msg_log.hpp"
#include "session.hpp"

#include <net/if.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>
#include <array>
#include <cerrno>
#include <map>
#include <optional>
#include <system_error>
#include <thread>
#include <utility>
#include <vector>

namespace {

const std::string log_channel = "dh_server";

constexpr std::chrono::milliseconds interface_retry{5000};
// How long a connection waits when there are no descriptors for it.
constexpr std::chrono::milliseconds accept_pause{100};

constexpr std::string_view too_many_sessions =
    R"({"jsonrpc":"2.0","id":null,"error":{"code":-32000,"message":"too many sessions"}})"
    "\n";

// A listening socket on an interface that comes and goes.
struct interface_listener {
    std::string interface;
    unsigned port;
    std::optional<listener> open;
    unsigned interface_index = 0;  // that the open socket is bound to
    bool reported_missing = false;
};

}  // namespace

// The server's thread: accepts clients, and sends what slow ones did not take
// at first. Each session has a thread of its own.
class dh_server::implementation {
  public:
    implementation(dh_db& db, std::string name, const std::string& unix_path, server_limits limits,
                   dh_interposer* interposer);
    ~implementation();

    void listen_on_interface(const std::string& interface, unsigned port);
    void announce_end();
    void break_off();

  private:
    struct client {
        std::shared_ptr<session> its_session;
        std::thread thread;
    };

    void close_sessions();
    void run();
    bool is_stopping();
    bool has_interfaces();
    void handle(std::uint64_t id);
    void accept_from(const listener& open);
    void start_session(int socket);
    void await_writable(std::uint64_t id, int socket);
    void flush(std::uint64_t id);
    void session_ended(std::uint64_t id);
    void join_ended_sessions();
    void check_interfaces();
    void open_interface(interface_listener& wanted);
    void add_to_poll(int socket, std::uint64_t id);
    void wake();

    // Ids of what the thread waits for; sessions and interfaces count on from here.
    static constexpr std::uint64_t wake_id = 0;
    static constexpr std::uint64_t unix_id = 1;
    static constexpr std::uint64_t first_free_id = 2;

    dh_db& db_;
    const std::string name_;
    const std::string unix_path_;
    const server_limits limits_;
    dh_interposer* const interposer_;
    listener unix_listener_;
    const int poll_;
    const int wake_;

    std::mutex mutex_;
    bool stopping_ = false;
    std::uint64_t next_id_ = first_free_id;
    std::map<std::uint64_t, client> clients_;
    std::vector<std::thread> ended_;
    std::map<std::uint64_t, interface_listener> interfaces_;

    std::thread thread_;
};

dh_server::implementation::implementation(dh_db& db, std::string name, const std::string& unix_path,
                                          server_limits limits, dh_interposer* interposer)
    : db_(db),
      name_(std::move(name)),
      unix_path_(unix_path),
      limits_(limits),
      interposer_(interposer),
      unix_listener_(listener::on_unix_path(unix_path)),
      poll_(::epoll_create1(EPOLL_CLOEXEC)),
      wake_(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
    add_to_poll(wake_, wake_id);
    add_to_poll(unix_listener_.socket(), unix_id);
    thread_ = std::thread([this] { run(); });
}

dh_server::implementation::~implementation() {
    announce_end();
    close_sessions();
    // Sessions that are closed execute nothing more when they go on.
    if (interposer_ != nullptr)
        interposer_->release();
    wake();
    thread_.join();
    for (;;) {
        std::thread running;
        {
            const std::lock_guard lock(mutex_);
            if (clients_.empty())
                break;
            running = std::move(clients_.begin()->second.thread);
        }
        // A session that ends meanwhile leaves the map by itself.
        if (running.joinable())
            running.join();
    }
    join_ended_sessions();
    ::close(wake_);
    ::close(poll_);
}

void dh_server::implementation::announce_end() {
    std::vector<std::shared_ptr<session>> sessions;
    {
        const std::lock_guard lock(mutex_);
        for (const auto& [id, its_client] : clients_)
            sessions.push_back(its_client.its_session);
    }
    for (const auto& its_session : sessions)
        its_session->announce_end();
    ::unlink(unix_path_.c_str());
}

void dh_server::implementation::break_off() {
    close_sessions();
    ::unlink(unix_path_.c_str());
}

void dh_server::implementation::close_sessions() {
    const std::lock_guard lock(mutex_);
    stopping_ = true;
    for (auto& [id, its_client] : clients_)
        its_client.its_session->close();
}

void dh_server::implementation::add_to_poll(int socket, std::uint64_t id) {
    epoll_event interest{};
    interest.events = EPOLLIN;
    interest.data.u64 = id;
    ::epoll_ctl(poll_, EPOLL_CTL_ADD, socket, &interest);
}

void dh_server::implementation::wake() {
    const std::uint64_t one = 1;
    [[maybe_unused]] const ssize_t written = ::write(wake_, &one, sizeof one);
}

void dh_server::implementation::run() {
    auto next_interface_check = std::chrono::steady_clock::now();
    // Looked at after `handle`, which may have taken the call to wake up.
    while (!is_stopping()) {
        std::array<epoll_event, 16> events{};
        const int timeout = has_interfaces() ? static_cast<int>(interface_retry.count()) : -1;
        const int count =
            ::epoll_wait(poll_, events.data(), static_cast<int>(events.size()), timeout);
        if (interposer_ != nullptr) {
            interposer_->before_service();
            if (is_stopping())
                return;
        }
        for (int i = 0; i < count; ++i)
            handle(events[static_cast<std::size_t>(i)].data.u64);
        join_ended_sessions();
        if (std::chrono::steady_clock::now() >= next_interface_check) {
            check_interfaces();
            next_interface_check = std::chrono::steady_clock::now() + interface_retry;
        }
    }
}

bool dh_server::implementation::is_stopping() {
    const std::lock_guard lock(mutex_);
    return stopping_;
}

bool dh_server::implementation::has_interfaces() {
    const std::lock_guard lock(mutex_);
    return !interfaces_.empty();
}

void dh_server::implementation::handle(std::uint64_t id) {
    if (id == wake_id) {
        std::uint64_t ignored = 0;
        [[maybe_unused]] const ssize_t got = ::read(wake_, &ignored, sizeof ignored);
        return;
    }
    if (id == unix_id) {
        accept_from(unix_listener_);
        return;
    }
    const listener* its_listener = nullptr;
    {
        const std::lock_guard lock(mutex_);
        // Interfaces are only added by others; this thread alone opens and closes them.
        if (const auto found = interfaces_.find(id);
            found != interfaces_.end() && found->second.open)
            its_listener = &*found->second.open;
    }
    if (its_listener != nullptr)
        accept_from(*its_listener);
    else
        flush(id);
}

void dh_server::implementation::accept_from(const listener& open) {
    for (;;) {
        const int socket = open.accept();
        if (socket >= 0) {
            start_session(socket);
            continue;
        }
        const bool no_resources =
            errno == EMFILE || errno == ENFILE || errno == ENOBUFS || errno == ENOMEM;
        if (no_resources) {
            MSG_LOG(log_channel, msg_log::failure)
                << "msg: No resources to accept a client, errno: " << errno;
            std::this_thread::sleep_for(accept_pause);
        }
        return;
    }
}

void dh_server::implementation::start_session(int socket) {
    const std::lock_guard lock(mutex_);
    if (stopping_) {
        ::close(socket);
        return;
    }
    if (clients_.size() >= limits_.sessions) {
        [[maybe_unused]] const ssize_t sent =
            ::send(socket, too_many_sessions.data(), too_many_sessions.size(),
                   MSG_DONTWAIT | MSG_NOSIGNAL);
        ::close(socket);
        return;
    }
    const std::uint64_t id = next_id_++;
    auto made = std::make_shared<session>(
        socket, db_, name_, limits_, [this, id, socket] { await_writable(id, socket); },
        interposer_);
    try {
        std::thread thread([this, id, made] {
            made->run();
            session_ended(id);
        });
        clients_.emplace(id, client{std::move(made), std::move(thread)});
    } catch (const std::system_error& error) {
        MSG_LOG(log_channel, msg_log::failure) << "msg: No thread for a session: " << error.what();
    }
}

void dh_server::implementation::await_writable(std::uint64_t id, int socket) {
    epoll_event interest{};
    interest.events = EPOLLOUT | EPOLLONESHOT;
    interest.data.u64 = id;
    if (::epoll_ctl(poll_, EPOLL_CTL_MOD, socket, &interest) != 0)
        ::epoll_ctl(poll_, EPOLL_CTL_ADD, socket, &interest);
}

void dh_server::implementation::flush(std::uint64_t id) {
    std::shared_ptr<session> its_session;
    {
        const std::lock_guard lock(mutex_);
        if (const auto found = clients_.find(id); found != clients_.end())
            its_session = found->second.its_session;
    }
    if (its_session)
        its_session->flush();
}

void dh_server::implementation::session_ended(std::uint64_t id) {
    {
        const std::lock_guard lock(mutex_);
        const auto found = clients_.find(id);
        if (found->second.thread.joinable())
            ended_.push_back(std::move(found->second.thread));
        clients_.erase(found);
    }
    wake();
}

void dh_server::implementation::join_ended_sessions() {
    std::vector<std::thread> ended;
    {
        const std::lock_guard lock(mutex_);
        ended.swap(ended_);
    }
    for (std::thread& thread : ended)
        thread.join();
}

void dh_server::implementation::listen_on_interface(const std::string& interface, unsigned port) {
    const std::lock_guard lock(mutex_);
    interface_listener wanted{interface, port, std::nullopt, 0, false};
    open_interface(wanted);
    const std::uint64_t id = next_id_++;
    const auto [added, is_new] = interfaces_.emplace(id, std::move(wanted));
    if (added->second.open)
        add_to_poll(added->second.open->socket(), id);
    wake();
}

// An interface may have gone and come back as another one of the same name.
void dh_server::implementation::check_interfaces() {
    const std::lock_guard lock(mutex_);
    for (auto& [id, wanted] : interfaces_) {
        const unsigned index = ::if_nametoindex(wanted.interface.c_str());
        if (wanted.open && wanted.interface_index == index)
            continue;
        wanted.open.reset();
        open_interface(wanted);
        if (wanted.open)
            add_to_poll(wanted.open->socket(), id);
    }
}

void dh_server::implementation::open_interface(interface_listener& wanted) {
    try {
        wanted.interface_index = ::if_nametoindex(wanted.interface.c_str());
        wanted.open = listener::on_interface(wanted.interface, wanted.port);
        wanted.reported_missing = false;
        MSG_LOG(log_channel, msg_log::progress)
            << "msg: Listening on interface " << wanted.interface << ", port " << wanted.port;
    } catch (const std::system_error& error) {
        if (!std::exchange(wanted.reported_missing, true))
            MSG_LOG(log_channel, msg_log::failure)
                << "msg: Unable to listen on interface " << wanted.interface << ", port "
                << wanted.port << ": " << error.code().message() << ", trying again";
    }
}

dh_server::dh_server(std::string name, const std::string& unix_path, server_limits limits,
                     dh_interposer* interposer)
    : implementation_(
          std::make_unique<implementation>(db_, std::move(name), unix_path, limits, interposer)) {}

dh_server::~dh_server() = default;

dh_db& dh_server::db() {
    return db_;
}

void dh_server::listen_on_interface(const std::string& interface, unsigned port) {
    implementation_->listen_on_interface(interface, port);
}

void dh_server::announce_end() {
    implementation_->announce_end();
}

void dh_server::break_off() {
    implementation_->break_off();
}
