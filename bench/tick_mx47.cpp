// A tick of the tree of a two-port card while both loops regulate, against
// handlers that answer at once: how long it takes, how many calls of handlers
// it makes, and what share of a core ticks and regulation take together.
#include "control_loop.hpp"
#include "device_handler_api.hpp"
#include "support/measure.hpp"
#include "support/processes.hpp"
#include "support/served_values.hpp"

#include <sys/mman.h>
#include <sys/resource.h>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <mutex>
#include <new>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

namespace {

constexpr unsigned channels = 48;
constexpr unsigned settling_ticks = 12;
constexpr std::size_t rounds = 30;
constexpr auto observed = std::chrono::seconds(20);

// Counts the requests of all handlers, seen by the parent process too.
class request_counter final : public dh_interposer {
  public:
    explicit request_counter(std::atomic<unsigned>& count) : count_(count) {}

    bool holds_output() const override { return false; }
    void before_service() override {}
    void before_request() override { ++count_; }
    void release() override {}
    void before_write(std::string_view) override {}
    bool replace_value(std::string_view, json::value&, json::allocator&) override { return false; }

  private:
    std::atomic<unsigned>& count_;
};

std::atomic<unsigned>& shared_count() {
    void* const memory = ::mmap(nullptr, sizeof(std::atomic<unsigned>), PROT_READ | PROT_WRITE,
                                MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (memory == MAP_FAILED)
        std::abort();
    return *new (memory) std::atomic<unsigned>(0);
}

void serve_handlers(const std::string& folder, std::atomic<unsigned>& requests) {
    request_counter counter(requests);
    bench::nodes kept;
    dh_server start("system_start", folder + "/system_start", {}, &counter);
    bench::serve_value(kept, start.db(), "data/systemColdstart", false);
    dh_server booster("booster", folder + "/booster", {}, &counter);
    bench::serve_value(kept, booster.db(), "data/actualGain", 21.0F);
    bench::serve_value(kept, booster.db(), "data/txPower", 15.0F);
    bench::serve_value(kept, booster.db(), "data/powerLimit", 20.0);
    bench::serve_value(kept, booster.db(), "data/enable", true);
    dh_server wss("wss_edge", folder + "/wss_edge", {}, &counter);
    bench::serve_value(kept, wss.db(), "data/configStatus", true);
    for (const std::string port : {"1", "2"}) {
        for (unsigned channel = 1; channel <= channels; ++channel) {
            const std::string number = std::to_string(channel);
            const std::string of_switch = "data/wss/" + port + "/channel/" + number;
            bench::serve_value(kept, wss.db(), of_switch + "/port", std::string("on"));
            bench::serve_value(kept, wss.db(), of_switch + "/attenuation", 7.0);
            const std::string of_monitor = "data/ocm/" + port + "/channel/" + number;
            bench::serve_value(kept, wss.db(), of_monitor + "/detected", true);
            bench::serve_value(kept, wss.db(), of_monitor + "/powerLevel", -20.0F);
            bench::serve_value(kept, wss.db(), of_monitor + "/id", static_cast<int>(channel));
        }
    }
    ::pause();
}

struct cost {
    unsigned nodes = 0;
    unsigned calls = 0;
    double microseconds = 0;
};

double processor_seconds() {
    rusage used{};
    ::getrusage(RUSAGE_SELF, &used);
    const auto seconds = [](const timeval& time) {
        return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) / 1e6;
    };
    return seconds(used.ru_utime) + seconds(used.ru_stime);
}

// The share of one core that the process takes while it goes on by itself.
double share_of_a_core() {
    const double before = processor_seconds();
    const double microseconds =
        bench::microseconds_of([] { std::this_thread::sleep_for(observed); });
    return (processor_seconds() - before) * 1e6 / microseconds;
}

void print_costs(const std::map<std::string, cost>& costs) {
    double total = 0.0;
    for (const auto& [leaf, sum] : costs)
        total += sum.microseconds;
    std::printf("%-20s %6s %18s %12s %8s\n", "nodes of a tick", "count", "calls of handlers", "us",
                "share");
    for (const auto& [leaf, sum] : costs)
        std::printf("%-20s %6u %18u %12.1f %7.1f%%\n", leaf.c_str(), sum.nodes, sum.calls,
                    sum.microseconds, 100.0 * sum.microseconds / total);
    std::printf("\n");
}

}  // namespace

int main() {
    const bench::scratch_folder folder;
    ::setenv("VELT_ROOT", folder.path().c_str(), 1);
    std::atomic<unsigned>& requests = shared_count();
    const bench::child_process handlers(
        [&] { serve_handlers(folder.path() + "/tmp/device_handlers", requests); });
    std::filesystem::create_directories(folder.path() + "/proc/device-tree");
    std::ofstream(folder.path() + "/proc/device-tree/compatible")
        << std::string("velt,mx47") + '\0';
    msg_log::instance().set_level(static_cast<msg_log::severity_level>(0));
    bench::stay_on_core(0);

    dh_db db;
    std::mutex main_mutex;
    const auto proxy = std::make_shared<dh::util::proxy>(db, &main_mutex);
    const auto client = [](const char* handler) {
        return device_handler_client::create(std::string("/tmp/device_handlers/") + handler,
                                             handler, {});
    };
    const auto loop =
        control_loop_main::create(proxy, nullptr, client("wss_edge"), client("booster"));
    loop->create_paths();
    loop->set_maxChannels_nosave(0, 48);
    loop->set_maxChannels_nosave(1, 48);

    std::vector<dh_db::entry> filtered;
    for (const auto& entry : db.nodes_under("control/data")) {
        if (entry.node->subscription_supported())
            filtered.push_back(entry);
    }
    const auto tick = [&] {
        for (const auto& entry : filtered)
            entry.node->periodic_task(false);
    };
    for (unsigned i = 0; i < settling_ticks; ++i)
        tick();

    std::map<std::string, cost> costs;
    const unsigned requests_before = requests;
    for (const auto& entry : filtered) {
        const std::string leaf = dh_db::split_path(entry.path).first;
        cost& sum = costs[leaf];
        ++sum.nodes;
        const unsigned before = requests;
        sum.microseconds += bench::microseconds_of([&] { entry.node->periodic_task(false); });
        sum.calls += requests - before;
    }
    const unsigned calls = requests - requests_before;
    print_costs(costs);

    const auto wss = client("wss_edge");
    wss->get<double>("data/wss/1/channel/1/attenuation");
    bench::print_heading();
    const auto measured = bench::side_by_side(rounds, 1, tick, [&] {
        for (unsigned call = 0; call < calls; ++call)
            wss->get<double>("data/wss/1/channel/1/attenuation");
    });
    bench::print_p50("a tick of " + std::to_string(filtered.size()) + " nodes beside its " +
                         std::to_string(calls) + " calls",
                     measured, "at most 1.2");

    std::printf("\n%-44s %9.2f%%\n", "share of a core, ticks alone", 100.0 * share_of_a_core());
    loop->set_configDone(true);
    std::this_thread::sleep_for(
        std::chrono::seconds(11));  // the poll thread waits for the WSS edge
    std::printf("%-44s %9.2f%%\n", "share of a core, ticks and both loops",
                100.0 * share_of_a_core());
    std::fflush(stdout);
    std::_Exit(0);  // the poll thread's cycle would be waited for
}
