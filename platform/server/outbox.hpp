// What a session has still to be sent.
#pragma once

#include "dh_interposer.hpp"

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>

// Writes lines to a socket without ever blocking, and keeps what the socket
// does not take. Any thread may call any member.
class outbox {
  public:
    // `await_writable` is called when lines wait; `flush` is then to be called
    // once the socket can take more. `limit` bounds the events that wait, and
    // separately the replies, in bytes. An interposer may be null.
    outbox(int socket, std::size_t limit, std::function<void()> await_writable,
           const dh_interposer* interposer);

    // A newer value event of a path replaces those that wait, once the limit is
    // passed. Where the events are over the limit all the same the box breaks.
    void push_value_event(const std::string& path, std::shared_ptr<const std::string> line);
    void push_event(std::shared_ptr<const std::string> line);
    void push_reply(std::string_view line);

    void flush();

    // Waits until the waiting replies are below the limit, or, with `all`,
    // until nothing waits. Breaks the box where the client takes nothing for
    // `patience`, unless it is offered nothing. False where the box is broken.
    bool wait_for_client(bool all, std::chrono::milliseconds patience);

    // From now on nothing is sent, and the socket is shut down.
    void break_off();

  private:
    enum class kind { reply, event, value_event };
    struct entry {
        kind what;
        std::string path;  // of a value event
        std::shared_ptr<const std::string> line;
    };

    bool send_at_once(std::string_view line);
    void push_event_locked(entry&& waiting);
    std::size_t send_some(std::string_view bytes);
    void send_waiting();
    void keep(entry&& waiting);
    void keep_only_newest_values();
    void break_locked();
    bool is_held() const { return interposer_ != nullptr && interposer_->holds_output(); }
    std::size_t& bytes_of(const entry& waiting) {
        return waiting.what == kind::reply ? reply_bytes_ : event_bytes_;
    }

    const int socket_;
    const std::size_t limit_;
    const std::function<void()> await_writable_;
    const dh_interposer* const interposer_;

    std::mutex mutex_;
    std::condition_variable progress_;
    std::deque<entry> waiting_;
    std::size_t front_sent_ = 0;  // bytes of the first entry that have gone
    std::size_t reply_bytes_ = 0;
    std::size_t event_bytes_ = 0;
    std::uint64_t sent_total_ = 0;
    bool broken_ = false;
};
