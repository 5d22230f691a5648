#include "redis_client.hpp"

#include "host.hpp"

#include <hiredis/hiredis.h>

#include <fcntl.h>
#include <sys/time.h>
#include <algorithm>
#include <charconv>
#include <cmath>
#include <csignal>
#include <memory>
#include <string_view>
#include <utility>

namespace {

using clock = std::chrono::steady_clock;  // time-outs are in real time

constexpr std::string_view unix_scheme = "unix:";

struct free_context {
    void operator()(redisContext* context) const { redisFree(context); }
};
using connection = std::unique_ptr<redisContext, free_context>;

struct free_reply {
    void operator()(void* reply) const { freeReplyObject(reply); }
};
using reply = std::unique_ptr<redisReply, free_reply>;

std::string default_address() {
    return std::string(unix_scheme) + host::path("/var/run/redis/redis.sock");
}

// Never zero, which would mean without a limit.
timeval time_left(clock::time_point end) {
    using std::chrono::microseconds;
    const auto left = std::chrono::duration_cast<microseconds>(end - clock::now());
    const auto bounded = std::max(left, microseconds(1000));
    return {static_cast<time_t>(bounded.count() / 1'000'000),
            static_cast<suseconds_t>(bounded.count() % 1'000'000)};
}

connection connect(const std::string& address, clock::time_point end) {
    const timeval limit = time_left(end);
    redisContext* made = nullptr;
    if (address.starts_with(unix_scheme)) {
        made = redisConnectUnixWithTimeout(address.c_str() + unix_scheme.size(), limit);
    } else {
        const auto colon = address.rfind(':');
        int port = 0;
        if (colon != std::string::npos)
            std::from_chars(address.data() + colon + 1, address.data() + address.size(), port);
        made = redisConnectWithTimeout(address.substr(0, colon).c_str(), port, limit);
    }
    connection open(made);
    if (!open || open->err != 0)
        throw redis_error("no connection to the key-value store " + address +
                          (open ? ": " + std::string(open->errstr) : std::string()));
    // The shell commands that the daemon runs have no use for it.
    ::fcntl(open->fd, F_SETFD, FD_CLOEXEC);
    return open;
}

// Bounds what is kept of an answer that does not end.
constexpr std::size_t max_answer = std::size_t{1} << 20;

bool send(redisContext& open, const std::string& key, clock::time_point end) {
    if (redisAppendCommand(&open, "GET %b", key.data(), key.size()) != REDIS_OK)
        return false;
    for (int is_sent = 0; is_sent == 0;) {
        if (redisSetTimeout(&open, time_left(end)) != REDIS_OK ||
            redisBufferWrite(&open, &is_sent) != REDIS_OK)
            return false;
    }
    return true;
}

// Nothing where the connection broke, or the answer was not there in time. A
// time-out of the library is one of each read, however little that brings.
reply ask(redisContext& open, const std::string& key, clock::time_point end) {
    if (!send(open, key, end))
        return nullptr;
    void* answer = nullptr;
    while (redisReaderGetReply(open.reader, &answer) == REDIS_OK) {
        if (answer != nullptr)
            return reply(static_cast<redisReply*>(answer));
        if (clock::now() >= end || open.reader->len > max_answer ||
            redisSetTimeout(&open, time_left(end)) != REDIS_OK ||
            redisBufferRead(&open) != REDIS_OK)
            break;
    }
    return nullptr;
}

redis_error bad_value(const std::string& key, const std::string& text) {
    constexpr std::size_t most_shown = 80;
    return redis_error("the value of " + key +
                       " is not of the wanted kind: " + text.substr(0, most_shown));
}

template <class T>
T number(const std::string& key, const std::string& text) {
    T value{};
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (error != std::errc() || end != text.data() + text.size())
        throw bad_value(key, text);
    return value;
}

}  // namespace

redis_client& redis_client::instance() {
    static auto* const client = new redis_client;
    return *client;
}

redis_client::redis_client() : address_(host::environment("VELT_REDIS", default_address())) {
    // The library writes to a store that has gone as to any other.
    std::signal(SIGPIPE, SIG_IGN);
}

std::optional<std::string> redis_client::read(const std::string& key,
                                              std::chrono::milliseconds timeout) const {
    thread_local connection kept;
    const auto end = clock::now() + timeout;
    // Kept again only once it has answered: what comes late would be taken for
    // the answer to the next question.
    connection open = std::move(kept);
    reply answer;
    // That the store has closed a connection since is only found out by using it.
    if (open)
        answer = ask(*open, key, end);
    if (!answer && clock::now() < end) {
        open = connect(address_, end);
        answer = ask(*open, key, end);
    }
    if (!answer)
        throw redis_error("the key-value store " + address_ + " does not answer" +
                          (open && open->err != 0 ? ": " + std::string(open->errstr) : ""));
    kept = std::move(open);
    if (answer->type == REDIS_REPLY_NIL)
        return std::nullopt;
    const std::string text(answer->str != nullptr ? answer->str : "", answer->len);
    if (answer->type != REDIS_REPLY_STRING)
        throw bad_value(key, text);
    return text;
}

std::string redis_client::require(const std::string& key, std::optional<std::string> text) {
    if (!text)
        throw redis_error("no such key: " + key);
    return *std::move(text);
}

template <>
bool redis_client::converted<bool>(const std::string&, const std::string& text) {
    return text == "true" || text == "1";
}

template <>
int redis_client::converted<int>(const std::string& key, const std::string& text) {
    return number<int>(key, text);
}

template <>
double redis_client::converted<double>(const std::string& key, const std::string& text) {
    const auto value = number<double>(key, text);
    if (!std::isfinite(value))
        throw bad_value(key, text);
    return value;
}

template <>
std::string redis_client::converted<std::string>(const std::string&, const std::string& text) {
    return text;
}
