// The traffic manager at the far end of a span, made in a test: it listens on
// the loopback interface, on the port that a far end has.
#pragma once

#include "device_handler_api.hpp"
#include "dh_proxy.hpp"
#include "test_root.hpp"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <system_error>
#include <utility>

namespace test {

class far_end {
  public:
    // As the supervisory channel reports the neighbour's address.
    static constexpr const char* address = "::1%lo";

    // Waits for its turn: there is one such port on a machine. Who needs it to be
    // free takes the turn too, and stops.
    far_end() : turn_(::open(lock_file().c_str(), O_CREAT | O_RDWR | O_CLOEXEC, 0666)) {
        if (turn_ < 0 || ::flock(turn_, LOCK_EX) != 0)
            throw std::system_error(errno, std::generic_category(), lock_file());
        start();
    }
    ~far_end() {
        stop();
        ::close(turn_);
    }
    far_end(const far_end&) = delete;
    far_end& operator=(const far_end&) = delete;

    void stop() { server_.reset(); }
    // Listens again after a stop, with an empty tree.
    void start() {
        server_.emplace("far end", root() + "/far_end");
        server_->listen_on_interface("lo", 5100);
    }

    template <class T>
    std::shared_ptr<dh::api::status_value<T>> publish(const std::string& path, T value) {
        return dh::api::status_value<T>::create(server_->db(), path, std::move(value), 0);
    }

  private:
    static std::string lock_file() {
        return std::filesystem::temp_directory_path() / "traffic_manager_far_end.lock";
    }

    const int turn_;
    std::optional<dh_server> server_;
};

}  // namespace test
