// The room for one pending change: what is sealed comes back whole, and nothing else does.
#include <gtest/gtest.h>

#include <cstring>

#include "platform/kivshimo/Journal.h"

namespace KivShimo {
namespace {

struct Content {
    std::uint64_t words[5];
};

class JournalTest : public testing::Test {
protected:
    static constexpr std::uint64_t kIdentity = 77;

    void fill(std::uint32_t needs = 2) {
        writer_.begin(16, 3, 9);
        writer_.valueIs(Content{{1, 2, 3, 4, 5}});
        for (std::uint32_t i = 0; i < needs; ++i)
            writer_.needs(100 + i, 200 + i);
    }

    Journal place_{};
    JournalWriter writer_{place_, kIdentity};
};

TEST_F(JournalTest, HoldsNothingBeforeTheSeal) {
    EXPECT_FALSE(writer_.pending().has_value());
    fill();
    EXPECT_FALSE(writer_.pending().has_value());
    EXPECT_FALSE(writer_.rotten());
}

TEST_F(JournalTest, GivesBackWhatWasSealed) {
    fill();
    writer_.seal();
    const auto pending = JournalWriter(place_, kIdentity).pending();
    ASSERT_TRUE(pending.has_value());
    EXPECT_EQ(pending->operation, 16U);
    EXPECT_EQ(pending->unit, 3U);
    EXPECT_EQ(pending->version, 9U);
    EXPECT_EQ(pending->value<Content>()->words[4], 5U);
    EXPECT_FALSE(pending->value<std::uint64_t>().has_value());
    ASSERT_EQ(pending->needed.size(), 2U);
    EXPECT_EQ(pending->needed[1].tableId, 101U);
    EXPECT_EQ(pending->needed[1].version, 201U);
}

TEST_F(JournalTest, HoldsNothingWhenDone) {
    fill();
    writer_.seal();
    writer_.done();
    EXPECT_FALSE(writer_.pending().has_value());
    EXPECT_FALSE(writer_.rotten());
    fill(0);
    EXPECT_FALSE(writer_.pending().has_value());
}

TEST_F(JournalTest, OfAnotherFileIsRotten) {
    fill();
    writer_.seal();
    const JournalWriter other(place_, kIdentity + 1);
    EXPECT_TRUE(other.rotten());
    EXPECT_FALSE(other.pending().has_value());
}

TEST_F(JournalTest, WithAnyWrongBitIsRottenOrHoldsNothing) {
    fill(1);
    writer_.seal();
    const Journal whole = place_;
    const std::size_t used = offsetof(Journal, needed) + sizeof(JournalNeeded);
    for (std::size_t bit = 0; bit < used * 8; ++bit) {
        place_ = whole;
        auto* bytes = reinterpret_cast<unsigned char*>(&place_);
        bytes[bit / 8] = static_cast<unsigned char>(bytes[bit / 8] ^ (1U << (bit % 8)));
        const auto pending = writer_.pending();
        const std::size_t at = bit / 8;
        const bool unused =
            at >= offsetof(Journal, value) + sizeof(Content) && at < offsetof(Journal, needed);
        EXPECT_EQ(pending.has_value(), unused) << "bit " << bit;
    }
}

TEST_F(JournalTest, TakesNoSecondChange) {
    fill();
    writer_.seal();
    EXPECT_DEATH(writer_.begin(17, 0, 0), "one pending change at a time");
}

TEST_F(JournalTest, SealThatRotsUnderItStopsNoChange) {
    place_.seal = 1;
    fill();
    EXPECT_EQ(place_.seal, 0U);
    writer_.seal();
    EXPECT_TRUE(JournalWriter(place_, kIdentity).pending().has_value());
}

TEST_F(JournalTest, RefusesMoreNeededVersionsThanFit) {
    fill(Journal::kMostNeeded);
    EXPECT_DEATH(writer_.needs(1, 1), "room for needed versions");
}

}  // namespace
}  // namespace KivShimo
