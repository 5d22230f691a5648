// How long an event takes from the owner's `set` to the subscriber's callback,
// and what many subscribers cost the owner, beside bare sockets.
#include "device_handler_api.hpp"
#include "dh_proxy.hpp"
#include "support/measure.hpp"
#include "support/processes.hpp"

#include <sys/un.h>
#include <array>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace {

constexpr std::size_t rounds = 20;
constexpr std::size_t block = 200;
constexpr std::size_t subscribers = 100;

// The clock is the same in all processes, so a message can carry when it left.
double now_us() {
    return bench::microseconds(std::chrono::steady_clock::now().time_since_epoch()).count();
}

// The sender waits for a byte before each message, so that the receiver sleeps
// in its socket when the message comes.
struct trigger {
    std::array<int, 2> ends{};
    trigger() {
        [[maybe_unused]] const int made = ::socketpair(AF_UNIX, SOCK_STREAM, 0, ends.data());
    }
    void pull() const { bench::write_all(ends[0], "x"); }
    void await() const {
        char ignored = 0;
        if (::recv(ends[1], &ignored, 1, 0) <= 0)
            ::_exit(0);
        std::this_thread::sleep_for(std::chrono::microseconds(100));
    }
};

void serve(const std::string& socket, const trigger& pulled) {
    dh_server server("bench", socket);
    const auto node = dh::api::status_value<double>::create(server.db(), "data/sent", 0.0, 0);
    for (;;) {
        pulled.await();
        node->set(now_us());
    }
}

void send_bare(int socket, const trigger& pulled) {
    std::string message(130, ' ');
    message.back() = '\n';
    for (;;) {
        pulled.await();
        const double sent = now_us();
        std::memcpy(message.data(), &sent, sizeof sent);
        bench::write_all(socket, message);
    }
}

class arrival final : public device_handler_subscriber {
  public:
    using device_handler_subscriber::device_handler_subscriber;

    void send_changed_value_event(std::string_view, const json::value& sent) override {
        const double took = now_us() - sent.GetDouble();
        const std::lock_guard lock(mutex_);
        took_ = took;
        ++count_;
        changed_.notify_one();
    }
    void send_exception_event(std::string_view, const dh_client_exception&) override {}
    void send_subscription_ended_event(std::string_view, subscription_ended_rc) override {}

    double await(std::size_t count) {
        std::unique_lock lock(mutex_);
        changed_.wait(lock, [&] { return count_ >= count; });
        return took_;
    }
    std::size_t count() {
        const std::lock_guard lock(mutex_);
        return count_;
    }

  private:
    std::mutex mutex_;
    std::condition_variable changed_;
    double took_ = 0;
    std::size_t count_ = 0;
};

// The bare receiver: a thread that sleeps in the socket and hands on what came,
// as the library's event thread does.
class bare_arrival {
  public:
    explicit bare_arrival(int socket) : thread_([this, socket] { run(socket); }) {
        thread_.detach();
    }

    double await(std::size_t count) {
        std::unique_lock lock(mutex_);
        changed_.wait(lock, [&] { return count_ >= count; });
        return took_;
    }

  private:
    void run(int socket) {
        std::array<char, 4096> data{};
        while (::recv(socket, data.data(), data.size(), 0) > 0) {
            double sent = 0;
            std::memcpy(&sent, data.data(), sizeof sent);
            const double took = now_us() - sent;
            const std::lock_guard lock(mutex_);
            took_ = took;
            ++count_;
            changed_.notify_one();
        }
    }

    std::mutex mutex_;
    std::condition_variable changed_;
    double took_ = 0;
    std::size_t count_ = 0;
    std::thread thread_;
};

void one_subscriber(const std::string& socket) {
    const trigger ours_pulled;
    const trigger bare_pulled;
    std::array<int, 2> bare{};
    if (::socketpair(AF_UNIX, SOCK_STREAM, 0, bare.data()) != 0)
        return;
    const bench::child_process server([&] { serve(socket, ours_pulled); });
    const bench::child_process sender([&] { send_bare(bare[1], bare_pulled); });
    const auto client = device_handler_client::create(socket, "bench", {});
    const auto subscriber = std::make_shared<arrival>("data/sent");
    client->add_subscriber(subscriber);
    subscriber->await(1);
    bare_arrival receiver(bare[0]);

    bench::comparison measured;
    std::size_t bare_count = 0;
    for (std::size_t round = 0; round < rounds; ++round) {
        for (std::size_t i = 0; i < block; ++i) {
            bare_pulled.pull();
            measured.limit.push_back(receiver.await(++bare_count));
        }
        for (std::size_t i = 0; i < block; ++i) {
            const std::size_t next = subscriber->count() + 1;
            ours_pulled.pull();
            measured.ours.push_back(subscriber->await(next));
        }
    }
    bench::print_p50("an event, from set to callback", measured, "at most 1.3");
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

// Reads and throws away what comes on all the sockets.
void drain(const std::vector<int>& sockets) {
    std::vector<std::thread> readers;
    readers.reserve(sockets.size());
    for (const int socket : sockets)
        readers.emplace_back([socket] {
            for (;;)
                bench::read_lines(socket);
        });
    for (std::thread& reader : readers)
        reader.join();
}

void many_subscribers(const std::string& socket) {
    std::array<int, 2> ready{};
    if (::pipe(ready.data()) != 0)
        return;
    std::vector<std::array<int, 2>> bare(subscribers);
    for (auto& pair : bare) {
        if (::socketpair(AF_UNIX, SOCK_STREAM, 0, pair.data()) != 0)
            return;
    }
    const bench::child_process readers([&] {
        std::vector<int> sockets;
        while (::access(socket.c_str(), F_OK) != 0)
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        for (std::size_t i = 0; i < subscribers; ++i) {
            sockets.push_back(connected_socket(socket));
            bench::write_all(sockets.back(),
                             "{\"jsonrpc\":\"2.0\",\"id\":1,\"method\":\"subscribe\",\"params\":"
                             "{\"paths\":[\"data/sent\"]}}\n");
            bench::read_lines(sockets.back());
            sockets.push_back(bare[i][1]);
        }
        if (::write(ready[1], "x", 1) == 1)
            drain(sockets);
    });
    server_limits limits;
    limits.sessions = 2 * subscribers;
    dh_server server("bench", socket, limits);
    const auto node = dh::api::status_value<double>::create(server.db(), "data/sent", 0.0, 0);
    char ignored = 0;
    if (::read(ready[0], &ignored, 1) != 1)
        return;

    std::string message(130, ' ');
    message.back() = '\n';
    double value = 0;
    const auto measured = bench::side_by_side(
        rounds, block / 10, [&] { node->set(value += 1.0); },
        [&] {
            for (const auto& pair : bare)
                bench::write_all(pair[0], message);
        });
    bench::print_ratio("an event to 100 subscribers, events/s",
                       1e6 / bench::percentile(measured.ours, 0.5),
                       1e6 / bench::percentile(measured.limit, 0.5), "at least 0.8");
}

}  // namespace

int main() {
    bench::stay_on_core(0);
    const bench::scratch_folder folder;
    bench::print_heading();
    many_subscribers(folder.path() + "/many");
    one_subscriber(folder.path() + "/one");
    return 0;
}
