#include "watch_command.hpp"

#include "entries.hpp"
#include "tmctl.hpp"
#include "value_text.hpp"

#include <optional>
#include <set>
#include <string_view>

namespace tmctl {
namespace {

constexpr int node_removed = 1;

std::string error_event_text(const json::value* error) {
    if (error == nullptr)
        return "error";
    return "error " + text_of(*error, "code") + " " + text_of(*error, "message");
}

std::string ended_event_text(const json::value* reason) {
    const bool removed = reason != nullptr && reason->IsInt() && reason->GetInt() == node_removed;
    return removed ? "ended: the node was removed" : "ended: the server shuts down";
}

std::string added_event_text(const json::value* info) {
    if (info == nullptr)
        return "added";
    return "added  " + text_of(*info, "type") + "  " + text_of(*info, "valueType");
}

// What happened, in the words of people.
std::string event_text(const json::value& event, std::string_view kind) {
    if (kind == "value") {
        const bool initial = json::find(event, "initial") != nullptr;
        return text_of(event, "value") + (initial ? "  (initial)" : "");
    }
    if (kind == "error")
        return error_event_text(json::find(event, "error"));
    if (kind == "ended")
        return ended_event_text(json::find(event, "reason"));
    if (kind == "added")
        return added_event_text(json::find(event, "info"));
    return printable(kind);
}

class watcher {
  public:
    watcher(const arguments& given, const surroundings& around)
        : given_(given),
          around_(around),
          connection_(given.server, around.interrupt,
                      [this](const json::value& event) { show(event); }) {}

    int run() {
        try {
            if (given_.tree)
                watch_tree();
            else
                subscribe();
            while (given_.tree || !subscribed_.empty())
                handler_connection::follow(
                    {&connection_}, handler_connection::clock::now() + patience, around_.interrupt);
        } catch (const interruption&) {
            return status_;  // how a watch ends
        }
        return exit_status::failed;
    }

  private:
    // How soon it is noticed that no subscription is left.
    static constexpr std::chrono::milliseconds patience{100};

    void watch_tree() {
        connection_.call("watch", [this](json::writer& out) {
            out.StartObject();
            out.Key("prefix");
            write_text(out, given_.operands[0]);
            out.EndObject();
        });
    }

    void subscribe() {
        for (const std::string& path : given_.operands)
            subscribed_.emplace(wire::without_leading_slash(path));
        call_with_paths(connection_, "subscribe", given_.operands,
                        [this](std::size_t i, const json::value& entry) {
                            if (found(entry, "value") == nullptr)
                                refuse(given_.operands[i], entry);
                        });
    }

    void refuse(const std::string& path, const json::value& entry) {
        report_failure(around_, path, entry);
        subscribed_.erase(std::string(wire::without_leading_slash(path)));
        status_ = exit_status::failed;
    }

    void show(const json::value& event) {
        const json::value* kind_value = json::find(event, "event");
        if (kind_value == nullptr || !kind_value->IsString())
            return;
        const std::string kind = json::to<std::string>(*kind_value);
        if (kind == "ended")
            end_subscription(event);
        if (given_.json)
            around_.out << json_text(event) << '\n';
        else
            around_.out << time_text(json::find(event, "time")) << "  " << text_of(event, "path")
                        << "  " << event_text(event, kind) << '\n';
        around_.out.flush();
    }

    void end_subscription(const json::value& event) {
        if (const json::value* path = json::find(event, "path"))
            subscribed_.erase(json::to<std::string>(*path));
    }

    const arguments& given_;
    const surroundings& around_;
    std::set<std::string> subscribed_;
    int status_ = exit_status::done;
    handler_connection connection_;  // calls back into this object
};

}  // namespace

int watch(const arguments& given, const surroundings& around) {
    return watcher(given, around).run();
}

}  // namespace tmctl
