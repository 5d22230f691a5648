// One pass over 48 channels that have nothing to do, beside as many single
// reads: the two requests of a channel are under way at once.
#include "device_handler_api.hpp"
#include "Regulation_loop.hpp"
#include "support/measure.hpp"
#include "support/processes.hpp"
#include "support/served_values.hpp"

#include <cstdlib>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace {

constexpr unsigned channels = 48;
constexpr float raw_power = -16.0F;
constexpr float monitor_to_booster = 20.2F;  // what a board without calibration gets
constexpr std::size_t settling_passes = 20;
constexpr std::size_t rounds = 100;

void serve_handlers(const std::string& folder) {
    bench::nodes kept;
    dh_server booster("booster", folder + "/booster");
    bench::serve_value(kept, booster.db(), "data/txPower", monitor_to_booster);
    bench::serve_value(kept, booster.db(), "data/actualGain", 21.0F);
    dh_server wss("wss_edge", folder + "/wss_edge");
    bench::serve_value(kept, wss.db(), "data/ocm/1/totalPower", 0.0F);
    for (unsigned channel = 1; channel <= channels; ++channel) {
        const std::string number = std::to_string(channel);
        const std::string monitor = "data/ocm/1/channel/" + number;
        bench::serve_value(kept, wss.db(), monitor + "/detected", true);
        bench::serve_value(kept, wss.db(), monitor + "/powerLevel", raw_power);
        bench::serve_value(kept, wss.db(), monitor + "/id", static_cast<int>(channel));
        bench::serve_value(kept, wss.db(), "data/wss/channel/" + number + "/port",
                           std::string("edfa"));
        bench::serve_value(kept, wss.db(), "data/wss/channel/" + number + "/attenuation", 7.0);
    }
    ::pause();
}

void regulate_all(regulation_handler& regulator,
                  const std::shared_ptr<device_handler_client>& client) {
    for (unsigned channel = 1; channel <= channels; ++channel)
        regulator.regulate_channel(channel, client);
}

void read_all(device_handler_client& client) {
    for (unsigned channel = 1; channel <= channels; ++channel)
        client.get<float>("data/ocm/1/channel/" + std::to_string(channel) + "/powerLevel");
}

}  // namespace

int main() {
    bench::stay_on_core(0);
    const bench::scratch_folder folder;
    ::setenv("VELT_ROOT", folder.path().c_str(), 1);
    const bench::child_process handlers(
        [&] { serve_handlers(folder.path() + "/tmp/device_handlers"); });

    dh_db db;
    std::mutex main_mutex;
    const auto proxy = std::make_shared<dh::util::proxy>(db, &main_mutex);
    const auto client = device_handler_client::create("/tmp/device_handlers/wss_edge", "bench", {});
    msg_log::instance().set_level(static_cast<msg_log::severity_level>(0));
    const auto regulator = regulation_handler::create(proxy, client, 0);
    regulator->start();
    regulator->set_number_of_AllowedChannels(static_cast<int>(channels));
    for (unsigned channel = 1; channel <= channels; ++channel) {
        regulator->set_wanted_power(channel, raw_power + regulator->get_boosterTx());
        regulator->updateLastWssAtt_channel(channel);
    }
    for (std::size_t pass = 0; pass < settling_passes; ++pass)
        regulate_all(*regulator, client);

    bench::print_heading();
    bench::print_p50(
        "a pass over 48 quiet channels",
        bench::side_by_side(
            rounds, 4, [&] { regulate_all(*regulator, client); }, [&] { read_all(*client); }),
        "at most 1.5");
    return 0;
}
