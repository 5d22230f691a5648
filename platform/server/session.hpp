// One client of the server: reads its requests, executes them in order and
// answers.
#pragma once

#include "device_handler_api.hpp"
#include "outbox.hpp"
#include "wire.hpp"

#include <atomic>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>

class session final : public dh_session, public std::enable_shared_from_this<session> {
  public:
    // Owns the socket. `await_writable` as in outbox. An interposer may be null.
    session(int socket, dh_db& db, const std::string& server_name, const server_limits& limits,
            std::function<void()> await_writable, dh_interposer* interposer);
    ~session() override;
    session(const session&) = delete;
    session& operator=(const session&) = delete;

    // The life of the session, on a thread of its own: returns when the client
    // has gone or was sent away.
    void run();

    void send_value_event(const std::string& path,
                          std::shared_ptr<const std::string> line) override;
    void send_event(std::shared_ptr<const std::string> line) override;

    // The socket can take more. Called by the server's thread.
    void flush() { outbox_.flush(); }
    // Tells the client that its subscriptions are over, because the server ends.
    void announce_end();
    // Makes `run` return soon.
    void close() { outbox_.break_off(); }

    int socket() const { return socket_; }

  private:
    using request = wire::request;
    using method = void (session::*)(const request&);

    bool receive();
    void execute_received_lines();
    void execute_line(std::string_view line);
    void execute(const request&);
    void refuse_long_line();
    void end();

    void read(const request&);
    void write(const request&);
    void subscribe(const request&);
    void unsubscribe(const request&);
    void info(const request&);
    void list(const request&);
    void watch(const request&);
    void unwatch(const request&);
    void history(const request&);
    void version(const request&);

    template <class Entry>
    void answer_entries(const request&, const json::value& list, const Entry& entry);
    template <class Execute>
    void write_entry(const Execute& execute);
    void write_nodes(const std::vector<dh_db::entry>& nodes);
    json::writer& begin_reply(const request&);
    void end_reply(const request&);
    void subscribe_to(dh_db_leaf_node&, json::value& out);
    void unsubscribe_from(std::string_view path);
    std::shared_ptr<dh_db_leaf_node> find_node(std::string_view path);
    void interpose(const dh_db_leaf_node&, json::value& result);
    std::shared_ptr<const std::string> interposed_event(const std::string& path,
                                                        std::shared_ptr<const std::string> line);
    bool reply_is_too_large() const;

    void fail(const request&, int code, std::string_view message);
    void finish_reply(const request&);
    void keep_finished_reply();
    void send_finished_replies();

    const int socket_;
    dh_db& db_;
    const std::string& server_name_;
    const server_limits limits_;
    dh_interposer* const interposer_;
    outbox outbox_;

    wire::line_splitter lines_{wire::max_request_line};
    wire::parser parser_;
    alignas(8) char entry_bytes_[1024];
    json::allocator entry_memory_{entry_bytes_, sizeof entry_bytes_};
    json::writer out_;
    json::buffer reply_;            // of the request that is being executed
    std::string finished_replies_;  // of requests before it, not yet given to the outbox
    bool client_is_awake_ = false;  // has had a reply since this session slept
    std::set<std::string> watched_prefixes_;

    std::mutex subscriptions_mutex_;
    std::map<std::string, std::weak_ptr<dh_db_leaf_node>, std::less<>> subscriptions_;
};
