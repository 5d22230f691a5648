// One path of a device handler, reached on each access.
#pragma once

#include "device_handler_client.hpp"

#include <chrono>
#include <memory>
#include <string>

namespace dh::util {

// Each call blocks for the device handler's answer. Throws dh_error 11 while
// the handler is away, and dh_client_exception with its code and text for an
// error that it answers. Any thread may call.
class remote_node {
  public:
    // `local_path` is the one that errors tell.
    remote_node(std::shared_ptr<device_handler_client_api> client, std::string path,
                std::string local_path);

    // Adds the value to the object `out` as the member `key`.
    void read(const std::string& key, json::allocator&, json::value& out) const;
    void write(const json::value&) const;
    // A write whose response is added to `out` as the member `key`.
    void run(const std::string& key, const json::value& argument, json::allocator&,
             json::value& out) const;

  private:
    json::document call(const char* method, const char* list, json::document entry,
                        std::chrono::milliseconds limit) const;
    void write_entry(const json::value& argument, std::chrono::milliseconds limit,
                     json::document& answer) const;

    const std::shared_ptr<device_handler_client_api> client_;
    const std::string path_;
    const std::string local_path_;
};

}  // namespace dh::util
