// What the daemon publishes, as tmctl lists it, against the trees that clients
// know and against the page that tells of them.
#include "daemon_fixture.hpp"
#include "expected_control_tree.hpp"
#include "json.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <fstream>
#include <map>
#include <optional>
#include <set>
#include <sstream>
#include <string>
#include <vector>

using test::exited_with;
using test::tree_description;

namespace {

// --- the page ---

struct page_row {
    std::string heading;  // of its section
    std::string path;     // with placeholders
    std::string kind;
    std::string type;
    std::vector<std::string> saved_names;
};

std::string trimmed(const std::string& text) {
    const std::size_t begin = text.find_first_not_of(' ');
    return begin == std::string::npos ? ""
                                      : text.substr(begin, text.find_last_not_of(' ') - begin + 1);
}

std::vector<std::string> parts(const std::string& text, char separator) {
    std::vector<std::string> found;
    std::istringstream in(text);
    for (std::string part; std::getline(in, part, separator);)
        found.push_back(trimmed(part));
    return found;
}

std::string without_quotes(const std::string& text) {
    return text.substr(1, text.size() - 2);
}

// The rows of all tables that tell of paths.
std::vector<page_row> page_rows() {
    std::vector<page_row> rows;
    std::ifstream page(VELT_PATHS_PAGE);
    std::string heading;
    for (std::string line; std::getline(page, line);) {
        if (line.starts_with("## "))
            heading = line.substr(3);
        if (!line.starts_with("| `"))
            continue;
        const auto cells = parts(line, '|');  // the first one is before the first bar
        if (cells.size() != 8) {
            ADD_FAILURE() << "a row of another form: " << line;
            continue;
        }
        page_row row{heading, without_quotes(cells[1]), cells[2], cells[3], {}};
        if (cells[7] != "-") {
            for (const std::string& name : parts(cells[7], ','))
                row.saved_names.push_back(without_quotes(name));
        }
        rows.push_back(row);
    }
    return rows;
}

std::vector<std::string> numbers(unsigned last) {
    std::vector<std::string> texts;
    for (unsigned number = 1; number <= last; ++number)
        texts.push_back(std::to_string(number));
    return texts;
}

using placeholders = std::map<std::string, std::vector<std::string>>;

std::vector<std::string> expanded(const std::string& path, const placeholders& meanings) {
    for (const auto& [name, values] : meanings) {
        const std::size_t found = path.find(name);
        if (found == std::string::npos)
            continue;
        std::vector<std::string> all;
        for (const std::string& value : values) {
            std::string one = path;
            for (const std::string& further :
                 expanded(one.replace(found, name.size(), value), meanings))
                all.push_back(further);
        }
        return all;
    }
    return {path};
}

// --- the daemon's description, in the words of the page ---

std::string kind_of(const std::string& node_type) {
    static const std::map<std::string, std::string> words{
        {"status value", "value"},          {"polled volatile value", "value"},
        {"volatile value", "live"},         {"config param", "setting"},
        {"pushed volatile value", "value"}, {"const value", "constant"}};
    const auto found = words.find(node_type);
    return found != words.end() ? found->second : node_type;
}

std::string type_of(const std::string& value_type) {
    if (value_type == test::text_type)
        return "text";
    return value_type.starts_with("rapidjson::GenericDocument<") ? "json" : value_type;
}

const std::vector<std::string> pluggable_modules{"ppm/1", "ppm/2", "interface/1", "interface/2"};

bool is_mirrored(const std::string& path) {
    std::vector<std::string> mirrors{"booster", "wss_edge", "osc/1", "osc/2"};
    mirrors.insert(mirrors.end(), pluggable_modules.begin(), pluggable_modules.end());
    const bool is_own = path == "wss_edge/config/ocm/2/monitorPortOffset" ||
                        path.starts_with("ppm/1/pm/") || path.starts_with("ppm/2/pm/");
    return !is_own && std::any_of(mirrors.begin(), mirrors.end(), [&](const std::string& mirror) {
        return path.starts_with(mirror + "/");
    });
}

using page_description = std::map<std::string, std::string>;  // "KIND, TYPE" by path

}  // namespace

class PublishedTree : public test::daemon_fixture {
  protected:
    void start_card(const std::string& board) {
        become_ready_t47();
        test::put_board("velt," + board);
        serve_pluggable_modules();
        start({}, "50");
        ASSERT_TRUE(eventually_logs("msg: Traffic manager initialized"));
    }

    void serve_pluggable_modules() {
        const std::vector<std::string> sockets{"ppm/0", "ppm/1", "sfp/0", "sfp/1"};
        for (std::size_t i = 0; i < modules_.size(); ++i) {
            modules_[i].emplace("/tmp/device_handlers/" + sockets[i]);
            modules_[i]->set("present", true);
        }
        modules_[3]->set("data/otdrSupport", true);
        oscs_[1]->set("data/linkStatus", "down");
        oscs_[1]->set("data/debug/state", "ready");
    }

    // As `tmctl ls --json` prints it.
    tree_description listed(const std::string& prefix = "") {
        test::process tmctl(VELT_BIN_DIR "/tmctl", {"ls", "--json", prefix}, surroundings(),
                            test::root());
        EXPECT_EQ(tmctl.end(), exited_with(0)) << tmctl.standard_error();
        tree_description tree;
        std::istringstream out(tmctl.standard_output());
        for (std::string line; std::getline(out, line);) {
            json::document node;
            node.Parse(line.data(), line.size());
            tree[test::text_at(node, "path")] = test::description_of(*json::find(node, "info"));
        }
        return tree;
    }

    static page_description described_by_page(const std::set<std::string>& headings,
                                              const std::vector<std::string>& handlers) {
        const placeholders meanings{{"{c}", numbers(48)}, {"{e}", numbers(49)},
                                    {"{h}", handlers},    {"{m}", numbers(5)},
                                    {"{p}", numbers(2)},  {"{s}", numbers(2)}};
        page_description description;
        for (const page_row& row : page_rows()) {
            if (!headings.contains(row.heading))
                continue;
            for (const std::string& path : expanded(row.path, meanings))
                EXPECT_TRUE(description.try_emplace(path, row.kind + ", " + row.type).second)
                    << path << " stands twice in the page";
        }
        return description;
    }

    page_description described_by_daemon() {
        page_description description;
        for (const auto& [path, node] : listed()) {
            if (!is_mirrored(path))
                description[path] = kind_of(node.kind) + ", " + type_of(node.type);
        }
        return description;
    }

    // Alarms of handlers come with their first connection.
    void expect_page_to_be_true(const std::set<std::string>& headings,
                                std::vector<std::string> handlers) {
        handlers.insert(handlers.end(), pluggable_modules.begin(), pluggable_modules.end());
        handlers.emplace_back("system info");
        const page_description page = described_by_page(headings, handlers);
        test::eventually([&] { return described_by_daemon() == page; });
        const page_description daemon = described_by_daemon();
        EXPECT_EQ(missing_of(daemon, page), "") << "published, but not in the page";
        EXPECT_EQ(missing_of(page, daemon), "") << "in the page, but not published";
    }

    // The lines of the one that the other does not have.
    static std::string missing_of(const page_description& wanted, const page_description& there) {
        std::string lines;
        for (const auto& [path, node] : wanted) {
            const auto found = there.find(path);
            if (found == there.end() || found->second != node)
                lines += path + ": " + node + "\n";
        }
        return lines;
    }

    std::array<std::optional<test::scripted_handler>, 4> modules_;
};

TEST_F(PublishedTree, OfATwoWayCardIsListedAsClientsKnowIt) {
    start_card("t47");
    EXPECT_EQ(listed("control"), test::expected_t47_tree());
}

TEST_F(PublishedTree, OfATwoPortCardIsListedAsClientsKnowIt) {
    start_card("mx47");
    EXPECT_EQ(listed("control"), test::expected_mx47_tree());
}

TEST_F(PublishedTree, OfATwoWayCardIsThatOfThePage) {
    start_card("t47");
    expect_page_to_be_true({"On every card", "On T47 and MX47 cards", "On a T47 card"},
                           {"booster", "wss_edge", "osc/1", "osc/2"});
}

TEST_F(PublishedTree, OfATwoPortCardIsThatOfThePage) {
    start_card("mx47");
    expect_page_to_be_true({"On every card", "On T47 and MX47 cards", "On an MX47 card"},
                           {"booster", "wss_edge", "osc/1", "osc/2"});
}

TEST_F(PublishedTree, OfAnAmplifierCardIsThatOfThePage) {
    start_card("k47");
    expect_page_to_be_true({"On every card"}, {"booster", "wss_edge", "osc/1", "osc/2"});
}

// Each setting of the page that has a name is written, and each of the names
// stands in the file then, and no other.
TEST_F(PublishedTree, SettingsThatThePageCallsSavedAreAndNoOthers) {
    for (const std::string card : {"t47", "mx47"}) {
        begin_with_empty_root();
        test::put_file("/var/persistent/etc/traffic-manager.conf", "");
        start_card(card);
        const auto management = management_client();
        const placeholders first_channel{{"{c}", {"1"}}, {"{p}", numbers(2)}};
        std::set<std::string> promised;
        for (const page_row& row : page_rows()) {
            const bool is_of_card =
                row.heading == "On T47 and MX47 cards" ||
                row.heading == (card == "t47" ? "On a T47 card" : "On an MX47 card");
            if (!is_of_card || row.kind != "setting")
                continue;
            for (const std::string& name : row.saved_names)
                promised.insert(expanded(name, first_channel).front());
            for (const std::string& path : expanded(row.path, first_channel)) {
                if (row.type == "bool")
                    management->set<void>(path, false);
                else if (row.type == "text")
                    management->set<void>(path, std::string("off"));
                else if (row.type == "float")
                    management->set<void>(path, 1.5F);
                else
                    management->set<void>(path, 12);
            }
        }
        std::set<std::string> saved;
        std::ifstream file(test::root() + "/var/persistent/etc/traffic-manager.conf");
        for (std::string line; std::getline(file, line);)
            saved.insert(line.substr(0, line.find('\t')));
        EXPECT_EQ(saved, promised) << card;
        EXPECT_FALSE(saved.empty());
    }
}
