// The daemon among handlers made in the test, as it saves settings and restores
// them at its next start.
#pragma once

#include "daemon_fixture.hpp"
#include "parameter_file.hpp"
#include "tree_access.hpp"

#include <map>
#include <memory>
#include <string>
#include <vector>

namespace test {

class saved_settings_card : public daemon_fixture {
  protected:
    saved_settings_card() {
        log_level_ = "7";
        put_file(parameter_file, "");
    }

    // Until the settings of the file are in force. At this scale the ticks of the
    // tree begin after that, so that they do not hold it up on a slow machine.
    void start_and_restore(const std::string& time_scale = "20") {
        start({}, time_scale);
        ASSERT_TRUE(eventually_logs("msg: All local configuration is done. ["));
        management_ = management_client();
    }

    void kill_and_restart() {
        process_->signal(SIGKILL);
        ASSERT_EQ(process_->end(), ended_by_signal(SIGKILL));
        start_and_restore();
    }

    // Every record of the restore, as "SEVERITY TEXT".
    std::vector<std::string> restore_log() const {
        std::vector<std::string> lines;
        std::istringstream log(process_->standard_error());
        const std::string channel = " tm_velt_update_config ";
        for (std::string line; std::getline(log, line);) {
            const auto found = line.find(channel);
            if (found == std::string::npos)
                continue;
            const auto text = found + channel.size();
            lines.push_back(line.substr(found - 1, 1) + " " +
                            line.substr(text, line.rfind(" [") - text));
        }
        return lines;
    }

    // Empty once each path reads as its JSON text; else what differs at the end.
    std::string difference_to(const std::map<std::string, std::string>& expected) {
        std::vector<std::string> paths;
        for (const auto& [path, text] : expected)
            paths.push_back(path);
        std::string different;
        eventually([&] {
            different.clear();
            for (const auto& [path, entry] : values_under(*management_, paths)) {
                const std::string wanted = R"({"value":)" + expected.at(path) + "}";
                if (entry != wanted)
                    different += path + ": " + entry + " instead of " + wanted + "\n";
            }
            return different.empty();
        });
        return different;
    }

    std::shared_ptr<device_handler_client> management_;
};

}  // namespace test
