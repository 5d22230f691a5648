// Serves the device handlers of one simulated card until SIGTERM or SIGINT.

#include "card.hpp"
#include "host.hpp"
#include "msg_log.hpp"

#include <boost/program_options.hpp>

#include <csignal>
#include <cstdint>
#include <exception>
#include <iostream>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>

namespace {

namespace options = boost::program_options;

constexpr int status_failed = 1;
constexpr int status_bad_usage = 2;

struct command_line {
    bool help = false;
    std::string card;
    std::string scenario_file;
    std::string root;
    std::string interface;
    std::optional<std::string> fed_by;
    std::optional<std::string> line_to;
    std::uint64_t seed = 1;
};

options::options_description describe(command_line& into) {
    options::options_description described("card_simulator --card t47|mx47|k47 [options]");
    auto add = described.add_options();
    add("help", options::bool_switch(&into.help), "print this text");
    add("card", options::value(&into.card), "the card to simulate: t47, mx47 or k47");
    add("scenario", options::value(&into.scenario_file),
        "JSON file of what happens to the light, the line, the handlers and the modules");
    add("root", options::value(&into.root)->default_value(host::environment("VELT_ROOT", "")),
        "prefix of all paths");
    add("ipv6", options::value(&into.interface),
        "interface on which a neighbour card reaches the booster and the system information");
    add("fed-by", options::value<std::string>()->notifier([&into](const std::string& root) {
        into.fed_by = root;
    }),
        "of a k47: root, below VELT_ROOT, of the mx47 whose EQ port feeds the booster");
    add("line-to", options::value<std::string>()->notifier([&into](const std::string& root) {
        into.line_to = root;
    }),
        "root, below VELT_ROOT, of the simulated card at the far end of the line");
    add("seed", options::value(&into.seed)->default_value(into.seed),
        "of launch powers, ripple and noise");
    return described;
}

const simulator::card_kind& require_card(const std::string& card) {
    if (card.empty())
        throw std::invalid_argument("--card is missing");
    if (const auto* const kind = simulator::find_card_kind(card))
        return *kind;
    throw std::invalid_argument("there is no card " + card + "; t47, mx47 and k47 are simulated");
}

// Blocked for all threads that are started from now on.
sigset_t block_termination() {
    sigset_t termination;
    sigemptyset(&termination);
    sigaddset(&termination, SIGTERM);
    sigaddset(&termination, SIGINT);
    pthread_sigmask(SIG_BLOCK, &termination, nullptr);
    return termination;
}

void serve(const simulator::card_kind& kind, const command_line& arguments,
           simulator::scenario actions) {
    const sigset_t termination = block_termination();
    const simulator::card card(kind, {.root = arguments.root,
                                      .seed = arguments.seed,
                                      .actions = std::move(actions),
                                      .interface = arguments.interface,
                                      .fed_by = arguments.fed_by,
                                      .line_to = arguments.line_to});
    MSG_LOG("simulator", msg_log::progress)
        << "msg: Card " << arguments.card << " is served, root: \"" << arguments.root
        << "\", seed: " << arguments.seed;
    int signal = 0;
    sigwait(&termination, &signal);
}

}  // namespace

int main(int argc, char** argv) {
    command_line arguments;
    const simulator::card_kind* kind = nullptr;
    simulator::scenario actions;
    try {
        const auto described = describe(arguments);
        options::variables_map values;
        const options::positional_options_description no_other_words;
        options::store(options::command_line_parser(argc, argv)
                           .options(described)
                           .positional(no_other_words)
                           .run(),
                       values);
        options::notify(values);
        if (arguments.help) {
            std::cout << described;
            return 0;
        }
        kind = &require_card(arguments.card);
        if (arguments.fed_by && arguments.card != "k47")
            throw std::invalid_argument("--fed-by is for card k47");
        if (!arguments.scenario_file.empty())
            actions =
                simulator::load_scenario(arguments.scenario_file, simulator::handler_names(*kind));
        if (arguments.fed_by && !actions.on_plant.empty())
            throw std::invalid_argument(
                "light that is another card's knows no scenario of this one");
    } catch (const std::exception& error) {
        std::cerr << "card_simulator: " << error.what() << '\n';
        return status_bad_usage;
    }
    try {
        msg_log::instance().init("card_simulator", true);
        serve(*kind, arguments, std::move(actions));
    } catch (const std::exception& error) {
        std::cerr << "card_simulator: " << error.what() << '\n';
        return status_failed;
    }
    return 0;
}
