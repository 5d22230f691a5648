#pragma once

#include "device_handler_client.hpp"

#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <utility>

namespace dh::api {

// Listener and value type of `void Listener::member(const std::string& path,
// std::function<void(T)>, T)`.
template <auto OnValueChanged>
struct value_listener_types;
template <class Listener, class T,
          void (Listener::*Member)(const std::string&, std::function<void(T)>, T)>
struct value_listener_types<Member> {
    using listener = Listener;
    using value = T;
};

}  // namespace dh::api

// Hands the events of a remote path to the members of a listener, with the
// value as the type that its callback takes. Nothing happens once the listener
// is gone. Called on the client library's event thread. A value of another type
// throws json_value_conversion_error out of the dispatch.
template <auto OnValueChanged, auto OnExceptionReceived, auto OnVariableRemoved>
class device_handler_value_subscriber final : public device_handler_subscriber {
  public:
    using types = dh::api::value_listener_types<OnValueChanged>;
    using listener_type = typename types::listener;
    using value_type = typename types::value;
    using callback = std::function<void(value_type)>;

    device_handler_value_subscriber(std::string remote_path, std::weak_ptr<listener_type> listener,
                                    callback on_value)
        : device_handler_subscriber(std::move(remote_path)),
          listener_(std::move(listener)),
          on_value_(std::move(on_value)) {}

    void send_changed_value_event(std::string_view path, const json::value& v) override {
        if (const auto listener = listener_.lock())
            ((*listener).*OnValueChanged)(std::string(path), on_value_, json::to<value_type>(v));
    }

    void send_exception_event(std::string_view path, const dh_client_exception& error) override {
        if (const auto listener = listener_.lock())
            ((*listener).*OnExceptionReceived)(std::string(path), on_value_, error);
    }

    void send_subscription_ended_event(std::string_view path, subscription_ended_rc why) override {
        if (const auto listener = listener_.lock())
            ((*listener).*OnVariableRemoved)(std::string(path), on_value_, why);
    }

  private:
    const std::weak_ptr<listener_type> listener_;
    const callback on_value_;
};
