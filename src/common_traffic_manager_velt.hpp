// The card's own settings, kept over a restart in one text file,
// "/var/persistent/etc/traffic-manager.conf" under the root of the host.
//
// The file has one value a line: a key, one separator character and the value.
// A value that is new gets a TAB as its separator; a line that is there keeps
// its own. Lines of unknown keys are kept, in their order. A key that stands in
// several lines has the value of the first; writing and removing go over all.
//
// The file is rewritten in place: a loss of power during a write can lose it.
#pragma once

#include <mutex>
#include <string>

// All operations return 0 on success and -1 on failure, and may be called by
// any thread. A failure is logged, but for a read that finds no value: that is
// no fault. A file that is not there, or cannot be opened, is as an empty one;
// a write that cannot open it stores nothing and returns 0. None throws.
class traffic_manager {
  public:
    traffic_manager() = delete;

    // In the tables of names by channel, this many are those of port 0, each at
    // its channel's number; those of port 1 follow.
    static constexpr unsigned names_of_a_port = 98;

    enum class traffic_manager_main_values : unsigned {
        par_max_channels,                 // unsigned, of port 0
        par_eq_max_channels,              // unsigned, of port 1
        par_edfa_default_attenuation,     // float, dB
        par_express_default_attenuation,  // float, dB
        par_eq_default_attenuation,       // float, dB
        par_edfa_gain,                    // float, dB
        par_sfp_attenuation,              // float, dB
        MX47_combo_mode,                  // string, "enabled" or "disabled"
        par_ocmPowerOffset,               // float, dB
        traffic_manager_main_values_last,
    };

    enum class traffic_manager_wanted_power_values : unsigned {  // float, dBm
        par_wanted_power_0_ch,
        par_wanted_power_last_ch = names_of_a_port - 1,
        eq_par_wanted_power_0_ch = names_of_a_port,
        eq_par_wanted_power_last_ch = 2 * names_of_a_port - 1,
    };

    enum class traffic_manager_default_attenuation_values : unsigned {  // float, dB
        par_default_attenuation_0_ch,
        par_default_attenuation_last_ch = names_of_a_port - 1,
        eq_par_default_attenuation_0_ch = names_of_a_port,
        eq_par_default_attenuation_last_ch = 2 * names_of_a_port - 1,
    };

    enum class traffic_manager_port_mode_values : unsigned {  // string
        par_port_mode_0_ch,
        par_port_mode_last_ch = names_of_a_port - 1,
    };

    // Held by each operation for its whole length.
    static std::mutex tm_device_mutex;

    // Reads store through the second argument on success only.
    //
    // Numbers: blanks before the number and any text behind it are passed over.
    // A text that is no finite number of a float is a failure.

    static int read_fvalue_from_main_parameters_file(traffic_manager_main_values, float*);
    static int read_fvalue_from_wanted_power_parameters_file(traffic_manager_wanted_power_values,
                                                             float*);
    static int read_fvalue_from_channel_default_attenuation_file(
        traffic_manager_default_attenuation_values, float*);

    // Has the precision of a float. The fraction is dropped; a value that an
    // unsigned cannot hold becomes the nearest that it can.
    static int read_unsigned_from_main_parameters_file(traffic_manager_main_values, unsigned*);

    // The text as it stands behind the separator.
    static int read_string_value_from_port_mode_parameters_file(traffic_manager_port_mode_values,
                                                                std::string&);
    static int read_string_value_from_port_mode_parameters_file(traffic_manager_main_values,
                                                                std::string&);

    // Writes change every line of the key, or add one at the end.
    //
    // A float has six significant digits in a line that is added, and six
    // decimals in a line that is changed.

    static int write_fvalue_to_main_parameters_file(traffic_manager_main_values, float);
    static int write_unsigned_to_main_parameters_file(traffic_manager_main_values, unsigned);
    static int write_fvalue_to_wanted_power_parameters_file(traffic_manager_wanted_power_values,
                                                            float);
    static int write_fvalue_to_channel_default_attenuation_file(
        traffic_manager_default_attenuation_values, float);

    // The text, one line without a line end, is stored as it is.
    static int write_string_value_to_port_mode_parameters_file(traffic_manager_port_mode_values,
                                                               const std::string&);
    static int write_string_value_to_port_mode_parameters_file(traffic_manager_main_values,
                                                               const std::string&);

    // Removals drop every line of the key; without one they succeed as well.

    static int remove_value_from_main_parameters_file(traffic_manager_main_values);
    static int remove_value_from_wanted_power_parameters_file(traffic_manager_wanted_power_values);
    static int remove_value_from_channel_defaultAttenuation_parameters_file(
        traffic_manager_default_attenuation_values);
    static int remove_value_from_port_mode_parameters_file(traffic_manager_port_mode_values);
};
