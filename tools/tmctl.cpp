#include "tmctl.hpp"

#include "arguments.hpp"
#include "channels_command.hpp"
#include "node_commands.hpp"
#include "otdr_command.hpp"
#include "panel_command.hpp"
#include "value_text.hpp"
#include "watch_command.hpp"

#include <map>

namespace tmctl {
namespace {

using command = int (*)(const arguments&, const surroundings&);

const std::map<std::string, command>& commands() {
    static const std::map<std::string, command> table{
        {"get", get},           {"set", set},   {"run", run_node},    {"watch", watch},
        {"ls", list},           {"info", info}, {"history", history}, {"version", version},
        {"channels", channels}, {"otdr", otdr}, {"panel", panel}};
    return table;
}

int parse_and_run(const std::vector<std::string>& words, const surroundings& around) {
    const arguments parsed = parse_arguments(words);
    if (parsed.help) {
        around.out << usage_text();
        return exit_status::done;
    }
    return commands().at(parsed.command)(parsed, around);
}

}  // namespace

int run(const std::vector<std::string>& words, const surroundings& around) {
    try {
        return parse_and_run(words, around);
    } catch (const usage_error& error) {
        around.err << "tmctl: " << error.text << '\n' << usage_text();
        return exit_status::usage;
    } catch (const connection_error& error) {
        around.err << "tmctl: " << printable(error.text) << '\n';
        return exit_status::not_connected;
    } catch (const request_error& error) {
        around.err << "tmctl: " << error.code << " " << printable(error.message) << '\n';
        return exit_status::failed;
    } catch (const interruption&) {
        return exit_status::interrupted;
    }
}

}  // namespace tmctl
