// The mirror of a handler's tree: how long it takes to stand, beside asking a
// bare socket for the same; and an event through the mirror to a subscriber of
// the mirroring tree, beside two bare hops.
#include "device_handler_api.hpp"
#include "dh_proxy.hpp"
#include "support/measure.hpp"
#include "support/processes.hpp"
#include "support/served_values.hpp"

#include <sys/un.h>

#include <algorithm>
#include <condition_variable>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <thread>

namespace {

constexpr std::size_t mirrored_nodes = 500;
constexpr std::size_t mirror_rounds = 30;
constexpr std::size_t rounds = 20;
constexpr std::size_t block = 100;

// The clock is the same in all processes, so a message can carry when it left.
double now_us() {
    return bench::microseconds(std::chrono::steady_clock::now().time_since_epoch()).count();
}

std::string node_path(std::size_t i) {
    return "data/" + std::to_string(i) + "/value";
}

// Of each kind of value that is mirrored by its events.
void serve_tree(const std::string& socket) {
    dh_server server("bench", socket);
    using float_node =
        dh::api::hysteresis_filtered_value<dh::api::pushed_volatile_value_impl<float>>;
    bench::nodes kept;
    for (std::size_t i = 0; i < mirrored_nodes; ++i) {
        const std::string path = node_path(i);
        switch (i % 5) {
            case 0:
                bench::serve_value(kept, server.db(), path, i % 2 == 0);
                break;
            case 1:
                bench::serve_value(kept, server.db(), path, std::string("text of the node"));
                break;
            case 2:
                bench::serve_value(kept, server.db(), path, static_cast<unsigned>(i));
                break;
            case 3:
                bench::serve_value(kept, server.db(), path, static_cast<int>(i));
                break;
            default:
                kept.push_back(float_node::create(server.db(), path, [] { return 1.5F; }));
        }
    }
    for (;;)
        ::pause();
}

class countdown {
  public:
    explicit countdown(std::size_t count) : count_(count) {}
    void step() {
        const std::lock_guard lock(mutex_);
        if (--count_ == 0)
            changed_.notify_one();
    }
    void await() {
        std::unique_lock lock(mutex_);
        changed_.wait(lock, [&] { return count_ == 0; });
    }

  private:
    std::mutex mutex_;
    std::condition_variable changed_;
    std::size_t count_;
};

// Tells when the client is connected.
class arrival_of_handler final : public device_handler_connection_subscriber {
  public:
    void connection_established_event(std::string) override { arrived_.step(); }
    void connection_lost_event(std::string) override {}
    void await() { arrived_.await(); }

  private:
    countdown arrived_{1};
};

void mirror_once(const std::string& socket, bench::comparison& measured) {
    dh_db db;
    std::mutex main_mutex;
    const auto proxy = std::make_shared<dh::util::proxy>(db, &main_mutex);
    const auto values = std::make_shared<countdown>(mirrored_nodes);
    for (std::size_t i = 0; i < mirrored_nodes; ++i)
        proxy->on_update("bench/" + node_path(i), [values] { values->step(); });
    const auto connection = std::make_shared<arrival_of_handler>();
    std::shared_ptr<device_handler_client> client;
    measured.ours.push_back(bench::microseconds_of([&] {
        client = device_handler_client::create(socket, "bench", connection);
        connection->await();
        proxy->subscribe_path(client, "");
        values->await();
    }));
    proxy->unsubscribe_path(client, "");
}

int connected_socket(const std::string& path) {
    const int socket = ::socket(AF_UNIX, SOCK_STREAM, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, path.size());
    if (::connect(socket, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0)
        ::_exit(1);
    return socket;
}

void ask_once(const std::string& socket, const std::string& subscribe,
              bench::comparison& measured) {
    measured.limit.push_back(bench::microseconds_of([&] {
        const int bare = connected_socket(socket);
        bench::write_all(bare,
                         "{\"jsonrpc\":\"2.0\",\"id\":1,\"method\":\"watch\",\"params\":"
                         "{\"prefix\":\"\"}}\n");
        bench::read_lines(bare);
        bench::write_all(bare, subscribe);
        for (std::size_t lines = 0; lines < mirrored_nodes + 1;)
            lines += bench::read_lines(bare);
        ::close(bare);
    }));
}

void whole_tree(const std::string& socket) {
    const bench::child_process handler([&] { serve_tree(socket); });
    std::string subscribe = R"({"jsonrpc":"2.0","id":2,"method":"subscribe","params":{"paths":[)";
    for (std::size_t i = 0; i < mirrored_nodes; ++i)
        subscribe += (i == 0 ? "\"" : ",\"") + node_path(i) + "\"";
    subscribe += "]}}\n";
    while (::access(socket.c_str(), F_OK) != 0)
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    bench::comparison measured;
    for (std::size_t round = 0; round < mirror_rounds; ++round) {
        ask_once(socket, subscribe, measured);
        mirror_once(socket, measured);
    }
    bench::print_ratio("mirror of 500 nodes, p50 ms", bench::percentile(measured.ours, 0.5) / 1000,
                       bench::percentile(measured.limit, 0.5) / 1000, "");
}

// The sender waits for a byte before each message, so that all who receive
// sleep in their sockets when the message comes.
struct trigger {
    std::array<int, 2> ends{};
    trigger() {
        if (::socketpair(AF_UNIX, SOCK_STREAM, 0, ends.data()) != 0)
            ::_exit(1);
    }
    void pull() const { bench::write_all(ends[0], "x"); }
    void await() const {
        char ignored = 0;
        if (::recv(ends[1], &ignored, 1, 0) <= 0)
            ::_exit(0);
        std::this_thread::sleep_for(std::chrono::microseconds(200));
    }
};

// Its text says when it was set.
void serve_time(const std::string& socket, const trigger& pulled) {
    bench::stay_on_core(0);
    dh_server server("bench", socket);
    const auto node = dh::api::status_value<std::string>::create(server.db(), "sent", "0", 0);
    for (;;) {
        pulled.await();
        node->set(std::to_string(now_us()));
    }
}

void mirror_time(const std::string& handler, const std::string& socket) {
    dh_server server("bench", socket);
    std::mutex main_mutex;
    const auto proxy = std::make_shared<dh::util::proxy>(server.db(), &main_mutex);
    const auto connection = std::make_shared<arrival_of_handler>();
    const auto client = device_handler_client::create(handler, "bench", connection);
    connection->await();
    proxy->subscribe_path(client, "");
    for (;;)
        ::pause();
}

void send_bare(int socket, const trigger& pulled) {
    bench::stay_on_core(0);
    std::string message(130, ' ');
    message.back() = '\n';
    for (;;) {
        pulled.await();
        const double sent = now_us();
        std::memcpy(message.data(), &sent, sizeof sent);
        bench::write_all(socket, message);
    }
}

void relay_bare(int from, int to) {
    std::array<char, 4096> data{};
    for (;;) {
        const ssize_t got = ::recv(from, data.data(), data.size(), 0);
        if (got <= 0)
            ::_exit(0);
        bench::write_all(to, {data.data(), static_cast<std::size_t>(got)});
    }
}

std::array<int, 2> socket_pair() {
    std::array<int, 2> made{};
    if (::socketpair(AF_UNIX, SOCK_STREAM, 0, made.data()) != 0)
        ::_exit(1);
    return made;
}

double took_bare(int socket) {
    std::array<char, 4096> data{};
    if (::recv(socket, data.data(), data.size(), 0) <= 0)
        ::_exit(1);
    const double arrived = now_us();
    double sent = 0;
    std::memcpy(&sent, data.data(), sizeof sent);
    return arrived - sent;
}

double took_through_mirror(int socket) {
    std::array<char, 4096> data{};
    const ssize_t got = ::recv(socket, data.data(), data.size(), 0);
    const double arrived = now_us();
    const std::string_view line(data.data(), static_cast<std::size_t>(std::max<ssize_t>(got, 0)));
    const std::string_view key = R"("value":")";
    const auto at = line.find(key);
    if (at == std::string_view::npos)
        ::_exit(1);
    return arrived - std::strtod(line.data() + at + key.size(), nullptr);
}

// The subscriber of the mirroring tree: the daemon has the node when it has its first value.
int subscribed_socket(const std::string& path) {
    while (::access(path.c_str(), F_OK) != 0)
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    const int socket = connected_socket(path);
    std::array<char, 4096> data{};
    for (;;) {
        bench::write_all(socket,
                         "{\"jsonrpc\":\"2.0\",\"id\":1,\"method\":\"subscribe\",\"params\":"
                         "{\"paths\":[\"bench/sent\"]}}\n");
        const ssize_t got = ::recv(socket, data.data(), data.size(), 0);
        if (got <= 0)
            ::_exit(1);
        const std::string_view answer(data.data(), static_cast<std::size_t>(got));
        if (answer.find("No such path") == std::string_view::npos)
            break;
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    // The reply and the first event come apart or together.
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    (void)::recv(socket, data.data(), data.size(), MSG_DONTWAIT);
    return socket;
}

void one_event(const std::string& handler_socket, const std::string& mirror_socket) {
    const trigger ours_pulled;
    const trigger bare_pulled;
    const auto first_hop = socket_pair();
    const auto second_hop = socket_pair();
    const bench::child_process handler([&] { serve_time(handler_socket, ours_pulled); });
    const bench::child_process daemon([&] { mirror_time(handler_socket, mirror_socket); });
    const bench::child_process sender([&] { send_bare(first_hop[0], bare_pulled); });
    const bench::child_process relay([&] { relay_bare(first_hop[1], second_hop[0]); });
    const int subscriber = subscribed_socket(mirror_socket);
    bench::comparison measured;
    for (std::size_t round = 0; round < rounds; ++round) {
        for (std::size_t i = 0; i < block; ++i) {
            bare_pulled.pull();
            measured.limit.push_back(took_bare(second_hop[1]));
        }
        for (std::size_t i = 0; i < block; ++i) {
            ours_pulled.pull();
            measured.ours.push_back(took_through_mirror(subscriber));
        }
    }
    bench::print_p50("an event through the mirror", measured, "at most 2.5");
}

}  // namespace

int main() {
    bench::stay_on_core(0);
    const bench::scratch_folder folder;
    bench::print_heading();
    one_event(folder.path() + "/handler", folder.path() + "/mirror");
    whole_tree(folder.path() + "/tree");
    return 0;
}
