#include "connection.hpp"
#include "host.hpp"
#include "library_threads.hpp"

#include <arpa/inet.h>
#include <net/if.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>
#include <cerrno>
#include <utility>

namespace {

constexpr std::chrono::milliseconds ipv6_connect_limit{10'000};

template <class Address>
int connecting_socket(int family, const Address& address) {
    const int socket = ::socket(family, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (socket < 0)
        return -1;
    if (::connect(socket, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0 ||
        errno == EINPROGRESS)
        return socket;
    const int error = errno;
    ::close(socket);
    errno = error;
    return -1;
}

int open_unix_socket(const std::string& path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof address.sun_path) {
        errno = ENAMETOOLONG;
        return -1;
    }
    path.copy(address.sun_path, path.size());
    return connecting_socket(AF_UNIX, address);
}

int open_ipv6_socket(const std::string& host, const std::string& interface, unsigned port) {
    sockaddr_in6 address{};
    address.sin6_family = AF_INET6;
    address.sin6_port = htons(static_cast<in_port_t>(port));
    if (::inet_pton(AF_INET6, host.c_str(), &address.sin6_addr) != 1) {
        errno = EINVAL;
        return -1;
    }
    if (!interface.empty()) {
        // Looked up at each attempt: an interface that returns has another index.
        address.sin6_scope_id = ::if_nametoindex(interface.c_str());
        if (address.sin6_scope_id == 0)
            return -1;
    }
    const int socket = connecting_socket(AF_INET6, address);
    if (socket >= 0) {
        const int on = 1;
        ::setsockopt(socket, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    }
    return socket;
}

// Any method, its params and its result as they are.
class raw_request final : public device_handler_request {
  public:
    raw_request(std::string method, const json::value& params, std::chrono::milliseconds time_limit)
        : method_(std::move(method)), params_(json::to_text(params)), time_limit_(time_limit) {}

    std::future<json::document> get_future() { return result_.get_future(); }

    const char* method() const override { return method_.c_str(); }
    std::chrono::milliseconds time_limit() const override { return time_limit_; }

    void write_params(json::writer& out) const override {
        out.RawValue(params_.data(), params_.size(), rapidjson::kObjectType);
    }

    bool process_result(const json::value& result) override {
        json::document copy;
        copy.CopyFrom(result, copy.GetAllocator());
        result_.set_value(std::move(copy));
        return true;
    }

    void report_local_error(int code, const std::string& message) override {
        dh::client::fail(result_, code, message);
    }

  private:
    const std::string method_;
    const std::string params_;
    const std::chrono::milliseconds time_limit_;
    std::promise<json::document> result_;
};

}  // namespace

int dh::client::error_code_of(const json::value& code) {
    return code.IsInt() ? code.GetInt() : dh_error_code::unknown;
}

dh_client_exception dh::client::error_of(const json::value& error) {
    const json::value* code = json::find(error, "code");
    const json::value* message = json::find(error, "message");
    const bool has_text = message != nullptr && message->IsString();
    return {
        code != nullptr ? error_code_of(*code) : dh_error_code::unknown,
        has_text ? std::string(message->GetString(), message->GetStringLength()) : std::string()};
}

void device_handler_reply_gate::wait() {
    const auto client = client_.lock();
    const auto request = request_.lock();
    if (client && request)
        client->await_reply(request);
}

std::chrono::milliseconds device_handler_request::time_limit() const {
    return plain_reply_limit;
}

std::chrono::milliseconds device_handler_write_request::time_limit() const {
    return expects_value_ ? response_limit : plain_reply_limit;
}

void device_handler_object_request::write_params(json::writer& out) const {
    out.StartObject();
    out.Key(list_name());
    out.StartArray();
    for (const auto& object : objects_)
        object->write_request_data(out);
    out.EndArray();
    out.EndObject();
}

bool device_handler_object_request::process_result(const json::value& result) {
    if (!result.IsArray() || result.Size() != objects_.size())
        return false;
    for (const json::value& entry : result.GetArray()) {
        if (!entry.IsObject())
            return false;
    }
    for (rapidjson::SizeType i = 0; i < result.Size(); ++i) {
        device_handler_object& object = *objects_[i];
        const json::value* error = json::find(result[i], "error");
        const json::value* value = json::find(result[i], "value");
        if (error != nullptr) {
            static const json::value unknown(dh_error_code::unknown);
            const json::value* code = json::find(*error, "code");
            const json::value* message = json::find(*error, "message");
            const bool has_text = message != nullptr && message->IsString();
            object.process_error_response(
                code != nullptr ? *code : unknown,
                has_text ? std::string_view(message->GetString(), message->GetStringLength())
                         : std::string_view());
        } else if (value != nullptr) {
            object.process_ok_response(*value);
        } else {
            object.process_ok_response();
        }
    }
    return true;
}

void device_handler_object_request::report_local_error(int code, const std::string& message) {
    for (const auto& object : objects_)
        object->report_local_error(code, message);
}

device_handler_client_base::device_handler_client_base(
    endpoint where, std::string name,
    std::weak_ptr<device_handler_connection_subscriber> subscriber)
    : name_(std::move(name)),
      connection_(std::make_shared<connection>(std::move(where), name_, std::move(subscriber))) {}

device_handler_client_base::~device_handler_client_base() {
    connection_->close();
}

void device_handler_client_base::start() {
    dh::client::library_threads::instance().supervise(connection_);
}

void device_handler_client_base::require_connected(std::chrono::milliseconds limit) {
    connection_->require_up(limit);
}

void device_handler_client_base::server_call(
    const std::shared_ptr<device_handler_request>& request) {
    if (request->gate_) {
        request->gate_->client_ = weak_from_this();
        request->gate_->request_ = request;
    }
    connection_->send(request);
}

void device_handler_client_base::await_reply(
    const std::shared_ptr<device_handler_request>& request) {
    connection_->await(*request);
}

bool device_handler_client_base::is_connected() const {
    return connection_->is_up();
}

void device_handler_client_base::add_subscribers_impl(const subscribers& added) {
    connection_->add_subscribers(added);
}

void device_handler_client_base::remove_subscribers_impl(const subscribers& gone) {
    connection_->remove_subscribers(gone);
}

void device_handler_client_base::watch_impl(std::string prefix, std::size_t max_nodes,
                                            std::shared_ptr<device_handler_tree_watcher> watcher) {
    connection_->watch(std::move(prefix), max_nodes, std::move(watcher));
}

void device_handler_client_base::unwatch_impl(
    const std::shared_ptr<device_handler_tree_watcher>& watcher) {
    connection_->unwatch(watcher);
}

json::document device_handler_client_api::call(const std::string& method, const json::value& params,
                                               std::chrono::milliseconds time_limit) {
    auto request = std::make_shared<raw_request>(method, params, time_limit);
    auto result = request->get_future();
    server_call(request);
    await_reply(request);
    return result.get();
}

std::shared_ptr<device_handler_client> device_handler_client::create(
    const std::string& unix_path, std::string name,
    std::weak_ptr<device_handler_connection_subscriber> subscriber) {
    const std::string path = host::path(unix_path);
    endpoint where{path, [path] { return open_unix_socket(path); }};
    std::shared_ptr<device_handler_client> client(
        new device_handler_client(std::move(where), std::move(name), std::move(subscriber)));
    client->start();
    return client;
}

std::shared_ptr<device_handler_ipv6_client> device_handler_ipv6_client::create(
    std::shared_ptr<boost::asio::io_context>, const std::string& interface,
    const std::string& address, unsigned port, std::string name,
    std::weak_ptr<device_handler_connection_subscriber> subscriber) {
    endpoint where{"[" + address + "]:" + std::to_string(port), [address, interface, port] {
                       return open_ipv6_socket(address, interface, port);
                   }};
    std::shared_ptr<device_handler_ipv6_client> client(
        new device_handler_ipv6_client(std::move(where), std::move(name), std::move(subscriber)));
    client->start();
    client->require_connected(ipv6_connect_limit);
    return client;
}
