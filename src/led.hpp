// The front panel's LEDs.
#pragma once

#include "dh_proxy.hpp"

#include <atomic>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>

enum class led_value_t : unsigned { off = 0, green = 1, red = 2, yellow = 3 };

// The colour as the LED handler takes it; "unknown" for any other value.
std::string led_value_to_string(led_value_t);

// Shows on the front panel what booster and WSS edge are doing. A thread of its
// own asks them once a second and sets each LED of the card's variant, changed
// or not. It publishes nothing.
class led {
  public:
    // The thread sets the power and the status LED to green at once, for good.
    // For that it waits for the LED handler as long as a client does; a handler
    // that stays away for longer ends the process.
    static std::shared_ptr<led> create(const std::shared_ptr<dh::util::proxy>& proxy);

    led();
    // Takes until the thread's pause is over. The LEDs keep their colours.
    ~led();
    led(const led&) = delete;
    led& operator=(const led&) = delete;

    // Lets the thread look after the other LEDs. Called once, by who made this object.
    void start();

    // Each throws dh_client_exception: -14 for a colour that the LED does not
    // take, with nothing written, or what the write fails with. Any thread may call.
    void set_status_led(led_value_t);
    void set_power_led(led_value_t);
    void set_ocm_tx_led(led_value_t);
    void set_ocm_rx_led(led_value_t);
    void set_edfa_tx_led(led_value_t);
    void set_edfa_rx_led(led_value_t);
    void set_express_tx_led(led_value_t);
    void set_express_rx_led(led_value_t);

  private:
    struct channel_search;

    void led_thread_function();
    void manage_leds();
    void manage_k47_edfa_leds();
    void manage_k47_ocm_led();
    void manage_t47_edfa_leds();
    void manage_t47_ocm_led();
    void manage_t47_express_led();
    void manage_mx47_edfa_leds();
    void manage_mx47_ocm_led();
    void manage_mx47_eq_led();

    void show_booster_output();
    void show_total_power();
    bool finds_channel(const channel_search&);

    const std::shared_ptr<device_handler_client> wss_edge_;
    const std::shared_ptr<device_handler_client> booster_;
    const std::shared_ptr<device_handler_client> led_;
    std::mutex mutex_;                   // held by each pass
    std::unique_lock<std::mutex> gate_;  // and by this object, until it is started
    std::atomic<bool> running_{true};
    std::thread thread_;
};
