#include "common_traffic_manager_velt.hpp"

#include "host.hpp"
#include "msg_log.hpp"
#include "saturated_unsigned.hpp"
#include "value_line.hpp"

#include <fmt/format.h>

#include <locale.h>
#include <stdlib.h>
#include <cerrno>
#include <cmath>
#include <cstdint>
#include <exception>
#include <filesystem>
#include <fstream>
#include <initializer_list>
#include <ios>
#include <stdexcept>
#include <string_view>
#include <system_error>
#include <vector>

std::mutex traffic_manager::tm_device_mutex;

namespace {

using main_values = traffic_manager::traffic_manager_main_values;
using wanted_power_values = traffic_manager::traffic_manager_wanted_power_values;
using default_attenuation_values = traffic_manager::traffic_manager_default_attenuation_values;
using port_mode_values = traffic_manager::traffic_manager_port_mode_values;

constexpr const char* log_channel = "tm_velt_common";
constexpr const char* file_path = "/var/persistent/etc/traffic-manager.conf";

// With a line for every key the file has some 25 kilobytes. One beyond this is
// not taken into the memory of a small board.
constexpr std::uintmax_t longest_file = std::uintmax_t{4} << 20;

// --- keys ---

using key_table = std::vector<std::string>;

void append_keys_by_channel(key_table& keys, std::string_view name) {
    for (unsigned channel = 0; channel < traffic_manager::names_of_a_port - 1; ++channel)
        keys.push_back(fmt::format("{}_{}_ch", name, channel));
    keys.push_back(fmt::format("{}_last_ch", name));
}

key_table keys_by_channel(std::initializer_list<std::string_view> name_of_each_port) {
    key_table keys;
    for (const std::string_view name : name_of_each_port)
        append_keys_by_channel(keys, name);
    return keys;
}

// The key of a number, empty for a number that has none.
std::string key_at(const key_table& keys, std::size_t index) {
    return index < keys.size() ? keys[index] : std::string();
}

// The tables are never destroyed: threads may use them until the process is gone.

std::string key_of(main_values name) {
    static const auto* const keys = new key_table{
        "par_max_channels",
        "par_eq_max_channels",
        "par_edfa_default_attenuation",
        "par_express_default_attenuation",
        "par_eq_default_attenuation",
        "par_edfa_gain",
        "par_sfp_attenuation",
        "MX47_combo_mode",
        "par_ocmPowerOffset",
        "traffic_manager_main_values_last",
    };
    return key_at(*keys, static_cast<std::size_t>(name));
}

std::string key_of(wanted_power_values name) {
    static const auto* const keys =
        new key_table(keys_by_channel({"par_wanted_power", "eq_par_wanted_power"}));
    return key_at(*keys, static_cast<std::size_t>(name));
}

std::string key_of(default_attenuation_values name) {
    static const auto* const keys =
        new key_table(keys_by_channel({"par_default_attenuation", "eq_par_default_attenuation"}));
    return key_at(*keys, static_cast<std::size_t>(name));
}

std::string key_of(port_mode_values name) {
    static const auto* const keys = new key_table(keys_by_channel({"par_port_mode"}));
    return key_at(*keys, static_cast<std::size_t>(name));
}

// --- values and their texts ---

// How a value is written, whatever the locale.
struct value_text {
    std::string in_log;
    std::string in_new_line;      // behind the separator
    std::string in_changed_line;  // behind the separator
};

value_text text_of(unsigned value) {
    return {fmt::format("{}", value), fmt::format(" {}", value), fmt::format(" {}", value)};
}

value_text text_of(float value) {
    return {fmt::format("{:g}", value), fmt::format(" {:g}", value), fmt::format(" {:f}", value)};
}

value_text text_of(const std::string& value) {
    return {value, value, value};
}

// The number that the text starts with, after blanks. Throws where there is
// none, or none that a float holds.
float as_float(const std::string& text) {
    static const locale_t plain = ::newlocale(LC_ALL_MASK, "C", nullptr);
    char* end = nullptr;
    errno = 0;
    const float number = ::strtof_l(text.c_str(), &end, plain);
    if (end == text.c_str())
        throw std::invalid_argument("no number");
    if (errno == ERANGE || !std::isfinite(number))
        throw std::out_of_range("no number of a float");
    return number;
}

unsigned as_unsigned(const std::string& text) {
    return saturated_unsigned(as_float(text));
}

// --- the file ---

// Empty where there is no file. Throws where it is too long.
std::string content_of_file() {
    const std::string path = host::path(file_path);
    std::error_code no_file;
    const std::uintmax_t size = std::filesystem::file_size(path, no_file);
    if (no_file)
        return {};
    if (size > longest_file) {
        MSG_LOG(log_channel, msg_log::warning)
            << "msg: Config file is too long to be used, " << size << " bytes: " << file_path;
        throw std::length_error("file too long");
    }
    std::string content(size, '\0');
    std::ifstream file(path, std::ios::binary);
    file.read(content.data(), static_cast<std::streamsize>(content.size()));
    content.resize(static_cast<std::size_t>(file.gcount()));
    return content;
}

void store_content(const std::string& content) {
    const std::string path = host::path(file_path);
    std::error_code ignored;
    if (std::filesystem::is_other(path, ignored))
        return;  // opening a pipe would wait for its other end
    std::ofstream file(path, std::ios::binary);
    file.write(content.data(), static_cast<std::streamsize>(content.size()));
}

// --- what the operations share ---

// Runs the work on the file with the mutex held. Whatever it throws is -1 and
// the line in the log.
template <class Work>
int with_file(const std::string& key, msg_log::severity_level severity, const std::string& failure,
              const Work& work) {
    try {
        const std::lock_guard lock(traffic_manager::tm_device_mutex);
        if (key.empty())
            throw std::out_of_range("no such key");
        return work();
    } catch (const std::exception&) {
        MSG_LOG(log_channel, severity) << failure;
        return -1;
    }
}

// The line that some operations write once the mutex is theirs.
void announce(const char* announcement, const std::string& key) {
    if (announcement != nullptr)
        MSG_LOG(log_channel, msg_log::detail) << announcement << key << " in file: " << file_path;
}

struct read_texts {
    const char* announcement;  // or null
    const char* failure;
};

// Hands the first line of the key, and the value in it, to `take`.
template <class Take>
int read_value(const std::string& key, const read_texts& texts, const Take& take) {
    return with_file(key, msg_log::progress, texts.failure + std::string(file_path), [&] {
        announce(texts.announcement, key);
        const std::string content = content_of_file();
        for (std::string_view rest = content; !rest.empty();) {
            const std::string_view line = take_line(rest);
            if (const auto found = match_value_line(line, key)) {
                take(line, std::string(found->value));
                return 0;
            }
        }
        return -1;
    });
}

void log_found(const value_text& value) {
    MSG_LOG(log_channel, msg_log::detail)
        << "msg: Found value: " << value.in_log << " in file: " << file_path;
}

int read_logged_float(const std::string& key, const read_texts& texts, float* value) {
    return read_value(key, texts, [&](std::string_view, const std::string& text) {
        *value = as_float(text);
        log_found(text_of(*value));
    });
}

int read_string(const std::string& key, const char* failure, std::string& value) {
    return read_value(key, {nullptr, failure}, [&](std::string_view line, const std::string& text) {
        value = text;
        MSG_LOG(log_channel, msg_log::detail)
            << "msg: line: " << line << ", req value name: " << key << ", value: (" << text << ")";
    });
}

// The content with each line of the key gone, and what `replace` appends in its place.
template <class Replace>
std::string without_lines(std::string_view content, std::string_view key, const Replace& replace) {
    std::string changed;
    changed.reserve(content.size() + key.size() + 32);
    while (!content.empty()) {
        const std::string_view line = take_line(content);
        if (const auto found = match_value_line(line, key))
            replace(changed, *found);
        else
            changed.append(line).append(1, '\n');
    }
    return changed;
}

struct write_texts {
    std::string failure;
    const char* announcement = nullptr;  // or null
    bool changes_are_logged = false;
};

int write_value(const std::string& key, const value_text& value, const write_texts& texts) {
    const auto log_change = [&](const char* change) {
        if (texts.changes_are_logged)
            MSG_LOG(log_channel, msg_log::detail)
                << "msg: " << change << " fvalue: " << key << ", value: " << value.in_log
                << " in local config file: " << file_path;
    };
    return with_file(key, msg_log::failure, texts.failure, [&] {
        announce(texts.announcement, key);
        bool is_there = false;
        std::string content = without_lines(content_of_file(), key,
                                            [&](std::string& changed, const value_line& line) {
                                                is_there = true;
                                                changed.append(line.key_and_separator)
                                                    .append(value.in_changed_line)
                                                    .append(1, '\n');
                                                log_change("Updating");
                                            });
        if (!is_there) {
            content.append(key).append(1, '\t').append(value.in_new_line).append(1, '\n');
            log_change("Adding");
        }
        store_content(content);
        return 0;
    });
}

std::string store_failure(const value_text& value, const std::string& name) {
    return fmt::format("msg: Unable to store wanted power value {} for {} in config file {}",
                       value.in_log, name, file_path);
}

// In the failure of a main value the name is that of the wanted power with the
// same number; who watches the log knows it so.
std::string main_store_failure(const value_text& value, main_values name) {
    return store_failure(value, key_of(static_cast<wanted_power_values>(name)));
}

int remove_value(const std::string& key) {
    const std::string failure = fmt::format(
        "msg: Unable to remove wanted power value  for {} in config file {}", key, file_path);
    return with_file(key, msg_log::failure, failure, [&] {
        store_content(
            without_lines(content_of_file(), key, [](std::string&, const value_line&) {}));
        return 0;
    });
}

}  // namespace

// --- reads ---

int traffic_manager::read_fvalue_from_main_parameters_file(traffic_manager_main_values name,
                                                           float* value) {
    msg_log::instance().init("", false);
    return read_value(key_of(name),
                      {nullptr, "msg: Reading fvalue failed from local config file: "},
                      [&](std::string_view, const std::string& text) { *value = as_float(text); });
}

int traffic_manager::read_unsigned_from_main_parameters_file(traffic_manager_main_values name,
                                                             unsigned* value) {
    return read_value(
        key_of(name),
        {"msg: Trying to read: ", "msg: No traffic manager are set from parameters file: "},
        [&](std::string_view, const std::string& text) {
            *value = as_unsigned(text);
            log_found(text_of(*value));
        });
}

int traffic_manager::read_fvalue_from_wanted_power_parameters_file(
    traffic_manager_wanted_power_values name, float* value) {
    return read_logged_float(key_of(name),
                             {"msg: Not updating ",
                              "msg: No wanted power settings are set, Unable to read value from "
                              "wanted power file: "},
                             value);
}

int traffic_manager::read_fvalue_from_channel_default_attenuation_file(
    traffic_manager_default_attenuation_values name, float* value) {
    return read_logged_float(key_of(name),
                             {"msg: Not updating: ",
                              "msg: No wanted power settings are set, unable to read value from "
                              "wanted power file: "},
                             value);
}

int traffic_manager::read_string_value_from_port_mode_parameters_file(
    traffic_manager_port_mode_values name, std::string& value) {
    return read_string(key_of(name), "msg: No port mode set: ", value);
}

int traffic_manager::read_string_value_from_port_mode_parameters_file(
    traffic_manager_main_values name, std::string& value) {
    return read_string(key_of(name), "msg: No value found in file: ", value);
}

// --- writes ---

int traffic_manager::write_fvalue_to_main_parameters_file(traffic_manager_main_values name,
                                                          float value) {
    const value_text text = text_of(value);
    return write_value(key_of(name), text,
                       {.failure = main_store_failure(text, name), .changes_are_logged = true});
}

int traffic_manager::write_unsigned_to_main_parameters_file(traffic_manager_main_values name,
                                                            unsigned value) {
    const value_text text = text_of(value);
    return write_value(key_of(name), text, {.failure = main_store_failure(text, name)});
}

int traffic_manager::write_fvalue_to_wanted_power_parameters_file(
    traffic_manager_wanted_power_values name, float value) {
    const std::string key = key_of(name);
    const value_text text = text_of(value);
    return write_value(key, text, {.failure = store_failure(text, key)});
}

int traffic_manager::write_fvalue_to_channel_default_attenuation_file(
    traffic_manager_default_attenuation_values name, float value) {
    const std::string key = key_of(name);
    const value_text text = text_of(value);
    return write_value(
        key, text,
        {.failure = store_failure(text, key),
         .announcement = "write_fvalue_to_channel_default_attenuation_file, msg: Looking for: "});
}

int traffic_manager::write_string_value_to_port_mode_parameters_file(
    traffic_manager_port_mode_values name, const std::string& value) {
    const std::string key = key_of(name);
    const value_text text = text_of(value);
    return write_value(key, text, {.failure = store_failure(text, key)});
}

int traffic_manager::write_string_value_to_port_mode_parameters_file(
    traffic_manager_main_values name, const std::string& value) {
    const std::string key = key_of(name);
    return write_value(key, text_of(value),
                       {.failure = fmt::format("msg: Unable to store {} for {} in config file {}",
                                               value, key, file_path)});
}

// --- removals ---

int traffic_manager::remove_value_from_main_parameters_file(traffic_manager_main_values name) {
    return remove_value(key_of(name));
}

int traffic_manager::remove_value_from_wanted_power_parameters_file(
    traffic_manager_wanted_power_values name) {
    return remove_value(key_of(name));
}

int traffic_manager::remove_value_from_channel_defaultAttenuation_parameters_file(
    traffic_manager_default_attenuation_values name) {
    return remove_value(key_of(name));
}

int traffic_manager::remove_value_from_port_mode_parameters_file(
    traffic_manager_port_mode_values name) {
    return remove_value(key_of(name));
}
