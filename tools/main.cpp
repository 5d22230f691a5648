#include "tmctl.hpp"

#include "host.hpp"

#include <sys/ioctl.h>
#include <sys/signalfd.h>
#include <unistd.h>
#include <csignal>
#include <iostream>

namespace {

// A descriptor that becomes readable when the user, or the system, wants the
// program to stop; so that it can leave the terminal as it was.
int stop_signals() {
    sigset_t signals;
    sigemptyset(&signals);
    for (const int signal : {SIGINT, SIGTERM, SIGHUP, SIGQUIT})
        sigaddset(&signals, signal);
    sigprocmask(SIG_BLOCK, &signals, nullptr);
    return signalfd(-1, &signals, SFD_CLOEXEC);
}

tmctl::terminal_size size_of_terminal() {
    constexpr tmctl::terminal_size usual{24, 80};
    winsize size{};
    if (ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) != 0 || size.ws_row == 0 || size.ws_col == 0)
        return usual;
    return {size.ws_row, size.ws_col};
}

}  // namespace

int main(int argc, char** argv) {
    tmctl::surroundings around{.out = std::cout, .err = std::cerr, .interrupt = stop_signals()};
    if (isatty(STDOUT_FILENO) != 0) {
        around.terminal = size_of_terminal;
        around.has_colours = host::environment("NO_COLOR", "").empty();
    }
    const int status = tmctl::run({argv + 1, argv + argc}, around);
    std::cout.flush();
    if (std::cout)
        return status;
    std::cerr << "tmctl: the output cannot be written\n";
    return tmctl::exit_status::failed;
}
