// Servers and clients over IPv6, on the loopback interface.
#include "device_handler_api.hpp"
#include "device_handler_client.hpp"
#include "eventually.hpp"
#include "free_port.hpp"
#include "log_capture.hpp"
#include "status_value.hpp"
#include "test_root.hpp"

#include <gtest/gtest.h>

#include <memory>

namespace {

class Ipv6 : public testing::Test {
  protected:
    void serve() {
        server_ = std::make_unique<dh_server>("other card", test::root() + "/ipv6");
        dh::api::status_value<float>::create(server_->db(), "data/txPower", 17.5F, 0);
        server_->listen_on_interface("lo", port_);
    }

    std::shared_ptr<device_handler_ipv6_client> connect(const std::string& address = "::1",
                                                        const std::string& interface = "") const {
        return device_handler_ipv6_client::create(nullptr, interface, address, port_, "other", {});
    }

    int code_of_failed_connection(const std::string& address = "::1",
                                  const std::string& interface = "") const {
        try {
            connect(address, interface);
        } catch (const dh_client_exception& error) {
            return error.code;
        }
        return 0;
    }

    const unsigned port_ = test::free_port();
    std::unique_ptr<dh_server> server_;
};

TEST_F(Ipv6, ClientIsConnectedWhenItIsMade) {
    serve();
    const auto client = connect();
    EXPECT_TRUE(client->is_connected());
    EXPECT_EQ(client->get<float>("data/txPower"), 17.5F);
}

TEST_F(Ipv6, ScopeOfTheAddressIsTheInterface) {
    serve();
    EXPECT_EQ(connect("::1", "lo")->get<float>("data/txPower"), 17.5F);
}

TEST_F(Ipv6, ClientThatNobodyAnswersIsNotMade) {
    EXPECT_EQ(code_of_failed_connection(), dh_client_code::not_connected);
}

TEST_F(Ipv6, ClientOfSomethingThatIsNoAddressIsNotMade) {
    serve();
    EXPECT_EQ(code_of_failed_connection("next door"), dh_client_code::not_connected);
}

TEST_F(Ipv6, ClientOnAnInterfaceThatIsNotThereIsNotMade) {
    serve();
    EXPECT_EQ(code_of_failed_connection("::1", "no_such_if"), dh_client_code::not_connected);
}

TEST_F(Ipv6, ConnectionThatBreaksFailsReadsAtOnceAndIsTriedAgain) {
    serve();
    const auto client = connect();
    server_.reset();
    ASSERT_TRUE(test::eventually([&] { return !client->is_connected(); }));
    EXPECT_THROW(client->get<float>("data/txPower"), dh_client_exception);
    serve();
    ASSERT_TRUE(test::eventually([&] { return client->is_connected(); }));
    EXPECT_EQ(client->get<float>("data/txPower"), 17.5F);
}

TEST_F(Ipv6, ServerReportsAnInterfaceThatIsNotThereOnce) {
    const test::log_capture log;
    serve();
    server_->listen_on_interface("no_such_if", port_);
    const auto texts = log.texts(3);
    ASSERT_EQ(texts.size(), 1U);
    EXPECT_TRUE(texts.front().starts_with("msg: Unable to listen on interface no_such_if, port "));
}

}  // namespace
