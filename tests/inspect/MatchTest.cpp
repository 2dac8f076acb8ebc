// Which entries a filter means.
#include "inspect/Match.h"

#include <gtest/gtest.h>

#include "inspect/Errors.h"

namespace {

using Inspect::Entry;
using Inspect::Json;
using Inspect::Match;

Entry entryWith(Json fields) {
    Entry entry;
    entry.id = {Inspect::Table::v4, 1, "00000001.00000002"};
    entry.content = {{"key", entry.id.key},
                     {"label", "bgp peers"},
                     {"priority", 100},
                     {"action", "00000007.0"},
                     {"fields", std::move(fields)}};
    return entry;
}

bool isMet(const std::string& match, Json fields) {
    return Match(match).isMet(entryWith(std::move(fields)));
}

TEST(MatchTest, PortsAreMetWhereRangesOverlap) {
    EXPECT_TRUE(isMet("dport=179", {{"dport", "179"}}));
    EXPECT_TRUE(isMet("dport=179", {{"dport", "100-200"}}));
    EXPECT_TRUE(isMet("dport=150-300", {{"dport", "100-200"}}));
    EXPECT_FALSE(isMet("dport=201-300", {{"dport", "100-200"}}));
}

TEST(MatchTest, PrefixesAreMetWhereOneHoldsTheOther) {
    EXPECT_TRUE(isMet("src=192.0.2.0/24", {{"src", "192.0.2.7/32"}}));
    EXPECT_TRUE(isMet("src=192.0.2.7", {{"src", "192.0.2.0/24"}}));
    EXPECT_FALSE(isMet("src=192.0.3.0/24", {{"src", "192.0.2.0/24"}}));
    EXPECT_TRUE(isMet("dst=2001:db8::/32", {{"dst", "2001:db8:7::/48"}}));
    EXPECT_FALSE(isMet("dst=2001:db8::/32", {{"dst", "192.0.2.0/24"}}));
}

TEST(MatchTest, MasksThatAreNoPrefixAreMetWhereBitsAgree) {
    EXPECT_TRUE(isMet("src=192.9.2.0/24", {{"src", "192.0.2.0 mask 255.0.255.0"}}));
    EXPECT_FALSE(isMet("src=192.9.3.0/24", {{"src", "192.0.2.0 mask 255.0.255.0"}}));
}

TEST(MatchTest, ProtocolsAreKnownByNameAndNumber) {
    EXPECT_TRUE(isMet("proto=6", {{"proto", "tcp"}}));
    EXPECT_TRUE(isMet("proto=tcp", {{"proto", "tcp"}}));
    EXPECT_FALSE(isMet("proto=udp", {{"proto", "tcp"}}));
}

TEST(MatchTest, MaskedBitsAreMetWhereTheyAgree) {
    EXPECT_TRUE(isMet("tcp-flags=0x02", {{"tcp-flags", "0x02/0x12"}}));
    EXPECT_FALSE(isMet("tcp-flags=0x12", {{"tcp-flags", "0x02/0x12"}}));
}

TEST(MatchTest, AnEntryThatDoesNotNameTheFieldIsNotMeant) {
    EXPECT_FALSE(isMet("dport=179", {{"sport", "179"}}));
}

TEST(MatchTest, TextsMayHaveWildcards) {
    EXPECT_TRUE(isMet("label=bgp*", Json::object()));
    EXPECT_FALSE(isMet("label=ssh*", Json::object()));
    EXPECT_TRUE(isMet("priority=1?0", Json::object()));
}

TEST(MatchTest, QuestionsThatCannotBeMeantAreRefused) {
    for (const char* wrong :
         {"dport", "dport=x", "dport=1-", "src=nix", "src=192.0.2.0/33", "proto=nix", "nix=1"}) {
        EXPECT_THROW(Match{wrong}, Inspect::QuestionError) << wrong;
    }
}

}  // namespace
