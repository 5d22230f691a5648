// What a blocking read of another handler costs, beside bare sockets that carry
// the same bytes.
#include "device_handler_api.hpp"
#include "dh_proxy.hpp"
#include "support/measure.hpp"
#include "support/processes.hpp"

#include <string>
#include <vector>

namespace {

constexpr std::size_t rounds = 40;
constexpr std::size_t block = 500;
constexpr std::size_t outstanding = 16;

const std::string path = "data/wss/channel/17/attenuation";
const std::string request =
    R"({"jsonrpc":"2.0","id":123456,"method":"read","params":{"paths":[")" + path + "\"]}}\n";
const std::string reply =
    "{\"jsonrpc\":\"2.0\",\"id\":123456,\"result\":[{\"value\":7.300000190734863}]}\n";

void serve(const std::string& socket) {
    dh_server server("bench", socket);
    std::vector<std::shared_ptr<dh_db_leaf_node>> nodes;
    for (int channel = 17; channel < 20; ++channel)
        nodes.push_back(dh::api::status_value<float>::create(
            server.db(), "data/wss/channel/" + std::to_string(channel) + "/attenuation", 7.3F, 0));
    ::pause();
}

void read_three(device_handler_client& client) {
    device_handler_read_request three;
    auto first = three.add<float>(std::string_view("data/wss/channel/17/attenuation"));
    auto second = three.add<float>(std::string_view("data/wss/channel/18/attenuation"));
    auto third = three.add<float>(std::string_view("data/wss/channel/19/attenuation"));
    client.send_request(std::move(three));
    first.get();
    second.get();
    third.get();
}

void read_outstanding(device_handler_client& client) {
    std::vector<std::future<float>> values;
    values.reserve(outstanding);
    for (std::size_t i = 0; i < outstanding; ++i) {
        device_handler_read_request one;
        values.push_back(one.add<float>(std::string_view(path)));
        client.send_request(std::move(one));
    }
    for (auto& value : values)
        value.get();
}

}  // namespace

int main() {
    bench::stay_on_core(0);
    const bench::scratch_folder folder;
    const std::string socket = folder.path() + "/handler";
    const bench::bare_echo bare(reply);
    const bench::child_process handler([&] { serve(socket); });
    const auto client = device_handler_client::create(socket, "bench", {});
    client->get<float>(path);

    const auto one = [&] { client->get<float>(path); };
    bench::print_heading();
    bench::print_p50("get<float>, one outstanding",
                     bench::side_by_side(rounds, block, one, [&] { bare.round_trip(request); }),
                     "at most 1.25");
    bench::print_p50("a batch of three values beside one",
                     bench::side_by_side(
                         rounds, block, [&] { read_three(*client); }, one),
                     "at most 1.1");
    const auto many = bench::side_by_side(
        rounds, block / outstanding, [&] { read_outstanding(*client); },
        [&] { bare.round_trips(request, outstanding); });
    const auto per_second = [](double microseconds) {
        return static_cast<double>(outstanding) / microseconds * 1e6;
    };
    bench::print_ratio("get<float>, 16 outstanding, 1/s",
                       per_second(bench::percentile(many.ours, 0.5)),
                       per_second(bench::percentile(many.limit, 0.5)), "at least 0.6");
    return 0;
}
