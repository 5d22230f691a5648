#pragma once

#include "device_handler_client.hpp"
#include "msg_log.hpp"

#include <fmt/format.h>

#include <functional>
#include <string>

namespace dh::util {

// What the subscribers of a proxy do with the events of remote paths: values go
// to the callback, everything else to the log. An error or the end of a
// subscription leaves the mirrored value as it is.
class dh_value_listener {
  public:
    template <class T>
    void on_value_changed(const std::string& path, std::function<void(T)> callback, T value) {
        MSG_LOG("dh_proxy/value_change_event", msg_log::trace)
            << fmt::format("Path '{}' changed value to '{}'", path, value);
        callback(std::move(value));
    }

    template <class T>
    void on_exception_received(const std::string& path, std::function<void(T)>,
                               const dh_client_exception& error) {
        MSG_LOG("dh_proxy/exception_event", msg_log::failure) << path << ": " << error.message;
    }

    template <class T>
    void on_variable_removed(const std::string& path, std::function<void(T)>,
                             subscription_ended_rc code) {
        MSG_LOG("dh_proxy/remove_event", msg_log::trace)
            << "Path: " << path << ", code: " << static_cast<int>(code);
    }
};

}  // namespace dh::util
