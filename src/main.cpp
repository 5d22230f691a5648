#include "device_handler_api.hpp"
#include "host.hpp"
#include "msg_log.hpp"
#include "terminate_log.hpp"
#include "traffic_manager_velt.hpp"

#include <boost/program_options.hpp>

#include <malloc.h>
#include <iostream>
#include <memory>
#include <optional>
#include <string>

namespace {

namespace po = boost::program_options;

struct settings {
    std::string interface_name;
    unsigned port;
};

void require_port_number(int port) {
    if (port < 0 || port > 65535)
        throw po::validation_error(po::validation_error::invalid_option_value, "port");
}

po::options_description available_options() {
    po::options_description options("Available options");
    auto add = options.add_options();
    add("help", "Print help message");
    add("interface_name,i", po::value<std::string>()->default_value("eth_sfp_2"),
        "name of the osc ethernet interface (default value: eth_sfp_2)");
    add("port,p", po::value<int>()->default_value(5100)->notifier(require_port_number),
        "listening socket port number (default value: 5100)");
    return options;
}

// Empty where the command line asks for the help, or is wrong.
std::optional<settings> read_command_line(int argc, char* argv[],
                                          const po::options_description& options) {
    try {
        po::variables_map values;
        po::store(po::parse_command_line(argc, argv, options), values);
        po::notify(values);
        if (values.count("help") != 0)
            return std::nullopt;
        return settings{values["interface_name"].as<std::string>(),
                        static_cast<unsigned>(values["port"].as<int>())};
    } catch (...) {
        return std::nullopt;
    }
}

// The board's memory is small and the daemon's threads are many but idle: two
// heaps serve them all.
void limit_heaps() {
    mallopt(M_ARENA_MAX, 2);
}

[[noreturn]] void serve(const settings& configured) {
    const auto server = std::make_shared<device_handler_api>("/tmp/device_managers/traffic_manager",
                                                             configured.port, false);
    const auto manager = std::make_shared<traffic_manager_velt>(server->db());
    manager->start();
    MSG_LOG("tm_velt_init", msg_log::progress)
        << "msg: Traffic manager initialized for VELT listening on port " << configured.port << ".";
    server->start_ipv6_socket(configured.interface_name);
    server->start_ipv6_socket("eth0");
    server->start();
    // Threads are still running: nothing that they use may be destroyed.
    host::end_process(0);
}

}  // namespace

int main(int argc, char* argv[]) {
    limit_heaps();
    msg_log::instance().init("", false);
    log_terminating_exception();
    const po::options_description options = available_options();
    const std::optional<settings> configured = read_command_line(argc, argv, options);
    if (!configured) {
        std::cout << options << '\n';
        return 1;
    }
    serve(*configured);
}
