// Differences between values, hardware and index pools.
#include "inspect/CheckLook.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using Inspect::Difference;
using Inspect::Entry;
using Inspect::EntryId;
using Inspect::HeldEntries;
using Inspect::Json;
using Inspect::Pool;
using Inspect::ResourceRow;
using Inspect::Table;
using testing::ElementsAre;
using testing::IsEmpty;
using Kind = Difference::Kind;

Entry action(const std::string& key, std::uint64_t version, Json counter,
             const std::string& request) {
    Entry entry;
    entry.id = {Table::action, 1, key};
    entry.version = version;
    entry.content = {
        {"key", key}, {"name", "a"}, {"counter", std::move(counter)}, {"policer", nullptr}};
    entry.counterRequest = request;
    return entry;
}

ResourceRow row(std::uint32_t index, const std::string& request, bool isReturning = false) {
    return {Pool::counter, index, request, isReturning, 1, 0, "file"};
}

std::vector<Kind> kindsOf(const std::vector<Difference>& differences) {
    std::vector<Kind> kinds;
    for (const Difference& difference : differences)
        kinds.push_back(difference.kind);
    return kinds;
}

std::vector<Kind> indexKinds(const std::vector<Entry>& actions,
                             const std::vector<ResourceRow>& rows, bool quiet = true) {
    std::vector<Difference> differences;
    compareIndexes(actions, rows, Pool::counter, 10, quiet, differences);
    return kindsOf(differences);
}

std::vector<Kind> hardwareKinds(const std::vector<Entry>& values, const HeldEntries& held,
                                std::uint64_t acknowledged = 10) {
    std::vector<Difference> differences;
    compareWithHardware(values, held, Table::action, acknowledged, differences);
    return kindsOf(differences);
}

HeldEntries heldAs(const Entry& entry) {
    return {{entry.id, {entry.content, entry.version}}};
}

TEST(CheckTest, AnIndexThatPoolAndEntryAgreeOnIsNoDifference) {
    EXPECT_THAT(indexKinds({action("1.0", 1, 7, "1/1")}, {row(7, "1/1")}), IsEmpty());
}

TEST(CheckTest, EntriesMayShareARequest) {
    EXPECT_THAT(
        indexKinds({action("1.0", 1, 7, "1/1"), action("2.0", 2, 7, "1/1")}, {row(7, "1/1")}),
        IsEmpty());
}

TEST(CheckTest, FindsAnIndexWithoutUser) {
    EXPECT_THAT(indexKinds({}, {row(7, "1/1")}), ElementsAre(Kind::indexWithoutUser));
}

TEST(CheckTest, AnIndexThatReturnsNeedsNoUser) {
    EXPECT_THAT(indexKinds({}, {row(7, "1/1", true)}), IsEmpty());
}

TEST(CheckTest, WhileChangesAreStagedTheirRequestsHaveNoEntryYet) {
    EXPECT_THAT(indexKinds({}, {row(7, "1/1")}, false), IsEmpty());
}

TEST(CheckTest, FindsAnIndexOfTwoRequests) {
    EXPECT_THAT(indexKinds({action("1.0", 1, 7, "1/1"), action("2.0", 2, 7, "2/1")},
                           {row(7, "1/1"), row(8, "2/1")}),
                ElementsAre(Kind::strayIndex, Kind::indexTwice));
}

TEST(CheckTest, FindsARequestWithTwoIndexes) {
    EXPECT_THAT(indexKinds({action("1.0", 1, 7, "1/1")}, {row(7, "1/1"), row(8, "1/1")}),
                ElementsAre(Kind::requestTwice));
}

TEST(CheckTest, FindsAnIndexThatThePoolHasFreeForAnotherOrReturning) {
    const Entry user = action("1.0", 1, 7, "1/1");
    EXPECT_THAT(indexKinds({user}, {}), ElementsAre(Kind::strayIndex));
    EXPECT_THAT(indexKinds({user}, {row(7, "2/1")}),
                ElementsAre(Kind::strayIndex, Kind::indexWithoutUser));
    EXPECT_THAT(indexKinds({user}, {row(7, "1/1", true)}), ElementsAre(Kind::strayIndex));
}

TEST(CheckTest, AnEntryOnItsWayMayStillUseTheIndexBefore) {
    EXPECT_THAT(indexKinds({action("1.0", 11, 7, "1/1")}, {row(8, "1/1")}), IsEmpty());
}

TEST(CheckTest, HardwareThatHoldsTheValueIsNoDifference) {
    const Entry entry = action("1.0", 3, 7, "1/1");
    EXPECT_THAT(hardwareKinds({entry}, heldAs(entry)), IsEmpty());
}

TEST(CheckTest, FindsWhatIsMissingOlderOtherAndStrayInHardware) {
    const Entry entry = action("1.0", 3, 7, "1/1");
    EXPECT_THAT(hardwareKinds({entry}, {}), ElementsAre(Kind::missingInHardware));
    EXPECT_THAT(hardwareKinds({entry}, heldAs(action("1.0", 2, 8, "1/1"))),
                ElementsAre(Kind::olderInHardware));
    EXPECT_THAT(hardwareKinds({entry}, heldAs(action("1.0", 3, 8, "1/1"))),
                ElementsAre(Kind::otherInHardware));
    EXPECT_THAT(hardwareKinds({}, heldAs(entry)), ElementsAre(Kind::strayInHardware));
}

TEST(CheckTest, WhatIsAboveTheAcknowledgedVersionIsOnItsWay) {
    const Entry entry = action("1.0", 11, 7, "1/1");
    EXPECT_THAT(hardwareKinds({entry}, {}), IsEmpty());
    EXPECT_THAT(hardwareKinds({entry}, heldAs(action("1.0", 2, 8, "1/1"))), IsEmpty());
}

TEST(CheckTest, ARemovedEntryIsGoneFromHardwareOnceThatIsAcknowledged) {
    Entry entry = action("1.0", 3, 7, "1/1");
    const HeldEntries held = heldAs(entry);
    entry.inDeletion = true;
    EXPECT_THAT(hardwareKinds({entry}, {}), IsEmpty());
    EXPECT_THAT(hardwareKinds({entry}, held), ElementsAre(Kind::strayInHardware));
    EXPECT_THAT(hardwareKinds({entry}, held, 2), IsEmpty());
}

TEST(CheckTest, WhatNobodyHereCanMendIsNotAskedFor) {
    EXPECT_EQ(mendOf(Kind::indexTwice), Inspect::Mend::none);
    EXPECT_EQ(mendOf(Kind::strayIndex), Inspect::Mend::none);
}

TEST(CheckTest, EveryKindSaysCauseAndAdvice) {
    for (int kind = 0; kind <= static_cast<int>(Kind::strayIndex); ++kind) {
        EXPECT_FALSE(nameOf(static_cast<Kind>(kind)).empty());
        EXPECT_FALSE(causeOf(static_cast<Kind>(kind)).empty());
        EXPECT_FALSE(adviceOf(static_cast<Kind>(kind)).empty());
    }
}

}  // namespace
