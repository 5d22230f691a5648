#pragma once

#include "volatile_value.hpp"

#include <algorithm>
#include <atomic>
#include <functional>
#include <mutex>
#include <sstream>
#include <stdexcept>
#include <system_error>
#include <variant>

namespace dh::api {

// The value source of a filter that asks a getter of its owner at each tick.
template <auto Getter>
class polled_volatile_value_impl : public async_volatile_value<value_event_node, Getter> {
    using base = async_volatile_value<value_event_node, Getter>;

  public:
    using typename base::bound_type;
    using typename base::owner_type;
    using typename base::value_type;
    using result = std::variant<value_type, dh_error>;

    using base::base;

    std::string get_info() const override { return "polled volatile value (read, subscribe)"; }

    json::value get_info(json::allocator& memory) const override {
        // Not that of a volatile value, which it replaces.
        // NOLINTNEXTLINE(bugprone-parent-virtual-call)
        json::value info = value_event_node::get_info(memory);
        json::add(info, "type", "polled volatile value", memory);
        json::add(info, "valueType", type_name<value_type>(), memory);
        json::add(info, "capabilities", capabilities({"read", "subscribe"}, memory), memory);
        return info;
    }

    bool runs_owner_code() const override { return false; }

    static constexpr bool is_polled = true;

  protected:
    result _get_value() const {
        try {
            return this->call_getter();
        } catch (const dh_error& error) {
            return error;
        } catch (...) {
            return dh_error(dh_error_code::unknown, "Unknown error!");
        }
    }
};

// The value source of a filter that is given its values from outside.
template <class T>
class pushed_volatile_value_impl : public value_event_node {
  public:
    using value_type = T;
    using result = std::variant<T, dh_error>;

    explicit pushed_volatile_value_impl(std::string name)
        : value_event_node(std::move(name)),
          latest_(dh_error(dh_error_code::bad_value, "Value has not been set")) {}

    std::string get_info() const override { return "pushed volatile value (read, subscribe)"; }

    json::value get_info(json::allocator& memory) const override {
        json::value info = value_event_node::get_info(memory);
        json::add(info, "type", "pushed volatile value", memory);
        json::add(info, "valueType", type_name<T>(), memory);
        json::add(info, "capabilities", capabilities({"read", "subscribe"}, memory), memory);
        return info;
    }

    bool runs_owner_code() const override { return false; }

    static constexpr bool is_polled = false;

  protected:
    result latest_;  // guarded by the filter's mutex
};

// How a filter decides whether a new value is worth an event.
enum class compare_kind : unsigned {
    custom_with_limits = 0,
    custom = 1,
    default_limits = 2,
    equal = 3,
};

// Where a filter's limits stand. Without a unit of their own: those of the value.
template <class T>
struct filter_setting {
    compare_kind kind = compare_kind::equal;
    T immediate_limit{};
    T delayed_limit{};
};

// Publishes the values of `Impl` with hysteresis. The comparison of what was
// published with the latest value is read by its sign: positive, publish at
// once; zero, publish after `delay_cycles` ticks in a row that see it;
// negative, not at all. Errors of the source go the same way as values. Reads
// and subscribers see what was published, so they cost no call of the owner.
template <class Impl>
class hysteresis_filtered_value : public Impl {
  public:
    using value_type = typename Impl::value_type;
    using result = typename Impl::result;
    using setting = filter_setting<value_type>;
    using compare_function =
        std::function<int(const value_type& published, const value_type& latest,
                          const value_type& immediate, const value_type& delayed)>;
    using first_value_function = std::function<value_type()>;

    static constexpr unsigned delay_cycles = 10;

    // A polled node with limits: a difference strictly above `immediate` goes
    // out at once, one strictly above `delayed` after the delay.
    template <class Owner, class... Bound>
    static std::shared_ptr<hysteresis_filtered_value> create(dh_db& db, const std::string& path,
                                                             double immediate, double delayed,
                                                             const std::shared_ptr<Owner>& owner,
                                                             Bound... bound) {
        const setting limits{compare_kind::default_limits, static_cast<value_type>(immediate),
                             static_cast<value_type>(delayed)};
        return create_node<hysteresis_filtered_value>(
            db, path, limits, first_value_function(value_not_set), std::weak_ptr<Owner>(owner),
            typename Impl::bound_type(bound...));
    }

    // A polled node without limits: every different value goes out at once.
    template <class Owner, class... Bound>
    static std::shared_ptr<hysteresis_filtered_value> create(dh_db& db, const std::string& path,
                                                             const std::shared_ptr<Owner>& owner,
                                                             Bound... bound) {
        return create_node<hysteresis_filtered_value>(
            db, path, setting{}, first_value_function(value_not_set), std::weak_ptr<Owner>(owner),
            typename Impl::bound_type(bound...));
    }

    // A pushed node; every different value goes out at once.
    static std::shared_ptr<hysteresis_filtered_value> create(
        dh_db& db, const std::string& path,
        first_value_function first_value = first_value_function(value_not_set)) {
        return create_node<hysteresis_filtered_value>(db, path, setting{}, std::move(first_value));
    }

    template <class... Source>
    hysteresis_filtered_value(std::string name, const setting& limits,
                              const first_value_function& first_value, Source&&... source)
        : Impl(std::move(name), std::forward<Source>(source)...),
          published_(first_fill(first_value)),
          setting_(limits),
          compare_(compare_by(limits.kind)) {}

    // For the owner of a pushed node. Throws dh_error -61 for a float that is
    // NaN or infinite, which changes nothing.
    void push(value_type value) {
        static_assert(!Impl::is_polled, "a polled node asks its owner");
        {
            const std::lock_guard lock(mutex_);
            require_finite_argument(value);
            this->latest_ = std::move(value);
        }
        this->periodic_task(true);
    }

    // What readers see, for the program itself. Throws the dh_error where that is one.
    value_type value() const {
        const std::lock_guard lock(mutex_);
        if (const auto* error = std::get_if<dh_error>(&published_))
            throw dh_error(error->code, error->what());
        return std::get<value_type>(published_);
    }

    void get(const std::string& key, json::allocator& memory, json::value& out) override {
        json::add(out, key, value(), memory);
    }

    void periodic_task(bool pushed) override {
        if (busy_.exchange(true))
            return;
        const busy_guard guard{busy_};
        if constexpr (Impl::is_polled) {
            result latest = this->_get_value();
            const std::lock_guard lock(mutex_);
            take(latest, pushed);
        } else {
            const std::lock_guard lock(mutex_);
            take(this->latest_, pushed);
        }
    }

    void subscribe(std::shared_ptr<dh_session> session, const std::string& key,
                   json::allocator& memory, json::value& out,
                   std::unique_lock<std::mutex>& lock) override {
        const std::lock_guard value_lock(mutex_);
        dh_db_event_node::subscribe(session, key, memory, out, lock);
        _subscribe_assign_value(key, memory, out);
        this->send_initial_value(
            session, [this](const char* name, json::allocator& pool, json::value& event) {
                _subscribe_assign_value(name, pool, event);
            });
    }

    json::value get_info(json::allocator& memory) const override {
        json::value info = Impl::get_info(memory);
        json::value hysteresis(rapidjson::kObjectType);
        json::add(hysteresis, "function", function_name(), memory);
        const bool has_limits = setting_.kind == compare_kind::custom_with_limits ||
                                setting_.kind == compare_kind::default_limits;
        if (has_limits) {
            json::add(hysteresis, "ImmediateLimit", as_text(setting_.immediate_limit), memory);
            json::add(hysteresis, "delayedLimit", as_text(setting_.delayed_limit), memory);
        }
        if (setting_.kind == compare_kind::default_limits)
            json::add(hysteresis, "delayCycles", delay_cycles, memory);
        if (this->poll_interval() != 0)
            json::add(hysteresis, "pollInterval", this->poll_interval(), memory);
        json::add(info, "hysteresis", std::move(hysteresis), memory);
        return info;
    }

    using Impl::get_info;

    bool runs_owner_code() const override { return true; }

  private:
    struct busy_guard {
        std::atomic<bool>& busy;
        ~busy_guard() { busy.store(false); }
    };

    [[noreturn]] static value_type value_not_set() {
        throw dh_error(dh_error_code::bad_value, "Value has not been set");
    }

    static result first_fill(const first_value_function& first_value) {
        try {
            return first_value();
        } catch (const dh_error& error) {
            return dh_error(error.code, error.what());
        } catch (const dh_client_exception& error) {
            return dh_error(error.code, error.message);
        } catch (const std::system_error& error) {
            return dh_error(error.code().value(),
                            "System error (" + std::string(error.what()) + ")");
        } catch (const std::runtime_error& error) {
            return dh_error(dh_error_code::unknown,
                            "Runtime error (" + std::string(error.what()) + ")");
        } catch (const std::logic_error& error) {
            return dh_error(dh_error_code::unknown,
                            "Logic error (" + std::string(error.what()) + ")");
        } catch (const std::exception& error) {
            return dh_error(dh_error_code::unknown,
                            "Generic error (" + std::string(error.what()) + ")");
        } catch (...) {
            return dh_error(dh_error_code::unknown, "Unknown error");
        }
    }

    static compare_function compare_by(compare_kind kind) {
        if constexpr (std::is_arithmetic_v<value_type>) {
            if (kind == compare_kind::default_limits)
                return compare_with_limits;
        }
        return compare_equal;
    }

    static int compare_with_limits(const value_type& published, const value_type& latest,
                                   const value_type& immediate, const value_type& delayed) {
        const value_type difference = std::max(published, latest) - std::min(published, latest);
        if (difference > immediate)
            return 1;
        return difference > delayed ? 0 : -1;
    }

    static int compare_equal(const value_type& published, const value_type& latest,
                             const value_type&, const value_type&) {
        return published == latest ? -1 : 1;
    }

    void take(const result& latest, bool pushed) {
        const auto* error = std::get_if<dh_error>(&latest);
        const auto* published_error = std::get_if<dh_error>(&published_);
        if (error != nullptr) {
            const bool is_known = published_error != nullptr &&
                                  published_error->code == error->code &&
                                  published_error->message == error->message;
            if (!is_known)
                publish_error(*error);
        } else if (published_error != nullptr) {
            delay_counter_ = 0;
            publish(std::get<value_type>(latest));
        } else {
            compare_and_publish(std::get<value_type>(latest), pushed);
        }
    }

    void compare_and_publish(const value_type& latest, bool pushed) {
        const int verdict = compare_(std::get<value_type>(published_), latest,
                                     setting_.immediate_limit, setting_.delayed_limit);
        if (verdict < 0) {
            delay_counter_ = 0;
        } else if (verdict > 0 || this->poll_interval() == 0 || delay_counter_ >= delay_cycles) {
            // The counter stays: a value that goes on drifting is then published
            // on each tick, until one finds it within the delayed limit.
            publish(latest);
        } else if (!pushed) {
            ++delay_counter_;
        }
    }

    void publish(const value_type& value) {
        published_ = value;
        this->send_value_changed(value);
    }

    void publish_error(const dh_error& error) {
        published_ = error;
        if (this->is_attached())
            this->send_error_event(error);
    }

    // A subscribe does not fail when the node is in error: the error is its value.
    void _subscribe_assign_value(const std::string& key, json::allocator& memory,
                                 json::value& out) const {
        if (const auto* error = std::get_if<dh_error>(&published_)) {
            json::value object(rapidjson::kObjectType);
            json::add(object, "code", error->code, memory);
            json::add(object, "message", error->message, memory);
            json::add(out, key, std::move(object), memory);
        } else {
            json::add(out, key, std::get<value_type>(published_), memory);
        }
    }

    const char* function_name() const {
        switch (setting_.kind) {
            case compare_kind::custom_with_limits:
            case compare_kind::custom:
                return "custom";
            case compare_kind::default_limits:
                return "default";
            case compare_kind::equal:
                return "equal";
        }
        return "unknown";
    }

    static std::string as_text(const value_type& limit) {
        std::ostringstream text;
        text << limit;
        return text.str();
    }

    mutable std::mutex mutex_;
    result published_;
    const setting setting_;
    unsigned delay_counter_ = 0;
    std::atomic<bool> busy_{false};
    const compare_function compare_;
};

}  // namespace dh::api
