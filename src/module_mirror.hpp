// What the objects that stand for a device handler have in common.
#pragma once

#include "dh_proxy.hpp"

#include <memory>
#include <string>

// A client of a device handler whose connection events go to the subscriber.
// The proxy knows it by its name.
std::shared_ptr<device_handler_client> create_supervised_client(
    dh::util::proxy& proxy, const std::string& unix_path, const std::string& name,
    const std::shared_ptr<device_handler_connection_subscriber>& subscriber);

// The flag at the path; null where there is none.
std::shared_ptr<dh::api::status_value<bool>> find_flag(dh::util::proxy& proxy,
                                                       const std::string& path);

// Sets the flag at the path, where there is one, to false.
void clear_flag(dh::util::proxy& proxy, const std::string& path);

// Waits 3 s of the program's time: what a handler needs after its start before
// it knows its module.
void await_settled_handler();

// Mirrors at the path whether the handler's module is fitted.
void mirror_presence(dh::util::proxy& proxy,
                     const std::shared_ptr<device_handler_client_api>& client,
                     const std::string& local_path);

// Whether the module mirrored under `name` says that its configuration is
// done. False as long as nothing is mirrored.
bool has_config_status(dh::util::proxy& proxy, const std::string& name);
