// A device handler made in a test: serves what the test lays down, over a real
// unix socket, and remembers what it was asked for.
//
// It knows the methods read, write, subscribe, unsubscribe and watch (of the
// whole tree, which never changes), and answers any other with -32601. It has
// nothing in common with the server library, so the client is tested against
// the protocol and not against itself.
#pragma once

#include "host.hpp"
#include "json.hpp"

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <filesystem>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <set>
#include <stdexcept>
#include <string>
#include <string_view>
#include <system_error>
#include <thread>
#include <type_traits>
#include <utility>
#include <vector>

namespace test {

// Any thread may call. All sessions are served by one thread, in the order in
// which their requests come.
class scripted_handler {
  public:
    // Serves the absolute path, under the host's root, until destroyed.
    explicit scripted_handler(std::string_view absolute) : path_(host::path(absolute)) { start(); }
    ~scripted_handler() { stop(); }
    scripted_handler(const scripted_handler&) = delete;
    scripted_handler& operator=(const scripted_handler&) = delete;

    // --- what it answers ---

    // The value that a read of the path answers; a write to the path replaces it.
    template <class T>
    void set(const std::string& path, const T& value) {
        json::document memory;
        if constexpr (std::is_convertible_v<const T&, std::string_view>)
            set_json(path,
                     json::to_text(json::from(std::string_view(value), memory.GetAllocator())));
        else
            set_json(path, json::to_text(json::from(value, memory.GetAllocator())));
    }
    // The same, as JSON text: for values of a wrong type.
    void set_json(const std::string& path, const std::string& text) {
        const std::lock_guard lock(mutex_);
        answers_[path] = value_object(text);
        send_value_event(path, text);
    }
    // A read of the path answers this error. Without anything laid down it is -2.
    void set_error(const std::string& path, int code, const std::string& message) {
        const std::lock_guard lock(mutex_);
        answers_[path] = error_object(code, message);
    }
    void remove(const std::string& path) {
        const std::lock_guard lock(mutex_);
        answers_.erase(path);
    }
    std::optional<std::string> json_of(const std::string& path) const {
        const std::lock_guard lock(mutex_);
        const auto found = answers_.find(path);
        if (found == answers_.end())
            return std::nullopt;
        return json_text(found->second);
    }

    // A write to the path fails with this error and changes nothing.
    void fail_writes(const std::string& path, int code, const std::string& message) {
        const std::lock_guard lock(mutex_);
        write_answers_[path] = error_object(code, message);
    }
    // A write to the path succeeds with this JSON text as its response.
    void answer_writes(const std::string& path, const std::string& response) {
        const std::lock_guard lock(mutex_);
        write_answers_[path] = R"({"value":)" + response + "}";
    }
    void accept_writes(const std::string& path) {
        const std::lock_guard lock(mutex_);
        write_answers_.erase(path);
    }

    // Every read and write as a whole fails with this error, or succeeds again with code 0.
    void fail_requests(int code, const std::string& message = {}) {
        const std::lock_guard lock(mutex_);
        request_error_ = code == 0 ? "" : error_object(code, message);
    }
    // Each answer comes late by so much real time.
    void answer_after(std::chrono::milliseconds delay) {
        const std::lock_guard lock(mutex_);
        delay_ = delay;
    }

    // --- what it was asked for ---

    // "read a,b,c" and "write a=1,b="text"", in the order in which they came.
    std::vector<std::string> requests() const {
        const std::lock_guard lock(mutex_);
        return requests_;
    }
    void forget_requests() {
        const std::lock_guard lock(mutex_);
        requests_.clear();
    }
    // Called with each request before it is answered, on the handler's thread.
    void on_request(std::function<void(const std::string&)> callback) {
        const std::lock_guard lock(mutex_);
        on_request_ = std::move(callback);
    }

    // --- its life ---

    // Breaks all connections; nobody listens any more.
    void stop() {
        if (!thread_.joinable())
            return;
        {
            const std::lock_guard lock(mutex_);
            stopping_ = true;
        }
        stopped_.notify_all();
        ::shutdown(listener_, SHUT_RDWR);  // wakes the poll
        thread_.join();
        ::close(listener_);
        ::unlink(path_.c_str());
    }
    // Serves again after a stop, with the same answers.
    void start() {
        std::filesystem::create_directories(std::filesystem::path(path_).parent_path());
        ::unlink(path_.c_str());
        stopping_ = false;
        listener_ = listen_on(path_);
        thread_ = std::thread([this] { serve(); });
    }

  private:
    struct session {
        int socket;
        std::string received;
    };

    static int listen_on(const std::string& path) {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        if (path.size() >= sizeof address.sun_path)
            throw std::length_error("socket path too long: " + path);
        std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
        const int socket = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        if (socket < 0 ||
            ::bind(socket, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
            ::listen(socket, 16) != 0)
            throw std::system_error(errno, std::generic_category(), path);
        return socket;
    }

    void serve() {
        std::vector<session> sessions;
        while (!is_stopping()) {
            std::vector<pollfd> waiting{{listener_, POLLIN, 0}};
            for (const session& one : sessions)
                waiting.push_back({one.socket, POLLIN, 0});
            ::poll(waiting.data(), waiting.size(), -1);
            for (std::size_t i = sessions.size(); i-- > 0;) {
                if (waiting[i + 1].revents != 0 && !serve_session(sessions[i])) {
                    end_session(sessions[i].socket);
                    sessions.erase(sessions.begin() + static_cast<std::ptrdiff_t>(i));
                }
            }
            if (waiting[0].revents != 0) {
                const int accepted = ::accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
                if (accepted >= 0)
                    sessions.push_back({accepted, {}});
            }
        }
        for (const session& one : sessions)
            end_session(one.socket);
    }

    void end_session(int socket) {
        {
            const std::lock_guard lock(mutex_);
            subscriptions_.erase(socket);
        }
        ::close(socket);
    }

    bool is_stopping() const {
        const std::lock_guard lock(mutex_);
        return stopping_;
    }

    // False once the session is over.
    bool serve_session(session& one) {
        char bytes[4096];
        const ssize_t length = ::recv(one.socket, bytes, sizeof bytes, 0);
        if (length <= 0)
            return false;
        one.received.append(bytes, static_cast<std::size_t>(length));
        for (std::size_t end; (end = one.received.find('\n')) != std::string::npos;) {
            const std::string reply = answer(one, one.received.substr(0, end)) + "\n";
            one.received.erase(0, end + 1);
            if (!wait_for_the_answer())
                return false;
            if (::send(one.socket, reply.data(), reply.size(), MSG_NOSIGNAL) < 0)
                return false;
        }
        return true;
    }

    // False where the handler was stopped meanwhile.
    bool wait_for_the_answer() {
        std::unique_lock lock(mutex_);
        return !stopped_.wait_for(lock, delay_, [this] { return stopping_; });
    }

    std::string answer(const session& one, const std::string& line) {
        json::document request;
        request.Parse(line.data(), line.size());
        const json::value* const id = json::find(request, "id");
        const json::value* const method = json::find(request, "method");
        const std::string head =
            R"({"jsonrpc":"2.0","id":)" + (id != nullptr ? json::to_text(*id) : "null") + ",";
        const json::value* const params = json::find(request, "params");
        const std::string name = method != nullptr ? json::to<std::string>(*method) : "";
        if (name == "read" || name == "write")
            return head + result_of(name, *params) + "}";
        if (name == "watch")
            return head + R"("result":{"nodes":[)" + listing() + "]}}";
        if (name == "subscribe" || name == "unsubscribe")
            return head + R"("result":[)" + subscriptions(one.socket, name, *params) + "]}";
        return head + R"("error":{"code":-32601,"message":"unknown method"}})";
    }

    // Each value as a node that can be read and subscribed to.
    std::string listing() const {
        const std::lock_guard lock(mutex_);
        std::string nodes;
        for (const auto& [path, answer] : answers_) {
            const auto type = value_type_of(answer);
            if (!type)
                continue;
            nodes += nodes.empty() ? "" : ",";
            nodes += R"({"path":")" + path + R"(","info":{"valueType":")" + *type +
                     R"(","capabilities":{"read":true,"subscribe":true}}})";
        }
        return nodes;
    }

    static std::optional<std::string> value_type_of(const std::string& answer) {
        json::document entry;
        entry.Parse(answer.data(), answer.size());
        const json::value* const value = json::find(entry, "value");
        if (value == nullptr)
            return std::nullopt;
        if (value->IsBool())
            return "bool";
        if (value->IsInt())
            return "int";
        return value->IsNumber() ? "float" : "string";
    }

    std::string subscriptions(int socket, const std::string& name, const json::value& params) {
        const std::lock_guard lock(mutex_);
        std::string result;
        for (const json::value& entry : json::find(params, "paths")->GetArray()) {
            const std::string path = entry.GetString();
            const auto found = answers_.find(path);
            result += result.empty() ? "" : ",";
            if (found == answers_.end()) {
                result += error_object(-2, "No such path: " + path);
            } else if (name == "subscribe") {
                subscriptions_[socket].insert(path);
                result += found->second;
                if (value_type_of(found->second))
                    send_event(socket, path, json_text(found->second), true);
            } else {
                subscriptions_[socket].erase(path);
                result += "{}";
            }
        }
        return result;
    }

    // With `mutex_` held.
    void send_value_event(const std::string& path, const std::string& text) const {
        for (const auto& [socket, paths] : subscriptions_) {
            if (paths.contains(path))
                send_event(socket, path, text, false);
        }
    }

    static void send_event(int socket, const std::string& path, const std::string& text,
                           bool is_first) {
        const std::string line =
            R"({"jsonrpc":"2.0","method":"event","params":{"event":"value","path":")" + path +
            R"(","time":1,"value":)" + text + (is_first ? R"(,"initial":true)" : "") + "}}\n";
        ::send(socket, line.data(), line.size(), MSG_NOSIGNAL);
    }

    // The reply's member "result" or "error".
    std::string result_of(const std::string& name, const json::value& params) {
        const bool is_read = name == "read";
        const json::value* const entries = json::find(params, is_read ? "paths" : "items");
        std::string asked = name;
        std::string result;
        std::unique_lock lock(mutex_);
        for (const json::value& entry : entries->GetArray()) {
            asked += result.empty() ? " " : ",";
            result += result.empty() ? "" : ",";
            result += is_read ? read(entry, asked) : write(entry, asked);
        }
        requests_.push_back(asked);
        const auto callback = on_request_;
        const std::string failure = request_error_;
        lock.unlock();
        if (callback)
            callback(asked);
        if (!failure.empty())
            return failure.substr(1, failure.size() - 2);
        return R"("result":[)" + result + "]";
    }

    std::string read(const json::value& entry, std::string& asked) const {
        const std::string path = entry.GetString();
        asked += path;
        const auto found = answers_.find(path);
        return found != answers_.end() ? found->second : error_object(-2, "No such path: " + path);
    }

    std::string write(const json::value& entry, std::string& asked) {
        const std::string path = entry["path"].GetString();
        const std::string value = json::to_text(entry["value"]);
        asked += path + "=" + value;
        if (const auto found = write_answers_.find(path); found != write_answers_.end())
            return found->second;
        if (request_error_.empty()) {
            answers_[path] = value_object(value);
            send_value_event(path, value);
        }
        return "{}";
    }

    // The entry of a read's result, and the value in it, as JSON texts.
    static std::string value_object(const std::string& value) {
        return R"({"value":)" + value + "}";
    }
    static std::string json_text(const std::string& object) {
        return object.substr(9, object.size() - 10);
    }

    static std::string error_object(int code, const std::string& message) {
        return R"({"error":{"code":)" + std::to_string(code) + R"(,"message":")" + message +
               R"("}})";
    }

    const std::string path_;
    int listener_ = -1;
    std::thread thread_;
    mutable std::mutex mutex_;
    std::condition_variable stopped_;
    bool stopping_ = false;
    std::map<std::string, std::string> answers_;          // the entry of a read's result
    std::map<int, std::set<std::string>> subscriptions_;  // by socket
    std::map<std::string, std::string> write_answers_;    // that of a write, where it is not {}
    std::string request_error_;
    std::chrono::milliseconds delay_{0};
    std::vector<std::string> requests_;
    std::function<void(const std::string&)> on_request_;
};

}  // namespace test
