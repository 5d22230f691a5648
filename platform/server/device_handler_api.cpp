#include "device_handler_api.hpp"

#include "host.hpp"

#include <csignal>
#include <filesystem>
#include <mutex>
#include <thread>
#include <utility>

// Waits for the signals that end the process, on a thread of its own.
class device_handler_api::termination {
  public:
    termination() {
        std::signal(SIGPIPE, SIG_IGN);
        pthread_sigmask(SIG_BLOCK, &signals(), nullptr);
        thread_ = std::thread([this] { run(); });
    }

    ~termination() {
        if (!thread_.joinable())
            return;
        {
            const std::lock_guard lock(mutex_);
            abandoned_ = true;
        }
        pthread_kill(thread_.native_handle(), SIGINT);
        thread_.join();
    }

    termination(const termination&) = delete;
    termination& operator=(const termination&) = delete;

    void wait() {
        {
            const std::lock_guard lock(mutex_);
            awaited_ = true;
        }
        thread_.join();
    }

  private:
    static const sigset_t& signals() {
        static const sigset_t set = [] {
            sigset_t made;
            sigemptyset(&made);
            sigaddset(&made, SIGTERM);
            sigaddset(&made, SIGINT);
            return made;
        }();
        return set;
    }

    void run() {
        int ignored = 0;
        sigwait(&signals(), &ignored);
        const std::lock_guard lock(mutex_);
        if (abandoned_)
            return;
        if (!awaited_)
            host::end_process(0);
    }

    std::mutex mutex_;
    bool abandoned_ = false;
    bool awaited_ = false;
    std::thread thread_;
};

device_handler_api::device_handler_api(const std::string& unix_path, unsigned port, bool)
    : port_(port),
      termination_(std::make_unique<termination>()),
      server_(std::filesystem::path(unix_path).filename().string(), host::path(unix_path)) {}

device_handler_api::~device_handler_api() = default;

void device_handler_api::start_ipv6_socket(std::string interface) {
    server_.listen_on_interface(interface, port_);
}

void device_handler_api::start() {
    termination_->wait();
    server_.announce_end();
}
