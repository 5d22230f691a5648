#include "arguments.hpp"

#include "channel_board.hpp"
#include "host.hpp"
#include "json.hpp"
#include "value_text.hpp"

#include <arpa/inet.h>
#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>
#include <cstdlib>
#include <limits>
#include <set>
#include <string_view>

namespace tmctl {
namespace {

constexpr const char* server_socket = "/tmp/device_managers/traffic_manager";
constexpr const char* led_socket = "/tmp/device_handlers/led_velt";
constexpr const char* wss_edge_socket = "/tmp/device_handlers/wss_edge";
constexpr unsigned default_port = 5100;
constexpr unsigned highest_port = 65535;
constexpr std::size_t any = std::numeric_limits<std::size_t>::max();

struct command_form {
    std::string_view name;
    std::size_t fewest_operands;
    std::size_t most_operands;
    std::string_view options;  // beside the common ones, each between blanks
};

constexpr std::array command_forms{
    command_form{"get", 1, any, ""},
    command_form{"set", 2, any, " --string "},
    command_form{"run", 2, 2, " --string "},
    command_form{"watch", 1, any, " --tree "},
    command_form{"ls", 0, 1, ""},
    command_form{"info", 1, any, ""},
    command_form{"history", 0, 1, ""},
    command_form{"version", 0, 0, ""},
    command_form{"otdr", 0, 2, ""},
    command_form{
        "channels", 0, any,
        " --live --interval --until --quiet --time-limit --summary --wss-socket --wss-port "},
    command_form{"panel", 0, 0, " --live --interval "},
};

const command_form& form_of(const std::string& command) {
    const auto found =
        std::ranges::find_if(command_forms, [&](const auto& form) { return form.name == command; });
    if (found == command_forms.end())
        throw usage_error{"unknown command '" + printable(command) + "'"};
    return *found;
}

unsigned parse_wss_port(const std::string& word) {
    if (word != "1" && word != "2")
        throw usage_error{"--wss-port is 1 or 2"};
    return parse_number(word, 2);
}

double parse_seconds(const std::string& word) {
    char* end = nullptr;
    const double seconds = std::strtod(word.c_str(), &end);
    constexpr double shortest = 0.01;
    constexpr double longest = 1e6;
    if (end == word.c_str() || *end != '\0' || !(seconds >= shortest && seconds <= longest))
        throw usage_error{"not a time in seconds: '" + printable(word) + "'"};
    return seconds;
}

std::string parse_until(const std::string& word) {
    if (word != "settled" && !is_state_name(word))
        throw usage_error{"not a state of a channel: '" + printable(word) + "'"};
    return word;
}

std::string parse_host(const std::string& word) {
    in6_addr ignored{};
    if (inet_pton(AF_INET6, word.substr(0, word.find('%')).c_str(), &ignored) != 1)
        throw usage_error{"not an IPv6 address: '" + printable(word) + "'"};
    return word;
}

std::string socket_place(const std::string& path) {
    return path.starts_with('/') ? host::path(path) : path;
}

// Negative numbers are values, not options.
bool is_option(const std::string& word) {
    return word.size() > 1 && word[0] == '-' &&
           std::string_view("0123456789.").find(word[1]) == std::string_view::npos;
}

class parser {
  public:
    explicit parser(const std::vector<std::string>& words) : words_(words) {}

    arguments parse() {
        while (next_ < words_.size()) {
            const std::string& word = words_[next_++];
            if (!json::is_utf8(word))
                throw usage_error{"the command line holds text that is not UTF-8"};
            if (!only_operands_ && word == "--")
                only_operands_ = true;
            else if (!only_operands_ && is_option(word))
                take_option(word);
            else
                take_operand(word);
        }
        if (!found_.help)
            check();
        return std::move(found_);
    }

  private:
    void take_operand(const std::string& word) {
        if (found_.command.empty())
            found_.command = word;
        else
            found_.operands.push_back(word);
    }

    void take_option(const std::string& word) {
        options_.insert(word);
        if (word == "--help" || word == "-h")
            found_.help = true;
        else if (word == "--json")
            found_.json = true;
        else if (word == "--string")
            found_.plain_text = true;
        else if (word == "--tree")
            found_.tree = true;
        else if (word == "--live")
            found_.live = true;
        else
            take_option_with_value(word);
    }

    void take_option_with_value(const std::string& word) {
        if (word == "--socket")
            socket_ = value_of(word);
        else if (word == "--host")
            host_ = parse_host(value_of(word));
        else if (word == "--port")
            port_ = parse_number(value_of(word), highest_port);
        else if (word == "--wss-socket")
            wss_socket_ = value_of(word);
        else if (word == "--wss-port")
            found_.wss_port = parse_wss_port(value_of(word));
        else if (word == "--interval")
            found_.interval = parse_seconds(value_of(word));
        else if (word == "--until")
            found_.until = parse_until(value_of(word));
        else if (word == "--quiet")
            found_.quiet = parse_seconds(value_of(word));
        else if (word == "--summary")
            found_.summary_file = value_of(word);
        else if (word == "--time-limit")
            found_.time_limit = parse_seconds(value_of(word));
        else
            throw usage_error{"unknown option '" + printable(word) + "'"};
    }

    const std::string& value_of(const std::string& option) {
        if (next_ == words_.size() || !json::is_utf8(words_[next_]))
            throw usage_error{option + " needs a value"};
        return words_[next_++];
    }

    void check() {
        if (found_.command.empty())
            throw usage_error{"a command is needed"};
        const command_form& form = form_of(found_.command);
        check_options(form);
        check_operands(form);
        choose_endpoints();
    }

    void check_options(const command_form& form) const {
        constexpr std::string_view common = " --json --socket --host --port ";
        for (const std::string& option : options_) {
            const std::string word = " " + option + " ";
            if (common.find(word) == std::string_view::npos &&
                form.options.find(word) == std::string_view::npos)
                throw usage_error{option + " does not go with " + found_.command};
        }
        if (found_.live && found_.json)
            throw usage_error{"--live does not go with --json"};
        if (!socket_.empty() && !host_.empty())
            throw usage_error{"--socket does not go with --host"};
        if (found_.command == "panel" && !host_.empty())
            throw usage_error{"--host does not go with panel"};
        if (port_ && host_.empty())
            throw usage_error{"--port needs --host"};
    }

    void check_operands(const command_form& form) const {
        const std::size_t count = found_.operands.size();
        if (count < form.fewest_operands)
            throw usage_error{found_.command + " needs more words"};
        if (count > (found_.tree ? 1 : form.most_operands))
            throw usage_error{found_.command + " got too many words"};
        if (found_.command == "set" && count % 2 != 0)
            throw usage_error{"set needs a value for each path"};
    }

    void choose_endpoints() {
        if (!host_.empty()) {
            found_.server = {.host = host_, .port = port_.value_or(default_port)};
        } else {
            const std::string usual = found_.command == "panel" ? led_socket : server_socket;
            found_.server = {.socket = socket_place(socket_.empty() ? usual : socket_)};
            wss_socket_ = wss_socket_.empty() ? wss_edge_socket : wss_socket_;
        }
        if (!wss_socket_.empty())
            found_.wss_edge = endpoint{.socket = socket_place(wss_socket_)};
    }

    const std::vector<std::string>& words_;
    std::size_t next_ = 0;
    bool only_operands_ = false;
    arguments found_;
    std::set<std::string> options_;
    std::string socket_;
    std::string host_;
    std::string wss_socket_;
    std::optional<unsigned> port_;
};

}  // namespace

arguments parse_arguments(const std::vector<std::string>& words) {
    return parser(words).parse();
}

unsigned parse_number(const std::string& word, unsigned highest) {
    unsigned number = 0;
    const char* const end = word.data() + word.size();
    const auto [stop, error] = std::from_chars(word.data(), end, number);
    if (error != std::errc() || stop != end || number > highest)
        throw usage_error{"not a number of at most " + std::to_string(highest) + ": '" +
                          printable(word) + "'"};
    return number;
}

std::vector<unsigned> parse_channels(const std::vector<std::string>& words, unsigned highest) {
    std::set<unsigned> channels;
    for (const std::string& word : words) {
        const std::size_t dash = word.find('-');
        const unsigned first = parse_number(word.substr(0, dash), highest);
        const unsigned last =
            dash == std::string::npos ? first : parse_number(word.substr(dash + 1), highest);
        if (first < 1 || last < first)
            throw usage_error{"not a range of channels: '" + printable(word) + "'"};
        for (unsigned channel = first; channel <= last; ++channel)
            channels.insert(channel);
    }
    return {channels.begin(), channels.end()};
}

std::string usage_text() {
    return R"(usage: tmctl [OPTION...] COMMAND [WORD...]

commands
  get PATH...                  values
  set PATH VALUE [PATH VALUE...]
                               writes; a VALUE that is JSON is sent as that, else as text
  run PATH VALUE               a write that returns a response; waits for it up to 300 s
  watch PATH...                values as they change, until interrupted
  watch --tree PREFIX          nodes that come and go under the prefix
  ls [PREFIX]                  nodes with their kind and type
  info PATH...                 what is known of a node
  history [N]                  the last N changes (20), newest first
  version                      what the server is
  channels [N|N-M...]          the channels, with a bar for the way to the wanted power
  otdr                         the last measurements of the span's reflections
  otdr measure                 measures them, which may take minutes, and shows them
  otdr show N                  measurement N: a picture of the span and a table, ghosts
                               marked, with what has changed since the reference point
  otdr save N                  makes measurement N the reference point
  otdr delete N|ref            forgets measurement N, or the reference point
  panel                        the front panel with its LEDs

options
  --socket PATH                the server's unix socket
                               (/tmp/device_managers/traffic_manager; of panel that of the
                               LED handler, /tmp/device_handlers/led_velt)
  --host ADDR [--port N]       a server on another card: IPv6 address, with %SCOPE where
                               it is link-local; port 5100
  --json                       one JSON text a line, for programs
  --string                     set, run: VALUE is text, also where it looks like JSON
  --                           all that follows are words, no options

options of channels and panel
  --live                       keeps the picture up to date, until interrupted
  --interval SECONDS           pause between two pictures of --live (1)

options of channels
  --wss-port N                 of a card with two WSS ports: those of port 1 or 2
  --until WHAT                 waits until every channel that was named is WHAT: "settled",
                               or a state (blocked, untended, dark, parked, regulating,
                               fine); without names until every lit channel is. Then a
                               summary. Settled: within 0.7 dB, and no correction for long
  --quiet SECONDS              how long without a correction is settled (60)
  --time-limit SECONDS         gives up on --until with status 1 (3600)
  --summary FILE               where the summary of --until settled goes instead of
                               standard output
  --wss-socket PATH            the WSS handler's unix socket, for the attenuations
                               (/tmp/device_handlers/wss_edge)

The panel is coloured on a terminal, but where NO_COLOR is set. Absolute socket
paths are under VELT_ROOT. The times of --quiet and --time-limit run
VELT_TIME_SCALE times as fast.

exit status: 0; 1 something was refused or failed; 2 this usage; 3 not connected
)";
}

}  // namespace tmctl
