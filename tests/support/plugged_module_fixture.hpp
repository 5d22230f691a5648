// A pluggable module's object over a handler made in the test, connected as the
// daemon connects it.
#pragma once

#include "mirror_fixture.hpp"
#include "scripted_handler.hpp"

#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace test {

// Mirrors the module's handler while it is connected, and tells the module.
template <class Module>
class module_connection final : public device_handler_connection_subscriber, public recorded_texts {
  public:
    explicit module_connection(std::shared_ptr<dh::util::proxy> proxy) : proxy_(std::move(proxy)) {}

    // An event that comes before the module is made waits for it.
    static std::shared_ptr<Module> make_module(const std::shared_ptr<module_connection>& self,
                                               unsigned index) {
        const std::lock_guard lock(self->mutex_);
        return self->module_ = Module::create(index, self->proxy_, self);
    }

    void connection_established_event(std::string) override {
        const std::lock_guard lock(mutex_);
        if (!module_)
            return;
        proxy_->subscribe_path(module_->client(), "");
        module_->on_connect();
        add("established");
    }
    void connection_lost_event(std::string) override {
        const std::lock_guard lock(mutex_);
        if (!module_)
            return;
        module_->on_disconnect();
        proxy_->unsubscribe_path(module_->client(), "");
        add("lost");
    }

    // From now on nothing is mirrored, and events find no module.
    void end() {
        const std::lock_guard lock(mutex_);
        if (module_)
            proxy_->unsubscribe_path(module_->client(), "");
        module_.reset();
    }

  private:
    const std::shared_ptr<dh::util::proxy> proxy_;
    std::mutex mutex_;
    std::shared_ptr<Module> module_;
};

template <class Module>
class plugged_module_fixture : public testing::Test {
  protected:
    // `root` is where the module's tree is mirrored, `log_channel` where it logs.
    plugged_module_fixture(std::string handler_path, std::string root, std::string log_channel)
        : handler_(handler_path), root_(std::move(root)), log_channel_(std::move(log_channel)) {}

    ~plugged_module_fixture() override {
        connection_->end();
        proxy_->clients.clear();
        module_.reset();
        let_deliveries_end();
    }

    void connect() {
        module_ = connection::make_module(connection_, 0);
        ASSERT_TRUE(events_become(1));
    }
    void lose_handler() {
        const std::size_t events = connection_->all().size();
        handler_.stop();
        ASSERT_TRUE(events_become(events + 1));
    }
    void return_handler() {
        const std::size_t events = connection_->all().size();
        handler_.start();
        ASSERT_TRUE(events_become(events + 1));
    }

    // What a read of the local path gives: the value as JSON text, "CODE MESSAGE", or "(none)".
    std::string local(const std::string& path) {
        if (!db_.contains(root_ + path))
            return "(none)";
        try {
            json::document out(rapidjson::kObjectType);
            db_.find_leaf_node(root_ + path)->get("value", out.GetAllocator(), out);
            return json::to_text(*json::find(out, "value"));
        } catch (const dh_error& error) {
            return std::to_string(error.code) + " " + error.message;
        }
    }
    bool becomes(const std::string& path, const std::string& expected) {
        const bool is_so = eventually([&] { return local(path) == expected; });
        EXPECT_EQ(local(path), expected) << path;
        return is_so;
    }

    // What the module itself has logged.
    std::vector<log_line> own_lines() const {
        std::vector<log_line> found;
        for (const log_line& line : log_.lines()) {
            if (line.channel == log_channel_)
                found.push_back(line);
        }
        return found;
    }

    // Returns when the events that the handler has sent so far are delivered. A
    // mirror that begins asks for the paths in their order, and for this one last.
    void let_events_come() {
        handler_.set("told_last", ++told_);
        ASSERT_TRUE(becomes("/told_last", std::to_string(told_)));
    }

    using connection = module_connection<Module>;

    log_capture log_;
    dh_db db_;
    std::mutex main_mutex_;
    std::shared_ptr<dh::util::proxy> proxy_ = std::make_shared<dh::util::proxy>(db_, &main_mutex_);
    scripted_handler handler_;
    const std::string root_;
    const std::string log_channel_;
    const std::shared_ptr<connection> connection_ = std::make_shared<connection>(proxy_);
    std::shared_ptr<Module> module_;

  private:
    bool events_become(std::size_t count) const {
        return eventually([&] { return connection_->all().size() == count; });
    }

    int told_ = 0;
};

}  // namespace test
