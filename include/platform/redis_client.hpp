// The card's key-value store, as far as the daemon reads it.
#pragma once

#include <chrono>
#include <optional>
#include <stdexcept>
#include <string>

// The store cannot be asked, or has no such value.
class redis_error : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

// Reads values of the store at `VELT_REDIS`: "unix:PATH", taken as it is, or
// "HOST:PORT"; by default the host's own socket. Each thread has a connection
// of its own, which is made when it is needed and made anew when it broke.
// Any thread may call.
class redis_client {
  public:
    static redis_client& instance();
    redis_client(const redis_client&) = delete;
    redis_client& operator=(const redis_client&) = delete;

    // The value of a key as a T: bool ("true" and "1" are true, anything else
    // is false), int, finite double or std::string. Blocks for at most `timeout`
    // seconds of real time. Throws redis_error where the store is away, or has
    // no such key, or another kind of value.
    template <class T>
    T get(const std::string& key, unsigned timeout) {
        return converted<T>(key, require(key, read(key, std::chrono::seconds(timeout))));
    }

    // The same, with the default in place of the error.
    template <class T>
    T get(const std::string& key, T default_value, unsigned timeout) {
        try {
            return get<T>(key, timeout);
        } catch (const redis_error&) {
            return default_value;
        }
    }

  private:
    redis_client();

    std::optional<std::string> read(const std::string& key,
                                    std::chrono::milliseconds timeout) const;
    static std::string require(const std::string& key, std::optional<std::string> text);
    template <class T>
    static T converted(const std::string& key, const std::string& text);

    const std::string address_;
};

template <>
bool redis_client::converted<bool>(const std::string& key, const std::string& text);
template <>
int redis_client::converted<int>(const std::string& key, const std::string& text);
template <>
double redis_client::converted<double>(const std::string& key, const std::string& text);
template <>
std::string redis_client::converted<std::string>(const std::string& key, const std::string& text);
