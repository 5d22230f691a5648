#include "channels_command.hpp"

#include "channel_board.hpp"
#include "channel_table.hpp"
#include "dh_error.hpp"
#include "entries.hpp"
#include "host.hpp"
#include "live_screen.hpp"
#include "tmctl.hpp"
#include "value_text.hpp"

#include <fmt/format.h>
#include <fstream>

#include <algorithm>
#include <fstream>
#include <memory>
#include <set>

namespace tmctl {
namespace {

program_time now() {
    return host::time().monotonic();
}

program_time span(double seconds) {
    return std::chrono::duration_cast<program_time>(std::chrono::duration<double>(seconds));
}

const json::value& no_value() {
    static const json::value null;
    return null;
}

std::vector<channel_paths> chosen_channels(const arguments& given) {
    const std::vector<unsigned> numbers = parse_channels(given.operands, highest_channel);
    std::vector<channel_paths> channels =
        given.wss_port == 0 ? one_port_channels() : two_port_channels(given.wss_port);
    if (!numbers.empty())
        std::erase_if(channels, [&numbers](const channel_paths& paths) {
            return !std::ranges::binary_search(numbers, paths.channel);
        });
    return channels;
}

// The paths that the traffic manager can tell changes of.
std::vector<std::string> followed_paths(const std::vector<channel_paths>& channels) {
    std::vector<std::string> paths;
    for (const channel_paths& channel : channels)
        paths.insert(paths.end(), {channel.wanted, channel.rx, channel.tx, channel.mode,
                                   channel.port, channel.loss});
    std::erase(paths, std::string());
    return paths;
}

std::vector<std::string> idle_paths(const std::vector<channel_paths>& channels) {
    std::set<std::string> paths;
    for (const channel_paths& channel : channels) {
        for (const auto& [port, path] : channel.idle_attenuation)
            paths.insert(path);
    }
    return {paths.begin(), paths.end()};
}

std::vector<std::string> each_path(const std::vector<channel_paths>& channels,
                                   std::string channel_paths::*which) {
    std::vector<std::string> paths;
    paths.reserve(channels.size());
    for (const channel_paths& channel : channels)
        paths.push_back(channel.*which);
    std::erase(paths, std::string());
    return paths;
}

// Keeps a board filled from the traffic manager and, where it can be reached,
// from the WSS handler.
class channel_source {
  public:
    channel_source(const arguments& given, const surroundings& around)
        : around_(around),
          board_(chosen_channels(given), now()),
          traffic_manager_(given.server, around.interrupt, event_handler()) {
        if (given.wss_edge)
            connect_wss_edge(*given.wss_edge);
    }

    const channel_board& board() const { return board_; }

    // Asks once. False where a value could not be read, which is reported.
    bool read() {
        require_channels();
        const bool followed = ask(traffic_manager_, "read", followed_paths(board_.paths()));
        const bool idle = ask(traffic_manager_, "read", idle_paths(board_.paths()));
        return read_attenuations(failures::reported) && followed && idle;
    }

    // The same, and from now on `follow` keeps the board up to date, but for
    // the idle attenuations, of which the traffic manager tells no changes.
    void subscribe() {
        require_channels();
        subscribe_to(traffic_manager_, followed_paths(board_.paths()));
        ask(traffic_manager_, "read", idle_paths(board_.paths()));
        read_attenuations(failures::reported);
        if (wss_edge_)
            subscribe_to(*wss_edge_, each_path(board_.paths(), &channel_paths::commanded));
    }

    void follow(std::chrono::nanoseconds real_time) {
        const auto end = handler_connection::clock::now() + real_time;
        if (wss_edge_)
            handler_connection::follow({&traffic_manager_, wss_edge_.get()}, end,
                                       around_.interrupt);
        else
            handler_connection::follow({&traffic_manager_}, end, around_.interrupt);
        read_attenuations(failures::shown);
    }

  private:
    // A picture that is refreshed shows a failure by the missing value alone.
    enum class failures { reported, shown };

    handler_connection::event_handler event_handler() {
        return [this](const json::value& event) { take_event(event); };
    }

    void connect_wss_edge(const endpoint& where) {
        try {
            wss_edge_ =
                std::make_unique<handler_connection>(where, around_.interrupt, event_handler());
        } catch (const connection_error&) {
            // The attenuations are not known then, and shown so.
        }
    }

    // A card of another kind has no channels at these paths.
    void require_channels() {
        const std::vector<std::string> first{board_.paths().front().wanted};
        call_with_paths(traffic_manager_, "read", first, [](std::size_t, const json::value& entry) {
            const json::value* error = json::find(entry, "error");
            const json::value* code = error != nullptr ? json::find(*error, "code") : nullptr;
            if (code != nullptr && code->IsInt() && code->GetInt() == dh_error_code::no_such_path)
                throw request_error{dh_error_code::no_such_path,
                                    "the server publishes no such channels: a card with two WSS "
                                    "ports wants --wss-port, one with one port does not"};
        });
    }

    // The WSS handler tells of changes of what it is commanded, not of what stands
    // then, nor of what its monitors see.
    bool read_attenuations(failures wanted) {
        if (!wss_edge_)
            return true;
        const bool attenuations =
            ask(*wss_edge_, "read", each_path(board_.paths(), &channel_paths::attenuation), wanted);
        return ask(*wss_edge_, "read", each_path(board_.paths(), &channel_paths::detected),
                   wanted) &&
               attenuations;
    }

    // The values come as events, the first of them too: a reply may be overtaken
    // by the event of a newer value.
    void subscribe_to(handler_connection& connection, const std::vector<std::string>& paths) {
        call_with_paths(connection, "subscribe", paths,
                        [&](std::size_t i, const json::value& entry) {
                            if (found(entry, "value") == nullptr)
                                report_failure(around_, paths[i], entry);
                        });
    }

    bool ask(handler_connection& connection, const char* method,
             const std::vector<std::string>& paths, failures wanted = failures::reported) {
        bool complete = true;
        call_with_paths(connection, method, paths, [&](std::size_t i, const json::value& entry) {
            const json::value* value = found(entry, "value");
            board_.take(paths[i], value != nullptr ? *value : no_value(), now());
            complete &= value != nullptr;
            if (value == nullptr && wanted == failures::reported)
                report_failure(around_, paths[i], entry);
        });
        return complete;
    }

    void take_event(const json::value& event) {
        const json::value* path = json::find(event, "path");
        if (path == nullptr || !path->IsString())
            return;
        const json::value* value = json::find(event, "value");
        board_.take({path->GetString(), path->GetStringLength()},
                    value != nullptr ? *value : no_value(), now());
    }

    const surroundings& around_;
    channel_board board_;
    handler_connection traffic_manager_;
    std::unique_ptr<handler_connection> wss_edge_;
};

// The channels that `--until` waits for: those that were named, or all with light.
std::vector<channel_readings> awaited(const arguments& given, const channel_board& board) {
    std::vector<channel_readings> channels = board.channels();
    if (given.operands.empty())
        std::erase_if(channels, [](const channel_readings& c) { return !c.light.value_or(false); });
    return channels;
}

bool has_arrived(const arguments& given, const channel_board& board,
                 const channel_readings& channel) {
    if (given.until == "settled")
        return board.settled(channel, now(), span(given.quiet));
    return given.until == name(channel.state());
}

bool all_have_arrived(const arguments& given, const channel_board& board) {
    const std::vector<channel_readings> channels = awaited(given, board);
    return !channels.empty() && std::ranges::all_of(channels, [&](const channel_readings& channel) {
        return has_arrived(given, board, channel);
    });
}

void report_late_channels(const arguments& given, const surroundings& around,
                          const channel_board& board) {
    const std::vector<channel_readings> channels = awaited(given, board);
    if (channels.empty())
        around.err << "tmctl: no channel has light\n";
    for (const channel_readings& channel : channels) {
        if (!has_arrived(given, board, channel))
            around.err << fmt::format(
                "tmctl: channel {} is not {} after {} s: {}, after {} corrections\n",
                channel.channel, given.until, given.time_limit, name(channel.state()),
                channel.progress.to_band + channel.progress.fine);
    }
}

void print(std::ostream& out, const std::vector<std::string>& lines) {
    for (const std::string& line : lines)
        out << line << '\n';
}

void print_channels(const arguments& given, const surroundings& around,
                    const channel_board& board) {
    if (!given.json)
        return print(around.out, table(board.channels()));
    for (const channel_readings& channel : board.channels())
        around.out << channel_json(channel) << '\n';
}

int show_once(const arguments& given, const surroundings& around) {
    channel_source source(given, around);
    const bool complete = source.read();
    print_channels(given, around, source.board());
    return complete ? exit_status::done : exit_status::failed;
}

// Follows the channels until they have arrived, or the time is over.
bool wait_for_channels(const arguments& given, channel_source& source, live_screen* screen) {
    constexpr std::chrono::milliseconds unseen_interval{100};
    const std::chrono::nanoseconds interval = screen ? span(given.interval) : unseen_interval;
    const program_time end = now() + span(given.time_limit);
    for (;;) {
        if (screen)
            screen->show(table(source.board().channels()));
        if (!given.until.empty() && all_have_arrived(given, source.board()))
            return true;
        if (!given.until.empty() && now() >= end)
            return false;
        source.follow(interval);
    }
}

int print_summary(const arguments& given, const surroundings& around, const channel_board& board) {
    const std::vector<std::string> lines = summary(awaited(given, board));
    if (given.summary_file.empty()) {
        print(around.out, lines);
        return exit_status::done;
    }
    std::ofstream file(given.summary_file);
    print(file, lines);
    file.close();
    if (file)
        return exit_status::done;
    around.err << "tmctl: cannot write " << printable(given.summary_file) << '\n';
    return exit_status::failed;
}

int show_until(const arguments& given, const surroundings& around) {
    channel_source source(given, around);
    source.subscribe();
    bool arrived = false;
    if (given.live) {
        live_screen screen(around);
        arrived = wait_for_channels(given, source, &screen);
    } else {
        arrived = wait_for_channels(given, source, nullptr);
        print_channels(given, around, source.board());
    }
    if (!arrived) {
        report_late_channels(given, around, source.board());
        return exit_status::failed;
    }
    if (given.until == "settled" && !given.json)
        return print_summary(given, around, source.board());
    return exit_status::done;
}

int show_live(const arguments& given, const surroundings& around) {
    try {
        return show_until(given, around);
    } catch (const interruption&) {
        if (given.until.empty())
            return exit_status::done;  // how it ends
        throw;
    }
}

}  // namespace

int channels(const arguments& given, const surroundings& around) {
    return given.live || !given.until.empty() ? show_live(given, around) : show_once(given, around);
}

}  // namespace tmctl
