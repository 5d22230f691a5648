// A tick of the whole control tree with nothing changed: what it allocates, and
// how long it takes. What a node's getter needs to read a device handler is
// counted apart from what the node adds to it.
#include "control_loop.hpp"
#include "device_handler_api.hpp"
#include "support/measure.hpp"
#include "support/processes.hpp"
#include "support/served_values.hpp"

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <new>
#include <string>
#include <vector>

namespace {

thread_local std::size_t allocations = 0;

}  // namespace

void* operator new(std::size_t size) {
    ++allocations;
    if (void* const memory = std::malloc(size))
        return memory;
    throw std::bad_alloc();
}
void operator delete(void* memory) noexcept {
    std::free(memory);
}
void operator delete(void* memory, std::size_t) noexcept {
    std::free(memory);
}

namespace {

constexpr unsigned channels = 48;
constexpr unsigned settling_ticks = 12;
constexpr std::size_t rounds = 50;

void serve_handlers(const std::string& folder) {
    bench::nodes kept;
    dh_server booster("booster", folder + "/booster");
    bench::serve_value(kept, booster.db(), "data/actualGain", 21.0F);
    dh_server wss("wss_edge", folder + "/wss_edge");
    for (unsigned channel = 1; channel <= channels; ++channel) {
        const std::string path = "data/wss/channel/" + std::to_string(channel);
        bench::serve_value(kept, wss.db(), path + "/port", std::string("edfa"));
        bench::serve_value(kept, wss.db(), path + "/attenuation", 7.0);
    }
    ::pause();
}

struct cost {
    std::size_t nodes = 0;
    std::size_t allocated_by_nodes = 0;
    std::size_t allocated_by_getters = 0;
    double microseconds = 0;
};

std::size_t allocations_of(const std::function<void()>& work) {
    const std::size_t before = allocations;
    work();
    return allocations - before;
}

// What the getter behind a channel's node allocates when called by itself.
std::size_t allocations_of_getter(const control_loop_main& loop, const std::string& leaf,
                                  unsigned channel) {
    if (leaf == "rxPower")
        return allocations_of([&] { loop.get_rxPower(0, channel); });
    if (leaf == "txPower")
        return allocations_of([&] { loop.get_txPower(0, channel); });
    if (leaf == "portMode")
        return allocations_of([&] { loop.get_port_mode(0, static_cast<int>(channel)); });
    if (leaf == "wantedPower")
        return allocations_of([&] { loop.get_wanted_power(0, channel); });
    return allocations_of([&] { loop.get_optical_ControlMode(0, channel); });
}

}  // namespace

int main() {
    bench::stay_on_core(0);
    const bench::scratch_folder folder;
    ::setenv("VELT_ROOT", folder.path().c_str(), 1);
    const bench::child_process handlers(
        [&] { serve_handlers(folder.path() + "/tmp/device_handlers"); });
    std::filesystem::create_directories(folder.path() + "/proc/device-tree");
    std::FILE* const board =
        std::fopen((folder.path() + "/proc/device-tree/compatible").c_str(), "w");
    std::fwrite("velt,t47", 1, sizeof "velt,t47", board);
    std::fclose(board);
    msg_log::instance().set_level(static_cast<msg_log::severity_level>(0));

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
    loop->set_maxChannels_nosave(0, 40);

    std::map<std::string, cost> costs;
    const auto tree = db.nodes_under("control/data");
    for (unsigned tick = 0; tick < settling_ticks; ++tick) {
        for (const auto& [path, node] : tree)
            node->periodic_task(false);
    }
    const std::size_t history_before = db.history(dh_db::history_length).size();
    for (const auto& [path, node] : tree) {
        if (!node->subscription_supported())
            continue;
        const auto [leaf, parent] = dh_db::split_path(path);
        const auto channel = static_cast<unsigned>(std::stoul(dh_db::split_path(parent).first));
        cost& sum = costs[leaf];
        ++sum.nodes;
        std::size_t allocated = 0;
        sum.microseconds += bench::microseconds_of([&, &ticked = node] {
            allocated = allocations_of([&] { ticked->periodic_task(false); });
        });
        sum.allocated_by_nodes += allocated;
        sum.allocated_by_getters += allocations_of_getter(*loop, leaf, channel);
    }
    const std::size_t sent = db.history(dh_db::history_length).size() - history_before;

    std::printf("%-20s %6s %20s %22s %10s\n", "nodes of a tick", "count", "allocations of all",
                "of their getters alone", "us");
    for (const auto& [leaf, sum] : costs)
        std::printf("%-20s %6zu %20zu %22zu %10.1f\n", leaf.c_str(), sum.nodes,
                    sum.allocated_by_nodes, sum.allocated_by_getters, sum.microseconds);
    std::printf("events sent: %zu (wanted 0)\n\n", sent);

    bench::print_heading();
    const auto measured = bench::side_by_side(
        rounds, 1,
        [&] {
            for (const auto& [path, node] : tree)
                node->periodic_task(false);
        },
        [&, wss = client("wss_edge")] {
            for (unsigned read = 0; read < 3 * channels; ++read)
                wss->get<double>("data/wss/channel/1/attenuation");
        });
    bench::print_p50("a tick beside its 144 reads of handlers", measured, "close to 1");
    return 0;
}
