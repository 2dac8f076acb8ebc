// Recordings run again: as recorded where nothing has changed, and where they part if something
// has.
#include <gtest/gtest.h>

#include <rapidcheck/gtest.h>

#include <fmt/format.h>

#include "recording/Text.h"
#include "replay/Player.h"
#include "tests/replay/Scenarios.h"
#include "tests/support/TempDir.h"

namespace ReplayTest {
namespace {

using Recording::Contents;
using Replay::Player;
using Replay::Result;

Agent::Plugin plugin() {
    return Agent::loadPlugin(VORN_PLUGIN_PATH);
}

Result compared(const Contents& recording, const Player::Wishes& wishes = {}) {
    const TestSupport::TempDir dir;
    Player player(plugin(), dir.path());
    return player.compare(recording, wishes);
}

Contents recordedAnew(const Contents& recording) {
    const TestSupport::TempDir dir;
    Player player(plugin(), dir.path());
    return player.recordAnew(recording);
}

std::string said(const Result& result) {
    if (!result.difference)
        return {};
    const Replay::Difference& found = *result.difference;
    return fmt::format("event {}, input {}: {} / {}", found.event, found.input, found.recorded,
                       found.replayed);
}

constexpr const char* kOneWrite =
    "start units=1 counters=2 policers=2 capacity=16\n"
    "= mounted action=0 v4=0 v6=0\n"
    "write #1 v4 1 1.1 label=one priority=1 action=1.0 handler\n"
    "turn\n"
    "= #1 written version=1\n"
    "look map=1 log=this consumed=1 v4=1\n"
    "= #1 complete version=1\n"
    "answer #1 {\n"
    "  remove #2 v4 1 1.1\n"
    "}\n"
    "turn\n"
    "= #2 written version=2\n";

std::string with(std::string text, const std::string& from, const std::string& to) {
    const std::size_t at = text.find(from);
    EXPECT_NE(at, std::string::npos) << from;
    return text.replace(at, from.size(), to);
}

class Scenario : public testing::TestWithParam<std::string> {};

TEST_P(Scenario, GoesAsItsFileSays) {
    const Result result = compared(Contents::ofFile(GetParam()));
    EXPECT_EQ(said(result), "");
    EXPECT_GT(result.events, 0U);
}

TEST_P(Scenario, IsTheSameTextWhenRecordedAnew) {
    const Contents recording = Contents::ofFile(GetParam());
    EXPECT_EQ(Recording::textOf(recordedAnew(recording)), Recording::textOf(recording));
}

TEST_P(Scenario, GoesAsRecordedHoweverEarlyTheRecordingEnds) {
    const Contents whole = Contents::ofFile(GetParam());
    for (std::size_t count = 0; count < whole.events().size(); ++count) {
        const Contents part = firstOf(whole, count);
        ASSERT_EQ(said(compared(part)), "") << count << " events";
    }
}

TEST_P(Scenario, FindsEachOutputThatIsTakenAway) {
    const Contents whole = Contents::ofFile(GetParam());
    for (std::size_t left = 0; left + 1 < whole.events().size(); ++left) {
        const auto event = Recording::decode(whole.events()[left].bytes);
        const auto next = Recording::decode(whole.events()[left + 1].bytes);
        // Of a process that was killed, what it would still have told is not missed.
        if (Recording::isInput(event) || Recording::is<Recording::Handler>(event) ||
            Recording::is<Recording::Mounted>(event) || Recording::is<Recording::Note>(next))
            continue;
        Contents part = firstOf(whole, left);
        for (std::size_t i = left + 1; i < whole.events().size(); ++i)
            part.add(whole.events()[i].bytes, {});
        const Result result = compared(part);
        ASSERT_TRUE(result.difference.has_value()) << "event " << left + 1;
        ASSERT_EQ(result.difference->event, left + 1);
    }
}

std::string nameOf(const testing::TestParamInfo<std::string>& info) {
    std::string name = info.param.substr(info.param.rfind('/') + 1);
    name.erase(name.find('.'));
    std::erase(name, '-');
    return name;
}
INSTANTIATE_TEST_SUITE_P(Files, Scenario, testing::ValuesIn(scenarioFiles()), nameOf);

TEST(PlayerTest, ChangesOfAHandlerAreMadeFromWithinIt) {
    const Contents recording = Recording::contentsOfText(kOneWrite);
    EXPECT_EQ(said(compared(recording)), "");
    // A handler that does nothing is not told of.
    const Contents outside = Recording::contentsOfText(
        with(with(kOneWrite, "answer #1 {\n  remove #2 v4 1 1.1\n}\n", ""), "turn\n= #2",
             "remove #2 v4 1 1.1\nturn\n= #2"));
    EXPECT_EQ(said(compared(outside)), "");
}

TEST(PlayerTest, AKillWithinAHandlerIsNoDifferenceAndTheNextProcessGoesOn) {
    const std::string killed = with(kOneWrite, "}\nturn\n= #2 written version=2\n", "");
    const std::string next =
        "start units=1 counters=2 policers=2 capacity=16\n"
        "= mounted action=0 v4=0 v6=0\n"
        "write #1 v4 1 1.1\n"
        "turn\n"
        "= #1 written version=1\n";
    const Contents recording = Recording::contentsOfText(killed + next);
    const Result result = compared(recording);
    EXPECT_EQ(said(result), "");
    EXPECT_EQ(result.starts, 2U);
    EXPECT_EQ(result.changes, 3U);
    const std::string text = Recording::textOf(recording);
    EXPECT_EQ(Recording::textOf(Recording::contentsOfText(text)), text);
}

TEST(PlayerTest, AHandlerDoesNothingButChanges) {
    const Contents recording = Recording::contentsOfText(
        with(kOneWrite, "  remove #2 v4 1 1.1\n", "  remove #2 v4 1 1.1\n  end\n"));
    EXPECT_THROW(compared(recording), Recording::FormatError);
}

TEST(PlayerTest, AnAnswerThatDoesNotComeIsNotLeftOut) {
    const Contents recording =
        Recording::contentsOfText(with(kOneWrite, "look map=1 log=this consumed=1 v4=1\n", ""));
    EXPECT_THROW(recordedAnew(recording), Recording::FormatError);
}

TEST(PlayerTest, AProcessThatNeverHadItsTablesIsPassedOver) {
    const Contents recording = Recording::contentsOfText(
        "start units=1 counters=2 policers=2 capacity=16\nend\n" + std::string(kOneWrite));
    EXPECT_EQ(said(compared(recording)), "");
}

TEST(PlayerTest, TellsADifferenceWithWhatWasRecordedAndWhatCameOut) {
    const Contents recording =
        Recording::contentsOfText(with(kOneWrite, "= #2 written version=2", "= #2 failed"));
    EXPECT_EQ(said(compared(recording)),
              "event 12, input turn: = #2 failed / = #2 written version=2");
}

TEST(PlayerTest, TellsWhatWasRecordedAndDoesNotComeOut) {
    const Contents recording =
        Recording::contentsOfText(with(kOneWrite, "= #2 written version=2\n",
                                       "= #2 written version=2\n= #2 complete version=2\nturn\n"));
    EXPECT_EQ(said(compared(recording)), "event 13, input turn: = #2 complete version=2 / nothing");
}

TEST(PlayerTest, DoesNothingAfterADifference) {
    const Contents recording = Recording::contentsOfText(
        with(kOneWrite, "= #1 written version=1", "= #1 written version=5"));
    const Result result = compared(recording);
    ASSERT_TRUE(result.difference.has_value());
    EXPECT_EQ(result.changes, 1U);  // the handler's was not made
}

TEST(PlayerTest, StopsAtAVersionOfATable) {
    const Contents recording = Recording::contentsOfText(kOneWrite);
    Player::Wishes wishes;
    wishes.to = {.table = VornPolicyCpu::PolicyCpuV4TcamEntryTypes::kTableId.whole(), .version = 1};
    const Result result = compared(recording, wishes);
    EXPECT_TRUE(result.reachedTo);
    EXPECT_EQ(result.events, 5U);
    wishes.to->table = VornPolicyCpu::PolicyCpuTcamActionTypes::kTableId.whole();
    EXPECT_FALSE(compared(recording, wishes).reachedTo);
}

TEST(PlayerTest, ShowsInputsAndOutputsInTheirOrder) {
    std::string shown;
    Player::Wishes wishes;
    wishes.onInput = [&](const Recording::Event& event) {
        shown += "> " + Recording::textOf(event);
        return !Recording::is<Recording::Look>(event);
    };
    wishes.onOutput = [&](const Recording::Event& event) { shown += Recording::textOf(event); };
    compared(Recording::contentsOfText(kOneWrite), wishes);
    EXPECT_EQ(shown,
              "> start units=1 counters=2 policers=2 capacity=16\n"
              "= mounted action=0 v4=0 v6=0\n"
              "> write #1 v4 1 00000001.00000001 label=one priority=1 action=00000001.0 handler\n"
              "> turn\n"
              "= #1 written version=1\n"
              "> look map=1 log=this consumed=1 v4=1\n");
}

TEST(PlayerTest, RefusesWhatCannotBePlayed) {
    const auto refusal = [](const std::string& text) {
        try {
            compared(Recording::contentsOfText(text));
        } catch (const Recording::FormatError& error) {
            return std::string(error.what());
        }
        return std::string();
    };
    EXPECT_EQ(refusal("turn\n"), "event 1: no process has begun");
    const std::string start =
        "start units=1 counters=2 policers=2 capacity=16\n"
        "= mounted action=0 v4=0 v6=0\n";
    EXPECT_EQ(refusal(start + "remove #1 v4 7 1.1\n"), "event 3: there is no unit 7");
    EXPECT_EQ(refusal(start + "remove #1 counter 1 1/1\n"),
              "event 3: counter is no table of entries");
    EXPECT_EQ(refusal(start + "move v4 1.1\n"), "event 3: v4 is no pool");
    EXPECT_EQ(refusal(start + "remove #1 v4 1 1.1 after=#9\n"),
              "event 3: there is no change #9 before");
    EXPECT_EQ(refusal(start + "remove #1 v4 1 1.1 after=#foreign\n"),
              "event 3: the change waits for something that was not recorded");
    EXPECT_EQ(refusal(start + "write #1 v4 1 1.1 image=00\n"),
              "event 3: the entry is of another size");
}

TEST(PlayerTest, EachProcessHasItsOwnCapacity) {
    std::string text =
        "start units=1 counters=2 policers=2 capacity=2\n"
        "= mounted action=0 v4=0 v6=0\n"
        "end\n"
        "start units=1 counters=2 policers=2\n"
        "= mounted action=0 v4=0 v6=0\n";
    for (int i = 1; i <= 9; ++i)
        text += fmt::format("write #{} v4 1 {}.1 priority=1 action=1.0\n", i, i);
    text += "turn\n";
    for (int i = 1; i <= 9; ++i)
        text += fmt::format("= #{} written version={}\n", i, i);
    EXPECT_EQ(said(compared(Recording::contentsOfText(text))), "");
}

TEST(PlayerTest, EachProcessMountsTheFilesThatItsStartSays) {
    const std::string start =
        "start units=1 counters=2 policers=2 capacity=16\n"
        "= mounted action=0 v4=0 v6=0\n";
    // The second one finds an empty directory, whatever the first one has left.
    EXPECT_EQ(said(compared(Recording::contentsOfText(std::string(kOneWrite) + start))), "");
    EXPECT_EQ(said(compared(Recording::contentsOfText(
                  std::string(kOneWrite) + "end\n" +
                  with(with(start, "v4=0", "v4=2"), "=16", "=16 on-own-files")))),
              "event 15, input start units=1 counters=2 policers=2 capacity=16 on-own-files: "
              "= mounted action=0 v4=2 v6=0 / look map=1 log=this consumed=1 call=1 v4=1");
}

// Random inputs, as an agent might give them.

struct Random {
    std::string text = "start units=1,2 counters=3 policers=3 capacity=8\n";
    std::uint64_t changes = 0;
    std::uint64_t consumed = 0;
    std::map<std::string, std::uint64_t> versions;
};

/// What hardware may say next: anything that does not go backwards, true or not.
void addLook(Random& random) {
    random.consumed += *rc::gen::inRange(0U, 4U);
    random.text += fmt::format("look map=1 log=this consumed={}", random.consumed);
    if (*rc::gen::inRange(0, 10) == 0)
        random.text += " pause";
    for (const char* const table : {"action", "v4", "v6", "counter", "policer"}) {
        random.versions[table] += static_cast<std::uint64_t>(*rc::gen::inRange(0, 3));
        random.text += fmt::format(" {}={}", table, random.versions[table]);
    }
    random.text += '\n';
}

void addChange(Random& random) {
    const auto pick = [](int most) { return *rc::gen::inRange(0, most); };
    const int unit = 1 + pick(2);
    const std::string number = fmt::format("#{}", ++random.changes);
    std::string after;
    if (random.changes > 1 && pick(3) == 0)
        after = fmt::format(" after=#{}", 1 + pick(static_cast<int>(random.changes) - 1));
    const std::string handler = pick(2) == 0 ? " handler" : "";
    if (pick(12) == 0) {
        // A remove-all has no handle that something could wait for.
        random.text += fmt::format("remove-all {} v6 {}{}\n", number, unit, handler);
    } else if (pick(3) == 0) {
        random.text += fmt::format("remove {} {} {} {}{}{}\n", number, pick(2) == 0 ? "v4" : "v6",
                                   unit, fmt::format("{}.1", pick(6)), after, handler);
    } else if (pick(2) == 0) {
        random.text += fmt::format("write {} v6 {} {}.1 label=x priority={} action=1.0{}{}\n",
                                   number, unit, pick(6), pick(3), after, handler);
    } else {
        const int id = 1 + pick(4);
        random.text += fmt::format(
            "write {} action {} {}.0 counter={}/{} policer={}/{} mode=1 rate={} burst=1{}{}\n",
            number, unit, id, id, unit, id, unit, pick(2), after, handler);
    }
}

std::string randomInputs() {
    Random random;
    for (int steps = *rc::gen::inRange(1, 60); steps > 0; --steps) {
        switch (*rc::gen::inRange(0, 8)) {
            case 0:
            case 1:
            case 2:
                addChange(random);
                break;
            case 3:
                addLook(random);
                break;
            case 4:
                random.text += fmt::format("{} counter {}/1\n",
                                           std::array{"move", "fail", "restore"}.at(
                                               static_cast<std::size_t>(*rc::gen::inRange(0, 3))),
                                           *rc::gen::inRange(1, 5));
                break;
            default:
                random.text += "turn\n";
        }
    }
    return random.text;
}

RC_GTEST_PROP(PlayerProperty, WhatWasRecordedIsWhatComesOutAgain, ()) {
    const std::string inputs = randomInputs();
    Contents recording;
    try {
        recording = recordedAnew(Recording::contentsOfText(inputs));
    } catch (const Recording::FormatError&) {
        RC_DISCARD("waits for a remove-all");
    }
    RC_ASSERT(said(compared(recording)) == "");
    const std::string text = Recording::textOf(recording);
    RC_ASSERT(Recording::textOf(Recording::contentsOfText(text)) == text);
}

}  // namespace
}  // namespace ReplayTest
