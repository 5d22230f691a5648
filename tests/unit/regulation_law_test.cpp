// Values are compared bit for bit: the regulation is held against what the
// cards in the field do.
#include "regulation_law.hpp"

#include <gtest/gtest.h>

#include <bit>
#include <cmath>
#include <limits>
#include <vector>

namespace {

using namespace regulation_law;

constexpr long long latest = std::numeric_limits<long long>::max();
constexpr long long earliest = std::numeric_limits<long long>::min();

// The floats on both sides of 0.7 and 0.2; neither is a float itself.
const float just_inside_band = 0.7F;  // 0.699999988
const float just_outside_band = std::nextafter(0.7F, 1.0F);
const float just_above_fine_band = 0.2F;  // 0.200000003
const float just_below_fine_band = std::nextafter(0.2F, 0.0F);

void expect_same(float actual, float expected) {
    EXPECT_EQ(std::bit_cast<unsigned>(actual), std::bit_cast<unsigned>(expected))
        << actual << " instead of " << expected;
}

TEST(RegulationAverage, IsTheSumInOrderDividedByTheCount) {
    const std::vector<float> history{-10.1F, -10.2F, -10.3F, -10.4F, -10.5F};
    expect_same(average(history), ((((-10.1F + -10.2F) + -10.3F) + -10.4F) + -10.5F) / 5.0F);
}

TEST(RegulationAverage, SumsInFloatSoThatAReadingThatIsTooSmallIsLost) {
    const std::vector<float> history{16777216.0F, 1.0F, 1.0F};
    expect_same(average(history), 16777216.0F / 3.0F);
}

TEST(RegulationAverage, OfOneReadingIsThatReading) {
    const std::vector<float> history{-12.25F};
    expect_same(average(history), -12.25F);
}

TEST(RegulationAverage, StartsAfreshWithoutAPeakOrFromBelowMinusThirty) {
    EXPECT_TRUE(restarts_average(false, 0.0F));
    EXPECT_FALSE(restarts_average(true, -25.0F));
    EXPECT_FALSE(restarts_average(true, -30.0F));
    EXPECT_TRUE(restarts_average(true, std::nextafter(-30.0F, -31.0F)));
}

TEST(RegulationChange, QuietChannelOnItsTargetHasNotChanged) {
    EXPECT_FALSE(has_changed(3.0F, 3.0F, 0, 3.0F, 3.0F));
}

TEST(RegulationChange, PublishedPowerOffTheTargetIsAChangeFromPointSevenOn) {
    EXPECT_FALSE(has_changed(just_inside_band, 0.0F, 0, 3.0F, 3.0F));
    EXPECT_TRUE(has_changed(just_outside_band, 0.0F, 0, 3.0F, 3.0F));
    EXPECT_FALSE(has_changed(-just_inside_band, 0.0F, 0, 3.0F, 3.0F));
    EXPECT_TRUE(has_changed(-just_outside_band, 0.0F, 0, 3.0F, 3.0F));
}

TEST(RegulationChange, CreditLeftIsAChange) {
    EXPECT_TRUE(has_changed(3.0F, 3.0F, 1, 3.0F, 3.0F));
    EXPECT_FALSE(has_changed(3.0F, 3.0F, -1, 3.0F, 3.0F));
}

TEST(RegulationChange, PowerThatMovedByTheLastBitIsAChange) {
    EXPECT_TRUE(has_changed(3.0F, 3.0F, 0, 3.0F, std::nextafter(3.0F, 4.0F)));
}

TEST(RegulationBand, DifferenceOfExactlyPointSevenIsInsideTheBand) {
    EXPECT_FALSE(is_outside_band(just_inside_band));
    EXPECT_FALSE(is_outside_band(-just_inside_band));
    EXPECT_TRUE(is_outside_band(just_outside_band));
    EXPECT_TRUE(is_outside_band(-just_outside_band));
}

struct correction {
    float attenuation;
    float difference;
    float corrected;
};

class CoarseCorrection : public testing::TestWithParam<correction> {};

TEST_P(CoarseCorrection, IsHalfTheDifferenceUpToThreeDecibelAndAFifthAboveIt) {
    const auto& [attenuation, difference, corrected] = GetParam();
    expect_same(coarse_correction(attenuation, difference), corrected);
}

INSTANTIATE_TEST_SUITE_P(
    Table, CoarseCorrection,
    testing::Values(correction{5.0F, 6.0F, 8.0F},      // 3.0 dB exactly is still half
                    correction{5.0F, 7.0F, 6.4F},      // 3.5 dB would be too much
                    correction{5.0F, 6.2F, 6.24F},     //
                    correction{5.0F, -6.0F, 2.0F},     //
                    correction{5.0F, -7.0F, 3.6F},     //
                    correction{14.0F, 4.0F, 16.0F},    // limits are another rule
                    correction{25.0F, -20.0F, 21.0F},  // from a read-back that was missing
                    correction{0.0F, -2.0F, -1.0F},    //
                    correction{10.0F, 1.0F, 10.5F}));

TEST(CoarseCorrectionInDouble, IsRoundedOnceAtTheEnd) {
    const float attenuation = 5.1F;
    const float difference = 7.3F;
    expect_same(coarse_correction(attenuation, difference),
                static_cast<float>(static_cast<double>(attenuation) +
                                   static_cast<double>(difference) / 5.0));
}

TEST(CoarseCorrectionInDouble, LimitIsTestedBeforeTheRounding) {
    // In double the step is just above 3 dB; a sum rounded to float has lost that.
    const float attenuation = 8.0F;
    const float difference = std::nextafter(6.0F, 7.0F);
    ASSERT_EQ(attenuation + 0.5F * difference - attenuation, 3.0F);
    expect_same(coarse_correction(attenuation, difference),
                static_cast<float>(8.0 + static_cast<double>(difference) / 5.0));
}

TEST(RegulationGiveUp, CounterBelowTwoAnswersBeforeBothEnds) {
    EXPECT_EQ(judge_give_up(1, 0.0F, -10.0F, 0.0F), give_up::earlier);
    EXPECT_EQ(judge_give_up(-1, 25.0F, 10.0F, 0.0F), give_up::earlier);
    EXPECT_EQ(judge_give_up(0, 7.0F, 1.0F, 0.0F), give_up::earlier);
    EXPECT_EQ(judge_give_up(2, 7.0F, 1.0F, 0.0F), give_up::no);
}

TEST(RegulationGiveUp, LowEndIsBelowPointOneWithTooLittlePower) {
    EXPECT_EQ(judge_give_up(10, 0.0F, -1.0F, 0.0F), give_up::at_low_end);
    EXPECT_EQ(judge_give_up(10, std::nextafter(0.1F, 0.0F), -1.0F, 0.0F), give_up::at_low_end);
    EXPECT_EQ(judge_give_up(10, 0.1F, -1.0F, 0.0F), give_up::no);  // 0.1F is above 0.1
    EXPECT_EQ(judge_give_up(10, 0.0F, -just_inside_band, 0.0F), give_up::no);
    EXPECT_EQ(judge_give_up(10, 0.0F, -just_outside_band, 0.0F), give_up::at_low_end);
}

TEST(RegulationGiveUp, HighEndIsAboveTwentyFourWithTooMuchPower) {
    EXPECT_EQ(judge_give_up(10, 24.5F, 1.0F, 0.0F), give_up::at_high_end);
    EXPECT_EQ(judge_give_up(10, 24.0F, 1.0F, 0.0F), give_up::no);
    EXPECT_EQ(judge_give_up(10, 24.5F, just_inside_band, 0.0F), give_up::no);
    EXPECT_EQ(judge_give_up(10, 24.5F, just_outside_band, 0.0F), give_up::at_high_end);
}

TEST(RegulationGiveUp, CounterFallsWithACutCorrectionAndIsFullAfterAnyOther) {
    EXPECT_EQ(give_up_counter_after(10, range_end::high), 9);
    EXPECT_EQ(give_up_counter_after(0, range_end::low), -1);
    EXPECT_EQ(give_up_counter_after(-1, range_end::none), 10);
}

TEST(RegulationRange, EndsBelongToTheRange) {
    const auto expect = [](float wanted, float value, range_end reached) {
        const limited_attenuation limited = limit_attenuation(wanted);
        expect_same(limited.value, value);
        EXPECT_EQ(limited.reached, reached) << wanted;
    };
    expect(15.0F, 15.0F, range_end::none);
    expect(std::nextafter(15.0F, 16.0F), 15.0F, range_end::high);
    expect(16.0F, 15.0F, range_end::high);
    expect(0.0F, 0.0F, range_end::none);
    expect(std::nextafter(0.0F, -1.0F), 0.0F, range_end::low);
    expect(7.25F, 7.25F, range_end::none);
}

TEST(RegulationChangeOfAttenuation, IsHighAboveHalfADecibel) {
    EXPECT_FALSE(is_high_change(5.0F, 5.5F));
    EXPECT_FALSE(is_high_change(5.5F, 5.0F));
    EXPECT_TRUE(is_high_change(5.0F, std::nextafter(5.5F, 6.0F)));
}

TEST(RegulationFineTuning, StepIsTheDifferenceUpToPointTwoAndPointOneAboveIt) {
    expect_same(fine_tuning_step(0.15F), 0.15F);
    expect_same(fine_tuning_step(-0.15F), -0.15F);
    expect_same(fine_tuning_step(0.3F), 0.1F);
    expect_same(fine_tuning_step(-0.3F), -0.1F);
    expect_same(fine_tuning_step(0.0F), 0.0F);
    expect_same(fine_tuning_step(just_below_fine_band), just_below_fine_band);
    expect_same(fine_tuning_step(just_above_fine_band), 0.1F);  // 0.2F is above 0.2
}

TEST(RegulationLanes, DifferenceIsSharedByBoth) {
    const lane_attenuations lanes = widen(5.0F, 1.0F);
    expect_same(lanes.sent, 5.5F);
    expect_same(lanes.other, 4.5F);
}

TEST(RegulationLanes, EitherOneAtZeroIsTheBottom) {
    EXPECT_TRUE(is_at_bottom({0.0F, 0.0F}));
    EXPECT_TRUE(is_at_bottom({1.0F, 0.0F}));
    EXPECT_TRUE(is_at_bottom({-0.5F, 1.0F}));
    EXPECT_FALSE(is_at_bottom({0.1F, 0.1F}));
}

TEST(RegulationLoss, DeadlineIsTheLastLightPlusTheTimeOut) {
    EXPECT_EQ(loss_deadline(1000, 60), 1060);
    EXPECT_EQ(loss_deadline(1000, 0), 1000);
    EXPECT_EQ(loss_deadline(1000, -1), 999);
    EXPECT_EQ(loss_deadline(-1, 60), 59);
}

TEST(RegulationLoss, TimeOutPastTheClockNeverEndsInsteadOfOverflowing) {
    EXPECT_EQ(loss_deadline(1000, latest), latest);
    EXPECT_EQ(loss_deadline(-1, earliest), earliest);
    EXPECT_EQ(loss_deadline(-1, latest), latest - 1);
}

TEST(RegulationLoss, SecondsLeftAreThoseOfThirtyTwoBits) {
    EXPECT_EQ(seconds_left(1060, 1000), 60);
    EXPECT_EQ(seconds_left(1000, 1000), 0);
    EXPECT_EQ(seconds_left(latest, latest - 7), 7);
    EXPECT_EQ(seconds_left((1LL << 32) + 1005, 1000), 5);
    EXPECT_EQ(seconds_left(latest, earliest), -1);
}

TEST(RegulationTilt, IsZeroOverAFiberOfNoLength) {
    expect_same(tilt_loss(0.0F, 0.0), 0.0F);
    expect_same(tilt_loss(1550.0F, 0.0), 0.0F * (39.79601F + 1550.0F * -0.0257566F));
}

TEST(RegulationTilt, SumIsInFloatAndProductInDouble) {
    const float sum = 39.79601F + 1550.0F * -0.0257566F;
    expect_same(tilt_loss(1550.0F, 0.3), static_cast<float>(static_cast<double>(sum) * 0.3));
}

TEST(RegulationClientPower, IsWorkedBackFromLeftToRight) {
    expect_same(client_side_power(3.1F, 21.3F, 5.2F, 7.7F, 0.4F),
                (((3.1F - 21.3F) + 5.2F) + 7.7F) + 0.4F);
}

TEST(RegulationBoosterAdjustment, DeviationOfUpToTenDecibelIsPlausible) {
    EXPECT_TRUE(is_plausible_deviation(10.0F));
    EXPECT_TRUE(is_plausible_deviation(-10.0F));
    EXPECT_FALSE(is_plausible_deviation(10.01F));
    EXPECT_FALSE(is_plausible_deviation(-10.01F));
    EXPECT_FALSE(is_plausible_deviation(std::numeric_limits<float>::quiet_NaN()));
}

TEST(RegulationBoosterAdjustment, IsHalvedAboveHalfADecibel) {
    expect_same(damped_adjustment(10.0F), 5.0F);
    expect_same(damped_adjustment(0.5F), 0.5F);
    expect_same(damped_adjustment(-0.5F), -0.5F);
    expect_same(damped_adjustment(0.6F), 0.3F);
    expect_same(damped_adjustment(-0.6F), -0.3F);
}

TEST(RegulationBoosterAdjustment, MovesTheCalibrationByHalfOfItRoundedOnce) {
    expect_same(adjusted_calibration(20.0F, 5.0F), 22.5F);
    expect_same(adjusted_calibration(20.2F, 0.3F),
                static_cast<float>(static_cast<double>(20.2F) + 0.5 * static_cast<double>(0.3F)));
    expect_same(adjusted_calibration(20.2F, 0.0F), 20.2F);
}

TEST(RegulationBoosterCalibration, ValuesAgreeWhenTheirFirstDecimalDoes) {
    EXPECT_TRUE(agree_to_first_decimal(20.2F, 20.24F));
    EXPECT_TRUE(agree_to_first_decimal(20.2F, 20.16F));
    EXPECT_FALSE(agree_to_first_decimal(20.2F, 20.26F));
    EXPECT_TRUE(agree_to_first_decimal(-0.04F, 0.04F));
}

TEST(WantedPower, FortyChannelsShareTwentyDecibel) {
    const wanted_powers powers = wanted_powers_for(20.0, 40);
    expect_same(powers.standard, static_cast<float>(20.0 - 10.0 * std::log10(40.0)));
    EXPECT_NEAR(powers.standard, 3.979, 0.0005);
    expect_same(powers.minimum, -2.0F);
    expect_same(powers.maximum, static_cast<float>(static_cast<double>(powers.standard) + 4.1));
    EXPECT_NEAR(powers.maximum, 8.079, 0.0005);
}

TEST(WantedPower, OneChannelGetsTheWholeLimitAsFarAsIsAllowed) {
    const wanted_powers powers = wanted_powers_for(20.0, 1);
    expect_same(powers.standard, 19.5F);
    expect_same(powers.minimum, 10.0F);  // below the power that was not cut off yet
    expect_same(powers.maximum, 19.5F);
}

TEST(WantedPower, NoChannelAtAllGivesTheHighestOfAllThree) {
    const wanted_powers powers = wanted_powers_for(20.0, 0);
    expect_same(powers.standard, 19.5F);
    expect_same(powers.minimum, 19.5F);
    expect_same(powers.maximum, 19.5F);
}

TEST(WantedPower, CountBelowZeroGivesTheLowestOfAllThree) {
    const wanted_powers powers = wanted_powers_for(20.0, -1);
    expect_same(powers.standard, -2.0F);
    expect_same(powers.minimum, -2.0F);
    expect_same(powers.maximum, -2.0F);
}

TEST(WantedPower, ShareItselfIsNotLimited) {
    expect_same(share_of_power(25.0, 40), static_cast<float>(25.0 - 10.0 * std::log10(40.0)));
    expect_same(share_of_power(25.0, 1), 25.0F);
}

TEST(WantedPower, LimitsBelongToTheRange) {
    expect_same(limit_wanted_power(25.0F), 19.5F);
    expect_same(limit_wanted_power(19.5F), 19.5F);
    expect_same(limit_wanted_power(-30.0F), -2.0F);
    expect_same(limit_wanted_power(-2.0F), -2.0F);
    expect_same(limit_wanted_power(3.5F), 3.5F);
    expect_same(limit_wanted_power(std::numeric_limits<float>::quiet_NaN()), -2.0F);
}

TEST(ChannelBudget, CountsChannelsOfTheReferencePowerThatFitTheLimit) {
    expect_same(channels_within(20.0, 0.0F), 100.0F);
    expect_same(channels_within(25.0, 4.0F), static_cast<float>(std::pow(10.0, 2.1)));
}

TEST(ChannelBudget, IsTruncatedAndHeldWithinAnInt) {
    EXPECT_EQ(whole_channels(125.9F), 125);
    EXPECT_EQ(whole_channels(0.9F), 0);
    EXPECT_EQ(whole_channels(1e30F), std::numeric_limits<int>::max());
    EXPECT_EQ(whole_channels(std::numeric_limits<float>::infinity()),
              std::numeric_limits<int>::max());
    EXPECT_EQ(whole_channels(std::numeric_limits<float>::quiet_NaN()),
              std::numeric_limits<int>::max());
}

}  // namespace
