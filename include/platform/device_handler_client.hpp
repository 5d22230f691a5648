// The client side of the library: blocking calls to another device handler, and
// its events.
//
// Clients share the library's threads: one delivers value events, one raises
// connection events, one keeps the connections. A reply is read by the thread
// that waits for it, so a value event's callback may do a blocking call, and a
// connection event's callback may do anything.
#pragma once

#include "dh_error.hpp"
#include "json.hpp"

#include <chrono>
#include <functional>
#include <future>
#include <memory>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
#include <variant>
#include <vector>

namespace boost::asio {
class io_context;
}

class device_handler_client_base;

// How long a client waits for a reply, in real time: to a plain request, and to
// a write that returns a response.
inline constexpr std::chrono::milliseconds plain_reply_limit{10'000};
inline constexpr std::chrono::milliseconds response_limit{300'000};

// A path of a request: a literal is viewed, not copied, and must outlive the call.
using device_handler_path = std::variant<std::string, std::string_view>;

inline std::string_view view_of(const device_handler_path& path) {
    return std::visit([](const auto& text) { return std::string_view(text); }, path);
}

class device_handler_request;

// Lets whoever waits for a reply read it from the socket.
class device_handler_reply_gate {
  public:
    // Returns once the reply has been processed or has failed; at once for a
    // request that was never sent.
    void wait();

  private:
    friend class device_handler_client_base;
    std::weak_ptr<device_handler_client_base> client_;
    std::weak_ptr<device_handler_request> request_;
};

// One request to the transport. Owned by a shared_ptr while its reply is outstanding.
class device_handler_request {
  public:
    device_handler_request() = default;
    virtual ~device_handler_request() = default;
    device_handler_request(device_handler_request&&) = default;
    device_handler_request& operator=(device_handler_request&&) = default;

    virtual const char* method() const = 0;
    virtual void write_params(json::writer&) const = 0;
    // How long to wait for the reply, in real time.
    virtual std::chrono::milliseconds time_limit() const;
    // Exactly one of these is called, once. False where the result does not fit
    // the request: nothing was fulfilled then, and report_local_error follows.
    virtual bool process_result(const json::value& result) = 0;
    virtual void report_local_error(int code, const std::string& message) = 0;

    // For futures that are taken after the request was sent.
    const std::shared_ptr<device_handler_reply_gate>& gate() {
        if (!gate_)
            gate_ = std::make_shared<device_handler_reply_gate>();
        return gate_;
    }

  private:
    friend class device_handler_client_base;

    std::shared_ptr<device_handler_reply_gate> gate_;
    bool is_done_ = false;  // guarded by the connection's mutex
};

// One path within a request.
class device_handler_object {
  public:
    explicit device_handler_object(device_handler_path path) : path_(std::move(path)) {}
    virtual ~device_handler_object() = default;

    std::string_view path() const { return view_of(path_); }

    // The path's entry in the request.
    virtual void write_request_data(json::writer&) const = 0;
    virtual void process_ok_response() = 0;
    virtual void process_ok_response(const json::value&) = 0;
    virtual void process_error_response(const json::value& code, std::string_view message) = 0;
    virtual void report_local_error(int code, const std::string& message) = 0;

  private:
    device_handler_path path_;
};

namespace dh::client {

// The value of a reply, or dh_client_exception -22 where it has the wrong type.
template <class T>
T converted(const json::value& v) {
    try {
        return json::to<T>(v);
    } catch (const json_value_conversion_error& error) {
        throw dh_client_exception{
            dh_error_code::invalid_argument,
            std::string("expected ") + error.expected + ", found " + error.found};
    }
}

// The future of a reply, of which the one who gets it reads the reply, if
// nobody has yet.
template <class T>
std::future<T> waiting_future(std::future<T> reply,
                              std::shared_ptr<device_handler_reply_gate> gate) {
    return std::async(std::launch::deferred,
                      [gate = std::move(gate), reply = std::move(reply)]() mutable {
                          gate->wait();
                          return reply.get();
                      });
}

template <class T>
void fail(std::promise<T>& promise, int code, std::string message) {
    promise.set_exception(std::make_exception_ptr(dh_client_exception{code, std::move(message)}));
}

int error_code_of(const json::value& code);

// What an object of "code" and "message" tells.
dh_client_exception error_of(const json::value& error);

}  // namespace dh::client

// A request whose objects are the entries of one list.
class device_handler_object_request : public device_handler_request {
  public:
    void write_params(json::writer&) const override;
    bool process_result(const json::value& result) override;
    void report_local_error(int code, const std::string& message) override;

  protected:
    virtual const char* list_name() const = 0;

    std::vector<std::unique_ptr<device_handler_object>> objects_;
};

template <class T>
class device_handler_read_object : public device_handler_object {
  public:
    using device_handler_object::device_handler_object;

    std::future<T> get_future() { return promise_.get_future(); }

    void write_request_data(json::writer& out) const override {
        out.String(path().data(), static_cast<rapidjson::SizeType>(path().size()));
    }

    void process_ok_response() override {
        report_local_error(dh_client_code::bad_reply, "bad reply");
    }

    void process_ok_response(const json::value& v) override {
        try {
            promise_.set_value(dh::client::converted<T>(v));
        } catch (const dh_client_exception&) {
            promise_.set_exception(std::current_exception());
        }
    }

    void process_error_response(const json::value& code, std::string_view message) override {
        dh::client::fail(promise_, dh::client::error_code_of(code), std::string(message));
    }

    void report_local_error(int code, const std::string& message) override {
        dh::client::fail(promise_, code, message);
    }

  protected:
    std::promise<T> promise_;
};

// A read that yields its default where the path answers an error or a value of
// the wrong type; a connection that fails still fails it.
template <class T>
class device_handler_read_default_object : public device_handler_read_object<T> {
  public:
    device_handler_read_default_object(device_handler_path path, T default_value)
        : device_handler_read_object<T>(std::move(path)), default_(std::move(default_value)) {}

    using device_handler_read_object<T>::process_ok_response;

    void process_ok_response(const json::value& v) override {
        try {
            this->promise_.set_value(json::to<T>(v));
        } catch (const json_value_conversion_error&) {
            this->promise_.set_value(std::move(default_));
        }
    }

    void process_error_response(const json::value&, std::string_view) override {
        this->promise_.set_value(std::move(default_));
    }

  private:
    T default_;
};

class device_handler_read_request : public device_handler_object_request {
  public:
    // Adds a path to be read; its value comes through the future.
    template <class T>
    std::future<T> add(device_handler_path path) {
        return dh::client::waiting_future(add_object<T>(std::move(path)), gate());
    }

    template <class T>
    std::future<T> add(device_handler_path path, T default_value) {
        return dh::client::waiting_future(add_object<T>(std::move(path), std::move(default_value)),
                                          gate());
    }

    const char* method() const override { return "read"; }

  protected:
    const char* list_name() const override { return "paths"; }

  private:
    friend class device_handler_client_api;

    template <class T>
    std::future<T> add_object(device_handler_path path) {
        auto object = std::make_unique<device_handler_read_object<T>>(std::move(path));
        std::future<T> value = object->get_future();
        objects_.push_back(std::move(object));
        return value;
    }

    template <class T>
    std::future<T> add_object(device_handler_path path, T default_value) {
        auto object = std::make_unique<device_handler_read_default_object<T>>(
            std::move(path), std::move(default_value));
        std::future<T> value = object->get_future();
        objects_.push_back(std::move(object));
        return value;
    }
};

// What a write brings back.
class device_handler_write_response_object {
  public:
    virtual ~device_handler_write_response_object() = default;
    virtual void process_ok_response() = 0;
    virtual void process_ok_response(const json::value&) = 0;
    virtual void report_error(int code, const std::string& message) = 0;
    virtual bool expects_value() const = 0;
};

// `void` for a plain write, the response's type for a write that returns one.
template <class R>
class device_handler_write_response : public device_handler_write_response_object {
  public:
    std::future<R> get_future() { return promise_.get_future(); }

    void process_ok_response() override {
        if constexpr (std::is_void_v<R>)
            promise_.set_value();
        else
            report_error(dh_client_code::bad_reply, "bad reply");
    }

    void process_ok_response(const json::value& v) override {
        if constexpr (std::is_void_v<R>) {
            promise_.set_value();
        } else {
            try {
                promise_.set_value(dh::client::converted<R>(v));
            } catch (const dh_client_exception&) {
                promise_.set_exception(std::current_exception());
            }
        }
    }

    void report_error(int code, const std::string& message) override {
        dh::client::fail(promise_, code, message);
    }

    bool expects_value() const override { return !std::is_void_v<R>; }

  private:
    std::promise<R> promise_;
};

class device_handler_write_object_base : public device_handler_object {
  public:
    device_handler_write_object_base(device_handler_path path,
                                     std::unique_ptr<device_handler_write_response_object> response)
        : device_handler_object(std::move(path)), response_(std::move(response)) {}

    void process_ok_response() override { response_->process_ok_response(); }
    void process_ok_response(const json::value& v) override { response_->process_ok_response(v); }
    void process_error_response(const json::value& code, std::string_view message) override {
        response_->report_error(dh::client::error_code_of(code), std::string(message));
    }
    void report_local_error(int code, const std::string& message) override {
        response_->report_error(code, message);
    }
    bool expects_value() const { return response_->expects_value(); }

  private:
    std::unique_ptr<device_handler_write_response_object> response_;
};

template <class T>
class device_handler_write_object : public device_handler_write_object_base {
  public:
    device_handler_write_object(device_handler_path path,
                                std::unique_ptr<device_handler_write_response_object> response,
                                T value)
        : device_handler_write_object_base(std::move(path), std::move(response)),
          value_(std::move(value)) {}

    void write_request_data(json::writer& out) const override {
        json::scratch memory;
        out.StartObject();
        out.Key("path");
        out.String(path().data(), static_cast<rapidjson::SizeType>(path().size()));
        out.Key("value");
        json::from(value_, memory).Accept(out);
        out.EndObject();
    }

  private:
    T value_;
};

class device_handler_write_request : public device_handler_object_request {
  public:
    template <class R, class T>
    std::future<R> add(device_handler_path path, T value) {
        return dh::client::waiting_future(add_object<R>(std::move(path), std::move(value)), gate());
    }

    const char* method() const override { return "write"; }
    std::chrono::milliseconds time_limit() const override;

  protected:
    const char* list_name() const override { return "items"; }

  private:
    friend class device_handler_client_api;

    template <class R, class T>
    std::future<R> add_object(device_handler_path path, T value) {
        auto response = std::make_unique<device_handler_write_response<R>>();
        std::future<R> reply = response->get_future();
        expects_value_ = expects_value_ || response->expects_value();
        objects_.push_back(std::make_unique<device_handler_write_object<T>>(
            std::move(path), std::move(response), std::move(value)));
        return reply;
    }

    bool expects_value_ = false;
};

// Why a subscription ended.
enum class subscription_ended_rc : int {
    node_removed = 1,
    server_shutting_down = 2,
};

// Receives the events of one remote path, on the library's event thread.
class device_handler_subscriber {
  public:
    explicit device_handler_subscriber(std::string path) : path_(std::move(path)) {}

    // A parameter that has no value, in place of the first event.
    virtual void send_unset_event(std::string_view) {}
    virtual void send_changed_value_event(std::string_view path, const json::value& v) = 0;
    virtual void send_exception_event(std::string_view path, const dh_client_exception&) = 0;
    virtual void send_subscription_ended_event(std::string_view path, subscription_ended_rc) = 0;
    virtual ~device_handler_subscriber() = default;

    const std::string& path() const { return path_; }

  private:
    const std::string path_;
};

// Receives what happens to a remote tree, on the library's event thread.
class device_handler_tree_watcher {
  public:
    virtual ~device_handler_tree_watcher() = default;
    // All nodes of the tree, as objects of "path" and "info": the first that is
    // told. `is_cut` where there are more than the watcher takes.
    virtual void tree_listed(const json::value& nodes, bool is_cut) = 0;
    virtual void node_added(const std::string& path, const json::value& info) = 0;
    virtual void node_removed(const std::string& path) = 0;
    // Nothing more will be told.
    virtual void watch_failed(const dh_client_exception&) = 0;
};

// Receives the connection events of clients, on the library's connection thread.
class device_handler_connection_subscriber {
  public:
    virtual ~device_handler_connection_subscriber() = default;
    virtual void connection_established_event(std::string client_name) = 0;
    virtual void connection_lost_event(std::string client_name) = 0;
};

// The transport to one device handler. Any thread may call any member.
class device_handler_client_base : public std::enable_shared_from_this<device_handler_client_base> {
  public:
    virtual ~device_handler_client_base();
    device_handler_client_base(const device_handler_client_base&) = delete;
    device_handler_client_base& operator=(const device_handler_client_base&) = delete;

    // Sends the request; its objects are fulfilled when the reply comes, or
    // fails. In the first 10 s of the client's life this waits for the first
    // connection; later a request on a client that is not connected fails at
    // once with 107.
    void server_call(const std::shared_ptr<device_handler_request>& request);
    // Returns once the reply of a request of this client has been processed.
    void await_reply(const std::shared_ptr<device_handler_request>& request);

    const std::string& name() const { return name_; }
    bool is_connected() const;

    class connection;

  protected:
    // Where the other side is, and how to get there.
    struct endpoint {
        std::string description;           // for the log
        std::function<int()> open_socket;  // a connecting socket, or -1 with errno
    };

    device_handler_client_base(endpoint where, std::string name,
                               std::weak_ptr<device_handler_connection_subscriber> subscriber);

    void start();                                       // begin to connect
    void require_connected(std::chrono::milliseconds);  // throws where it is not up by then

    using subscribers = std::vector<std::shared_ptr<device_handler_subscriber>>;
    void add_subscribers_impl(const subscribers&);
    void remove_subscribers_impl(const subscribers&);
    void watch_impl(std::string prefix, std::size_t max_nodes,
                    std::shared_ptr<device_handler_tree_watcher>);
    void unwatch_impl(const std::shared_ptr<device_handler_tree_watcher>&);

  private:
    friend class device_handler_reply_gate;

    const std::string name_;
    const std::shared_ptr<connection> connection_;
};

// The calls that the program makes.
class device_handler_client_api : public device_handler_client_base {
  public:
    // Blocks for the value. Throws dh_client_exception on any failure.
    template <class T, class Path>
    T get(const Path& path) {
        auto request = std::make_shared<device_handler_read_request>();
        auto reply = request->add_object<T>(request_path(path));
        return reply_of(request, reply);
    }

    // The same, with the default where the path answers an error or a value of
    // the wrong type. Throws where the connection failed or timed out.
    template <class T, class Path>
    T get(const Path& path, T default_value) {
        auto request = std::make_shared<device_handler_read_request>();
        auto reply = request->add_object<T>(request_path(path), std::move(default_value));
        return reply_of(request, reply);
    }

    // Writes and blocks until the write is acknowledged. R is void, or the type
    // of the response of a write that returns one. Throws dh_client_exception.
    template <class R, class Path, class T>
    R set(const Path& path, T value) {
        auto request = std::make_shared<device_handler_write_request>();
        auto reply = request->add_object<R>(request_path(path), std::move(value));
        return reply_of(request, reply);
    }

    // Sends a prepared request; the caller holds the futures of its objects.
    template <class Request>
    void send_request(Request&& request) {
        server_call(std::make_shared<std::decay_t<Request>>(std::forward<Request>(request)));
    }

    // Any method of the protocol, with its params and its result as they are.
    // Blocks, at most for the limit in real time; throws dh_client_exception.
    json::document call(const std::string& method, const json::value& params,
                        std::chrono::milliseconds time_limit = plain_reply_limit);

    // From now on the subscriber gets the events of its path, over
    // reconnections too. A path that cannot be subscribed is reported to it as
    // an exception event.
    void add_subscriber(std::shared_ptr<device_handler_subscriber> subscriber) {
        add_subscribers_impl({std::move(subscriber)});
    }
    void remove_subscriber(const std::shared_ptr<device_handler_subscriber>& subscriber) {
        remove_subscribers_impl({subscriber});
    }
    // Many at once, in one round trip.
    void add_subscribers(const std::vector<std::shared_ptr<device_handler_subscriber>>& added) {
        add_subscribers_impl(added);
    }
    void remove_subscribers(const std::vector<std::shared_ptr<device_handler_subscriber>>& gone) {
        remove_subscribers_impl(gone);
    }

    // Watches the remote tree under the prefix for as long as the connection
    // lasts that stands now. At most `max_nodes` of the first listing are told.
    void watch(std::string prefix, std::size_t max_nodes,
               std::shared_ptr<device_handler_tree_watcher> watcher) {
        watch_impl(std::move(prefix), max_nodes, std::move(watcher));
    }
    void unwatch(const std::shared_ptr<device_handler_tree_watcher>& watcher) {
        unwatch_impl(watcher);
    }

  protected:
    using device_handler_client_base::device_handler_client_base;

  private:
    template <class T>
    T reply_of(const std::shared_ptr<device_handler_request>& request, std::future<T>& reply) {
        server_call(request);
        await_reply(request);
        return reply.get();
    }

    template <std::size_t N>
    static device_handler_path request_path(const char (&literal)[N]) {
        return std::string_view(literal);
    }
    static device_handler_path request_path(std::string_view path) { return path; }
    static device_handler_path request_path(const std::string& path) { return path; }
};

// A client on a local socket. The path is under the host's root prefix.
class device_handler_client : public device_handler_client_api {
  public:
    // Never fails because the other side is away: the client keeps trying.
    static std::shared_ptr<device_handler_client> create(
        const std::string& unix_path, std::string name,
        std::weak_ptr<device_handler_connection_subscriber> subscriber);

  private:
    using device_handler_client_api::device_handler_client_api;
};

// A client of another card, over IPv6.
class device_handler_ipv6_client : public device_handler_client_api {
  public:
    // The client is connected when this returns. Throws dh_client_exception
    // where it cannot be. A connection that is lost later is tried again in
    // the background. `interface` is the scope of a link-local address, or
    // empty. The io_context is not used: the library has its own threads.
    static std::shared_ptr<device_handler_ipv6_client> create(
        std::shared_ptr<boost::asio::io_context> io, const std::string& interface,
        const std::string& address, unsigned port, std::string name,
        std::weak_ptr<device_handler_connection_subscriber> subscriber);

  private:
    using device_handler_client_api::device_handler_client_api;
};
