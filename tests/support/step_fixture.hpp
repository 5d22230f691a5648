// Steps of the regulation of one channel, over handlers made in the test.
#pragma once

#include "regulator_fixture.hpp"
#include "transcript.hpp"

#include <algorithm>
#include <string>
#include <vector>

namespace test {

// Channel 5 of the given port, whose wanted power is 3.0 dBm and whose
// calibration to the regulated point is 20.0 dB, on its port, without light.
class step_test : public regulator_test {
  protected:
    explicit step_test(const char* board = "velt,t47", unsigned port = 0)
        : regulator_test(board), paths_(paths_of(board, port)) {
        put_file("/mnt/board_info/calibration_data/cloop/cloop.conf", "cal_mon_to_boostertx 20\n");
        wss_edge_.set(paths_.wss_data + "5/port", std::string(board) == "velt,t47" ? "edfa" : "on");
        wss_edge_.set(ocm("/id"), 205);
        wss_edge_.set("data/ocm/1/totalPower", 0.0F);
        booster_.set("data/txPower", 20.0F);
        set_wss(10.0F);
        see_dark();
        start_regulator(port);
        regulator_->set_wanted_power(5, 3.0F);
        // The first step of all looks at the booster; that is not the channel's.
        regulator_->regulate_channel(48, wss_edge_client_);
        transcript_.follow("wss", wss_edge_);
        transcript_.follow("booster", booster_);
        transcript_.take();
    }
    ~step_test() override {
        wss_edge_.on_request(nullptr);
        booster_.on_request(nullptr);
    }

    // --- what the card shows ---

    // A peak of this power at the regulated point.
    void see_power(float power) { see_light(power - 20.0F); }
    void see_light(float raw, bool peak = true) {
        wss_edge_.set(ocm("/detected"), peak);
        wss_edge_.set(ocm("/powerLevel"), raw);
    }
    void see_dark(float raw = -60.0F) { see_light(raw, false); }
    // The attenuation that the WSS reports.
    void set_wss(float attenuation) {
        wss_edge_.set(paths_.wss_data + "5/attenuation", static_cast<double>(attenuation));
    }
    // ... and that the regulator takes over.
    void take_over(float attenuation) {
        set_wss(attenuation);
        regulator_->updateLastWssAtt_channel(5);
        transcript_.take();
    }
    // Lets the channel settle: its fine-tuning used up, its average full.
    void settle() {
        for (int i = 0; i < 9; ++i)
            step();
    }

    // --- what it does ---

    // One step; what it read, wrote and logged. The reading of the monitor and
    // of the port are under way at once: here the monitor's stands first.
    std::vector<std::string> step() {
        regulator_->regulate_channel(5, wss_edge_client_);
        std::vector<std::string> lines = transcript_.take();
        const auto port = std::find(lines.begin(), lines.end(), port_read());
        if (port != lines.end() && port + 1 != lines.end() && port[1] == monitor_read())
            std::iter_swap(port, port + 1);
        return lines;
    }
    // The same without the reading itself.
    std::vector<std::string> step_after_reading() {
        std::vector<std::string> lines = step();
        const auto monitor = std::find(lines.begin(), lines.end(), monitor_read());
        EXPECT_NE(monitor, lines.end());
        EXPECT_EQ(monitor[1], port_read());
        lines.erase(monitor, monitor + 2);
        return lines;
    }
    // Only what it wrote.
    std::vector<std::string> writes_of_a_step() {
        std::vector<std::string> lines = step();
        std::erase_if(lines, [](const std::string& line) {
            return line.find(" write ") == std::string::npos;
        });
        return lines;
    }
    // Only the log lines that begin so, with their severity.
    std::vector<std::string> lines_of_a_step(const std::string& beginning) {
        std::vector<std::string> lines = step();
        std::erase_if(lines, [&](const std::string& line) { return !line.starts_with(beginning); });
        return lines;
    }

    std::string ocm(const std::string& leaf) const { return paths_.ocm + "channel/5" + leaf; }
    std::string monitor_read() const {
        return "wss read " + ocm("/detected") + "," + ocm("/powerLevel") + "," + ocm("/id");
    }
    std::string port_read() const { return "wss read " + paths_.wss_data + "5/port"; }
    std::string attenuation_read() const { return "wss read " + paths_.wss_data + "5/attenuation"; }
    // The value as JSON.
    std::string write_of(const std::string& value) const {
        return "wss write " + paths_.wss_config + "5/attenuation=" + value;
    }

    struct path_prefixes {
        std::string wss_data;
        std::string wss_config;
        std::string ocm;
    };

    static path_prefixes paths_of(const std::string& board, unsigned port) {
        if (board == "velt,t47")
            return {"data/wss/channel/", "config/wss/channel/", "data/ocm/1/"};
        const std::string number = std::to_string(port + 1);
        return {"data/wss/" + number + "/channel/", "config/wss/" + number + "/channel/",
                "data/ocm/" + number + "/"};
    }

    const path_prefixes paths_;
    transcript transcript_;
};

}  // namespace test
