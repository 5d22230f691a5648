// The fibre on the line side of a simulated card, as its handlers show it, and
// what the transceiver measures on it.
#include "card_fixture.hpp"
#include "eventually.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <future>
#include <string>
#include <vector>

namespace {

using test::eventually;
using testing::ElementsAre;
using testing::IsEmpty;

class SimulatedLine : public test::card_fixture {
  protected:
    SimulatedLine() { hands_->set<void>("sim/interface/2/otdr/measuringTime", 0.0F); }

    bool receives(float power) {
        return eventually([&] { return transceiver_->get<float>("data/rxPower") == power; });
    }
    bool link_is(const std::string& status) {
        return eventually([&] { return osc_->get<std::string>("data/linkStatus") == status; });
    }

    std::vector<int> measured() {
        EXPECT_TRUE(transceiver_->set<bool>("command/measureOtdr", true));
        std::vector<int> distances;
        const int count = transceiver_->get<int>("data/reflectionsDetected");
        for (int number = 1; number <= count; ++number)
            distances.push_back(transceiver_->get<int>(distance_path(number)));
        return distances;
    }
    static std::string distance_path(int number) {
        return "data/reflection/" + std::to_string(number) + "/distance";
    }

    std::string error_of_measurement() {
        try {
            transceiver_->set<bool>("command/measureOtdr", true);
        } catch (const dh_client_exception& error) {
            return std::to_string(error.code) + " " + error.message;
        }
        return {};
    }

    const std::shared_ptr<device_handler_client> hands_ = client_of("sim");
    const std::shared_ptr<device_handler_client> osc_ = client_of("osc2");
    const std::shared_ptr<device_handler_client> transceiver_ = client_of("sfp/1");
};

TEST_F(SimulatedLine, TransceiverReceivesWhatTheFarEndSendsLessTheSpan) {
    EXPECT_TRUE(receives(1.5F - 9.0F - 1.0F));
    hands_->set<void>("sim/line/farPower", 3.0F);
    EXPECT_TRUE(receives(3.0F - 9.0F - 1.0F));
    hands_->set<void>("sim/line/fibreLoss", 12.25F);
    EXPECT_TRUE(receives(3.0F - 12.25F - 1.0F));
    hands_->set<void>("sim/line/connectorLoss", 0.0F);
    EXPECT_TRUE(receives(3.0F - 12.25F));
    EXPECT_EQ(client_of("sfp/0")->get<float>("data/rxPower"), -8.5F);
}

TEST_F(SimulatedLine, LinkNeedsLight) {
    ASSERT_TRUE(link_is("up"));
    hands_->set<void>("sim/line/intact", false);
    EXPECT_TRUE(link_is("down"));
    EXPECT_TRUE(receives(-40.0F));
    hands_->set<void>("sim/line/intact", true);
    EXPECT_TRUE(link_is("up"));
    hands_->set<void>("sim/line/fibreLoss", 36.5F);  // arrives with -36 dBm
    EXPECT_TRUE(link_is("down"));
    hands_->set<void>("sim/line/fibreLoss", 36.25F);
    EXPECT_TRUE(link_is("up"));
    hands_->set<void>("sim/interface/2/present", false);
    EXPECT_TRUE(link_is("down"));
    EXPECT_EQ(hands_->get<float>("sim/line/sentPower"), -99.0F);
    EXPECT_EQ(client_of("osc1")->get<std::string>("data/linkStatus"), "up");
}

TEST_F(SimulatedLine, LinkThatIsToldToBeDownIsDownInAnyLight) {
    hands_->set<void>("sim/osc/2/linkStatus", std::string("down"));
    EXPECT_TRUE(link_is("down"));
    hands_->set<void>("sim/line/intact", false);
    hands_->set<void>("sim/line/intact", true);
    EXPECT_TRUE(link_is("down"));
}

TEST_F(SimulatedLine, FarEndThatIsNotSimulatedSendsNothing) {
    card.reset();
    serve({.root = test::root(), .actions = {}, .line_to = "/nobody"});
    EXPECT_TRUE(eventually([] {
        return client_of("osc2")->get<std::string>("data/linkStatus") == "down" &&
               client_of("sfp/1")->get<float>("data/rxPower") == -40.0F;
    }));
}

TEST_F(SimulatedLine, ValuesThatNoLineHasAreRefused) {
    EXPECT_EQ(code_of_write(*hands_, "sim/line/fibreLoss", -1.0F), -22);
    EXPECT_EQ(code_of_write(*hands_, "sim/line/connectorLoss", 61.0F), -22);
    EXPECT_EQ(code_of_write(*hands_, "sim/line/farPower", 21.0F), -22);
    EXPECT_EQ(code_of_write(*hands_, "sim/line/cutDistance", -1.0F), -22);
    EXPECT_EQ(code_of_write(*hands_, "sim/line/reflectors", std::string("near")), -22);
    EXPECT_EQ(code_of_write(*hands_, "sim/interface/2/otdr/measuringTime", -1.0F), -22);
}

TEST_F(SimulatedLine, MeasurementShowsWhatReflectsUpToTheEndOfTheFibre) {
    EXPECT_THAT(measured(), ElementsAre(400, 5200, 12'100, 20'000));
    hands_->set<void>("sim/osc/2/length", 10.0F);
    EXPECT_THAT(measured(), ElementsAre(400, 5200, 10'000));
    hands_->set<void>("sim/line/reflectors", std::string("1000:-20 4000:-20"));
    EXPECT_THAT(measured(), ElementsAre(1000, 4000, 7000, 10'000));
}

TEST_F(SimulatedLine, MeasurementOfACutFibreShowsTheCut) {
    hands_->set<void>("sim/line/cutDistance", 7500.0F);
    hands_->set<void>("sim/line/intact", false);
    EXPECT_THAT(measured(), ElementsAre(400, 5200, 7500));
}

TEST_F(SimulatedLine, ReflectionsThatWereNotDetectedHaveNoDistance) {
    ASSERT_THAT(measured(), testing::SizeIs(4));
    EXPECT_EQ(code_of_read(*transceiver_, distance_path(5)), -61);
    EXPECT_EQ(code_of_read(*transceiver_, distance_path(64)), -61);
    EXPECT_EQ(code_of_read(*transceiver_, distance_path(65)), -2);
}

TEST_F(SimulatedLine, MeasurementThatFailsLeavesTheOneBefore) {
    ASSERT_THAT(measured(), testing::SizeIs(4));
    hands_->set<void>("sim/line/reflectors", std::string());
    hands_->set<void>("sim/interface/2/otdr/failing", true);
    EXPECT_EQ(error_of_measurement(), "-5 the measurement failed");
    EXPECT_EQ(transceiver_->get<int>("data/reflectionsDetected"), 4);
    hands_->set<void>("sim/interface/2/otdr/failing", false);
    EXPECT_THAT(measured(), ElementsAre(20'000));
}

TEST_F(SimulatedLine, TransceiverThatIsPulledDuringAMeasurementFailsIt) {
    hands_->set<void>("sim/interface/2/otdr/measuringTime", 300.0F);
    auto failure = std::async(std::launch::async, [this] { return error_of_measurement(); });
    EXPECT_EQ(failure.wait_for(std::chrono::milliseconds(50)), std::future_status::timeout);
    hands_->set<void>("sim/interface/2/present", false);
    EXPECT_EQ(failure.get(), "-5 there is no transceiver that measures reflections");
    EXPECT_EQ(transceiver_->get<int>("data/reflectionsDetected"), 0);
}

TEST_F(SimulatedLine, TransceiverWithoutTheGiftDoesNotMeasure) {
    hands_->set<void>("sim/interface/2/otdrSupport", false);
    EXPECT_EQ(error_of_measurement(), "-5 there is no transceiver that measures reflections");
}

TEST_F(SimulatedLine, PortWithoutAFibreHasNoReflections) {
    hands_->set<void>("sim/interface/1/otdr/measuringTime", 0.0F);
    const auto other = client_of("sfp/0");
    EXPECT_TRUE(other->set<bool>("command/measureOtdr", true));
    EXPECT_EQ(other->get<int>("data/reflectionsDetected"), 0);
}

TEST_F(SimulatedLine, ScenarioCutsItRepairsItAndPutsConnectorsIn) {
    const auto actions = simulator::parse_scenario(
        R"({"actions": [{"time": 0, "action": "set_reflectors", "reflectors": "100:-50 200:-30"},
                        {"time": 0, "action": "set_line_loss", "loss": 3},
                        {"time": 0, "action": "cut_line", "distance": 150}]})",
        {});
    card.reset();
    serve({.root = test::root(), .actions = actions});
    ASSERT_TRUE(eventually([this] {
        return hands_->is_connected() && osc_->is_connected() && transceiver_->is_connected();
    }));
    hands_->set<void>("sim/interface/2/otdr/measuringTime", 0.0F);
    EXPECT_TRUE(link_is("down"));
    EXPECT_TRUE(eventually([this] { return measured() == std::vector<int>{100, 150}; }));
    EXPECT_EQ(hands_->get<float>("sim/line/fibreLoss"), 3.0F);
    hands_->set<void>("sim/line/intact", true);
    EXPECT_TRUE(receives(1.5F - 3.0F - 1.0F));
}

}  // namespace
