// One pass of the front panel on each variant of the card, dark and lit: how
// many round trips it makes, and how long it takes beside as many single reads.
#include "config_param.hpp"
#include "device_handler_api.hpp"
#include "dh_interposer.hpp"
#include "host.hpp"
#include "led.hpp"
#include "msg_log.hpp"
#include "support/measure.hpp"
#include "support/processes.hpp"
#include "support/served_values.hpp"

#include <sys/mman.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <mutex>
#include <new>
#include <string>
#include <string_view>
#include <vector>

namespace {

constexpr unsigned channels = 48;
constexpr std::size_t settling_passes = 10;
constexpr std::size_t rounds = 200;

// Shared with the process of the handlers.
class request_counter {
  public:
    request_counter()
        : count_(new (::mmap(nullptr, sizeof(std::atomic<std::size_t>), PROT_READ | PROT_WRITE,
                             MAP_SHARED | MAP_ANONYMOUS, -1, 0)) std::atomic<std::size_t>(0)) {}

    void add() { ++*count_; }
    std::size_t count() const { return *count_; }

  private:
    std::atomic<std::size_t>* count_ = nullptr;
};

class counting_interposer final : public dh_interposer {
  public:
    explicit counting_interposer(request_counter& counter) : counter_(counter) {}

    bool holds_output() const override { return false; }
    void before_service() override {}
    void before_request() override { counter_.add(); }
    void release() override {}
    void before_write(std::string_view) override {}
    bool replace_value(std::string_view, json::value&, json::allocator&) override { return false; }

  private:
    request_counter& counter_;
};

// The handlers of a card that the LEDs look at.
class lit_card {
  public:
    lit_card(const std::string& folder, request_counter& counter)
        : counting_(counter),
          booster_("booster", folder + "/booster", {}, &counting_),
          wss_("wss_edge", folder + "/wss_edge", {}, &counting_),
          leds_("led_velt", folder + "/led_velt", {}, &counting_),
          input_lost_(status<bool>::create(booster_.db(), "data/rx/losPin", true, 0)),
          total_power_(status<float>::create(wss_.db(), "data/ocm/2/totalPower", -60.0F, 0)) {
        lit_.push_back(status<bool>::create(booster_.db(), "data/enable", false, 0));
        for (unsigned channel = 1; channel <= channels; ++channel)
            serve_channel(std::to_string(channel), channel == 1 ? "edfa" : "express");
    }

    // What is written.
    void publish_settings(const std::shared_ptr<lit_card>& self) {
        kept_.push_back(
            dh::api::config_param<&lit_card::set_lit>::create(booster_.db(), "config/lit", self));
        for (const std::string led :
             {"powerLed", "statusLed", "ocmLed/txLed", "ocmLed/rxLed", "edfaLed/txLed",
              "edfaLed/rxLed", "expressLed/txLed", "expressLed/rxLed"})
            kept_.push_back(dh::api::config_param<&lit_card::set_colour>::create(
                leds_.db(), "config/" + led + "/status", self));
    }

    void set_lit(bool lit) {
        for (const auto& flag : lit_)
            flag->set(lit);
        input_lost_->set(!lit);
        total_power_->set(lit ? -10.0F : -60.0F);
    }
    void set_colour(std::string) {}

  private:
    template <class T>
    using status = dh::api::status_value<T>;

    void serve_channel(const std::string& number, const std::string& port) {
        for (const std::string each : {"1", "2"}) {
            lit_.push_back(status<bool>::create(
                wss_.db(), "data/ocm/" + each + "/channel/" + number + "/detected", false, 0));
            bench::serve_value(kept_, wss_.db(),
                               "data/wss/" + each + "/channel/" + number + "/port",
                               std::string("on"));
        }
        bench::serve_value(kept_, wss_.db(), "data/wss/channel/" + number + "/port", port);
    }

    counting_interposer counting_;
    dh_server booster_;
    dh_server wss_;
    dh_server leds_;
    const std::shared_ptr<status<bool>> input_lost_;
    const std::shared_ptr<status<float>> total_power_;
    std::vector<std::shared_ptr<status<bool>>> lit_;
    bench::nodes kept_;
};

void serve_handlers(const std::string& folder, request_counter& counter) {
    const auto card = std::make_shared<lit_card>(folder, counter);
    card->publish_settings(card);
    ::pause();
}

// Lets the LEDs' thread go pass by pass, and takes the time of each.
class pass_clock final : public host::time_source {
  public:
    std::chrono::nanoseconds wall() override {
        return std::chrono::system_clock::now().time_since_epoch();
    }
    std::chrono::nanoseconds monotonic() override {
        return std::chrono::steady_clock::now().time_since_epoch();
    }

    // A pass lies between two pauses.
    void sleep(std::chrono::nanoseconds) override {
        const auto end = std::chrono::steady_clock::now();
        std::unique_lock lock(mutex_);
        last_pass_ = bench::microseconds(end - begin_).count();
        is_resting_ = true;
        changed_.notify_all();
        changed_.wait(lock, [this] { return !is_resting_ || is_open_; });
        begin_ = std::chrono::steady_clock::now();
    }

    void await_rest() {
        std::unique_lock lock(mutex_);
        changed_.wait(lock, [this] { return is_resting_; });
    }
    double microseconds_of_pass() {
        {
            const std::lock_guard lock(mutex_);
            is_resting_ = false;
        }
        changed_.notify_all();
        await_rest();
        const std::lock_guard lock(mutex_);
        return last_pass_;
    }
    void open() {
        const std::lock_guard lock(mutex_);
        is_open_ = true;
        changed_.notify_all();
    }

  private:
    std::mutex mutex_;
    std::condition_variable changed_;
    bool is_resting_ = false;
    bool is_open_ = false;
    std::chrono::steady_clock::time_point begin_;
    double last_pass_ = 0.0;
};

void put_board(const std::string& root, const std::string& variant) {
    const std::filesystem::path file = root + "/proc/device-tree/compatible";
    std::filesystem::create_directories(file.parent_path());
    std::ofstream(file) << "velt," << variant << '\0';
}

void measure(const std::string& variant, bool lit, const request_counter& counter) {
    pass_clock clock;
    const host::time_override override_time(clock);
    const auto client = device_handler_client::create("/tmp/device_handlers/booster", "bench", {});
    client->set<void>("config/lit", lit);
    auto leds = led::create(nullptr);
    leds->start();
    clock.await_rest();
    for (std::size_t pass = 0; pass < settling_passes; ++pass)
        clock.microseconds_of_pass();
    const std::size_t before = counter.count();
    clock.microseconds_of_pass();
    const std::size_t round_trips = counter.count() - before;

    bench::comparison measured;
    for (std::size_t round = 0; round < rounds; ++round) {
        measured.limit.push_back(bench::microseconds_of([&] {
            for (std::size_t read = 0; read < round_trips; ++read)
                client->get<bool>("data/enable");
        }));
        measured.ours.push_back(clock.microseconds_of_pass());
    }
    bench::print_p50((lit ? "a pass of a lit " : "a pass of a dark ") + variant + ", " +
                         std::to_string(round_trips) + " trips",
                     measured, "at most 1.5");
    clock.open();
    leds.reset();
}

}  // namespace

int main() {
    bench::stay_on_core(0);
    const bench::scratch_folder folder;
    ::setenv("VELT_ROOT", folder.path().c_str(), 1);
    msg_log::instance().set_level(static_cast<msg_log::severity_level>(0));
    request_counter counter;
    const bench::child_process handlers(
        [&] { serve_handlers(folder.path() + "/tmp/device_handlers", counter); });

    bench::print_heading();
    for (const std::string variant : {"k47", "t47", "mx47"}) {
        put_board(folder.path(), variant);
        for (const bool lit : {false, true})
            measure(variant, lit, counter);
    }
    return 0;
}
