#include "host.hpp"

#include <unistd.h>
#include <array>
#include <atomic>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <system_error>

namespace host {
namespace {

using std::chrono::nanoseconds;

nanoseconds read_clock(clockid_t id) {
    timespec now{};
    clock_gettime(id, &now);
    return std::chrono::seconds(now.tv_sec) + nanoseconds(now.tv_nsec);
}

double scale_from_environment() {
    const char* text = std::getenv("VELT_TIME_SCALE");
    if (text == nullptr)
        return 1.0;
    char* end = nullptr;
    const double scale = std::strtod(text, &end);
    const bool usable = end != text && *end == '\0' && std::isfinite(scale) && scale > 0.0;
    return usable ? scale : 1.0;
}

nanoseconds scaled(nanoseconds span, double factor) {
    if (factor == 1.0)
        return span;
    return nanoseconds(static_cast<std::int64_t>(static_cast<double>(span.count()) * factor));
}

class scaled_time final : public time_source {
  public:
    nanoseconds wall() override { return wall_origin_ + elapsed(); }
    nanoseconds monotonic() override { return monotonic_origin_ + elapsed(); }

    void sleep(nanoseconds span) override {
        const nanoseconds real = to_real(span);
        if (real <= nanoseconds::zero())
            return;
        timespec left{};
        left.tv_sec = static_cast<time_t>(real.count() / 1'000'000'000);
        left.tv_nsec = static_cast<long>(real.count() % 1'000'000'000);
        while (nanosleep(&left, &left) != 0 && errno == EINTR) {
        }
    }

    nanoseconds to_real(nanoseconds span) const { return scaled(span, 1.0 / scale_); }

  private:
    nanoseconds elapsed() const {
        return scaled(read_clock(CLOCK_MONOTONIC) - monotonic_origin_, scale_);
    }

    const double scale_ = scale_from_environment();
    const nanoseconds wall_origin_ = read_clock(CLOCK_REALTIME);
    const nanoseconds monotonic_origin_ = read_clock(CLOCK_MONOTONIC);
};

scaled_time& process_time() {
    static auto* const time = new scaled_time;  // threads may sleep until the process is gone
    return *time;
}

// Touched before main, so that the origin is the start of the process.
const bool origin_taken = (process_time(), true);

std::atomic<time_source*> override_in_force{nullptr};

const std::string& root() {
    static const auto* const prefix = new std::string(environment("VELT_ROOT", ""));
    return *prefix;
}

}  // namespace

time_source& time() {
    time_source* const replaced = override_in_force.load(std::memory_order_acquire);
    return replaced != nullptr ? *replaced : process_time();
}

time_override::time_override(time_source& source)
    : previous_(override_in_force.exchange(&source, std::memory_order_acq_rel)) {}

time_override::~time_override() {
    override_in_force.store(previous_, std::memory_order_release);
}

std::int64_t wall_milliseconds() {
    return std::chrono::duration_cast<std::chrono::milliseconds>(time().wall()).count();
}

nanoseconds real_duration(nanoseconds program_duration) {
    return process_time().to_real(program_duration);
}

std::string path(std::string_view absolute) {
    return root() + std::string(absolute);
}

bool exists(std::string_view absolute) {
    std::error_code ignored;
    return std::filesystem::exists(path(absolute), ignored);
}

std::string environment(const char* name, std::string_view fallback) {
    const char* text = std::getenv(name);
    return std::string(text != nullptr ? std::string_view(text) : fallback);
}

std::string shell_word(const std::string& word) {
    constexpr std::string_view plain =
        "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789_-./:=@%+,";
    if (!word.empty() && word.find_first_not_of(plain) == std::string::npos)
        return word;
    std::string quoted = "'";
    for (const char c : word) {
        if (c == '\'')
            quoted += "'\\''";
        else
            quoted += c;
    }
    return quoted + "'";
}

int run_shell(const std::string& command_line) {
    return std::system(command_line.c_str());
}

shell_reader::shell_reader(const std::string& command_line)
    : output_(::popen(command_line.c_str(), "re")) {}

shell_reader::~shell_reader() {
    if (output_ != nullptr)
        ::pclose(output_);
}

std::string shell_reader::read_all() {
    constexpr std::size_t max_kept = std::size_t{64} << 10;
    std::string text;
    std::array<char, 128> piece{};
    while (output_ != nullptr && std::fgets(piece.data(), piece.size(), output_) != nullptr) {
        if (text.size() < max_kept)
            text += piece.data();
    }
    return text;
}

void end_process(int status) {
    std::fflush(nullptr);
    _exit(status);
}

}  // namespace host
