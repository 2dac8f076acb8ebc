#include "inspect/RingCtf.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <rapidcheck.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <limits>
#include <map>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include <fmt/format.h>
#include <nlohmann/json.hpp>

namespace Inspect::Test {
namespace {

using RingTrace::Message;
using RingTrace::Reading;
using Numbers = std::vector<std::int64_t>;
using testing::ElementsAre;
using testing::HasSubstr;

struct Event {
    std::uint32_t id = 0;
    std::uint64_t time_ns = 0;
    std::uint64_t sequence = 0;
    std::uint64_t recorded_ns = 0;
    std::string msg;
    std::string text;
    Numbers numbers;
};

struct Packet {
    std::uint64_t begin_ns = 0;
    std::uint64_t end_ns = 0;
    std::uint64_t discarded = 0;
    std::vector<Event> events;
};

/// Takes a stream apart as its metadata says; what does not fit throws.
class Bytes {
public:
    explicit Bytes(std::string_view bytes) : bytes_(bytes) {}

    bool isEmpty() const { return bytes_.empty(); }
    std::string_view take(std::size_t count) {
        if (count > bytes_.size())
            throw std::runtime_error("the stream ends in the middle");
        const std::string_view taken = bytes_.substr(0, count);
        bytes_.remove_prefix(count);
        return taken;
    }
    template <class Number>
    Number number() {
        Number value{};
        std::memcpy(&value, take(sizeof(value)).data(), sizeof(value));
        return value;
    }
    std::string text() {
        std::string value(take(bytes_.find('\0') + 1));
        value.pop_back();
        return value;
    }

private:
    std::string_view bytes_;
};

/// The fields of each event of the metadata, by the event's number.
std::map<std::uint32_t, std::string> fieldsIn(const std::string& metadata) {
    std::map<std::uint32_t, std::string> fields;
    for (std::size_t at = metadata.find("\nevent {"); at != std::string::npos;
         at = metadata.find("\nevent {", at + 1)) {
        const auto between = [&](const std::string& before, const std::string& behind) {
            const std::size_t begin = metadata.find(before, at) + before.size();
            return metadata.substr(begin, metadata.find(behind, begin) - begin);
        };
        fields[static_cast<std::uint32_t>(std::stoul(between("    id = ", ";")))] =
            between("fields := struct { ", "};");
    }
    return fields;
}

Event eventIn(Bytes& bytes, const std::map<std::uint32_t, std::string>& fields) {
    Event event;
    event.id = bytes.number<std::uint32_t>();
    event.time_ns = bytes.number<std::uint64_t>();
    event.sequence = bytes.number<std::uint64_t>();
    event.recorded_ns = bytes.number<std::uint64_t>();
    const std::string& declared = fields.at(event.id);
    EXPECT_TRUE(declared.starts_with("string msg; ")) << declared;
    event.msg = bytes.text();
    if (declared.find("string text; ") != std::string::npos)
        event.text = bytes.text();
    for (std::size_t at = declared.find("int64_t"); at != std::string::npos;
         at = declared.find("int64_t", at + 1))
        event.numbers.push_back(bytes.number<std::int64_t>());
    return event;
}

std::vector<Packet> packetsOf(const CtfTrace& trace) {
    const auto fields = fieldsIn(trace.metadata);
    std::vector<Packet> packets;
    for (Bytes rest(trace.stream); !rest.isEmpty();) {
        // The size of the packet is the fourth word of its context.
        constexpr std::size_t kHead = 64;
        std::uint64_t bits = 0;
        Bytes ahead = rest;
        std::memcpy(&bits, ahead.take(kHead).data() + 48, sizeof(bits));
        Bytes bytes(rest.take(bits / 8));
        EXPECT_EQ(bytes.number<std::uint32_t>(), 0xC1FC1FC1U);
        bytes.take(16);
        EXPECT_EQ(bytes.number<std::uint32_t>(), 0U);
        Packet& packet = packets.emplace_back();
        packet.begin_ns = bytes.number<std::uint64_t>();
        packet.end_ns = bytes.number<std::uint64_t>();
        EXPECT_EQ(bytes.number<std::uint64_t>(), bits);
        EXPECT_EQ(bytes.number<std::uint64_t>(), bits);
        packet.discarded = bytes.number<std::uint64_t>();
        while (!bytes.isEmpty())
            packet.events.push_back(eventIn(bytes, fields));
    }
    return packets;
}

std::vector<Event> eventsOf(const CtfTrace& trace) {
    std::vector<Event> events;
    for (const Packet& packet : packetsOf(trace))
        events.insert(events.end(), packet.events.begin(), packet.events.end());
    return events;
}

Message numbered(std::uint64_t sequence, std::uint64_t time_ns) {
    return {sequence, time_ns, 1, "number {}", Numbers{static_cast<std::int64_t>(sequence)}};
}

/// "BEGIN-END DISCARDED: SEQUENCES" of each packet.
std::vector<std::string> outlineOf(const CtfTrace& trace) {
    std::vector<std::string> lines;
    for (const Packet& packet : packetsOf(trace)) {
        lines.push_back(fmt::format("{}-{} {}:", packet.begin_ns, packet.end_ns, packet.discarded));
        for (const Event& event : packet.events)
            lines.back() += fmt::format(" {}", event.sequence);
    }
    return lines;
}

TEST(RingCtfTest, EventsHaveNumbersAndTextsAsFieldsBesideTheMessage) {
    const Reading reading{{{1, 10, 1, "{} of {} {} {}", Numbers{-1, -2, -3, -4}},
                           {2, 20, 2, "table {}", "Policy"},
                           {3, 30, 1, "{} of {} {} {}", Numbers{5}}},
                          {}};
    const CtfTrace trace = ctfTraceOf(reading, {});
    const std::vector<Event> events = eventsOf(trace);
    ASSERT_EQ(events.size(), 3U);
    EXPECT_EQ(events[0].msg, "-1 of -2 -3 -4");
    EXPECT_THAT(events[0].numbers, ElementsAre(-1, -2, -3, -4));
    EXPECT_EQ(events[1].text, "Policy");
    EXPECT_EQ(events[1].msg, "table Policy");
    EXPECT_THAT(events[2].numbers, ElementsAre(5));
    EXPECT_EQ(std::pair(events[2].time_ns, events[2].sequence), std::pair(30UL, 3UL));
    EXPECT_THAT(trace.metadata, HasSubstr("format_1 = \"table {}\";"));
}

TEST(RingCtfTest, GapsArePacketsThatCountWhatIsMissingBetweenTheirTimes) {
    const CtfTrace trace = ctfTraceOf(
        {{numbered(8, 10), numbered(9, 20), numbered(12, 30), numbered(13, 40)}, {}}, {});
    EXPECT_THAT(outlineOf(trace),
                ElementsAre("10-10 0:", "10-10 7:", "10-20 7: 8 9", "20-30 9:", "30-40 9: 12 13"));
    EXPECT_EQ(trace.discarded, 9U);
}

TEST(RingCtfTest, CountsNothingWhereNothingIsMissing) {
    const CtfTrace trace = ctfTraceOf({{numbered(1, 10), numbered(2, 20)}, {}}, {});
    EXPECT_THAT(outlineOf(trace), ElementsAre("10-10 0:", "10-20 0: 1 2"));
}

TEST(RingCtfTest, EmptyRingIsATraceWithoutPackets) {
    const CtfTrace trace = ctfTraceOf({{}, {3, 5}}, {});
    EXPECT_EQ(trace.stream, "");
    EXPECT_THAT(trace.metadata, HasSubstr("rotten_slots = 2;"));
    EXPECT_THAT(trace.metadata, testing::Not(HasSubstr("event {")));
}

TEST(RingCtfTest, TimeThatWasSetBackStandsStillAndIsToldBeside) {
    constexpr std::uint64_t kBefore1970 = std::numeric_limits<std::uint64_t>::max();
    std::vector<std::uint64_t> times;
    std::vector<std::uint64_t> recorded;
    for (const Event& event : eventsOf(ctfTraceOf(
             {{numbered(1, 30), numbered(2, 10), numbered(3, kBefore1970), numbered(4, 40)}, {}},
             {}))) {
        times.push_back(event.time_ns);
        recorded.push_back(event.recorded_ns);
    }
    EXPECT_THAT(times, ElementsAre(30, 30, 30, 40));
    EXPECT_THAT(recorded, ElementsAre(30, 10, kBefore1970, 40));
}

TEST(RingCtfTest, EventNamesAreTheWordsOfTheFormat) {
    EXPECT_EQ(ctfEventName(" Restored {} entries for table: A, unitId: {}"),
              "Restored_entries_for_table_A_unitId");
    EXPECT_EQ(ctfEventName("\"quoted\" \\ \x01 größe"), "quoted_gr_e");
    EXPECT_EQ(ctfEventName("{}"), "message");
    EXPECT_EQ(ctfEventName("?"), "message");
}

TEST(RingCtfTest, EventsOfOneNameAreNumbered) {
    const CtfTrace trace = ctfTraceOf(
        {{{1, 1, 1, "a {}", Numbers{}}, {2, 2, 2, "a: {}", Numbers{}}, {3, 3, 1, "a {}", "x"}}, {}},
        {});
    for (const char* name : {"\"a\"", "\"a_2\"", "\"a_3\""})
        EXPECT_THAT(trace.metadata, HasSubstr(fmt::format("name = {};", name)));
}

TEST(RingCtfTest, StringsOfTheMetadataAreEscaped) {
    EXPECT_EQ(tsdlString("a \"b\" \\ {}"), R"("a \"b\" \\ {}")");
    EXPECT_EQ(tsdlString("1\n2\x01"
                         "3\x7F"),
              R"("1\0122\0013\177")");
    EXPECT_EQ(tsdlString("größe"), "\"größe\"");
    EXPECT_EQ(tsdlString("cut \xC3"), "\"cut \uFFFD\"");
}

TEST(RingCtfTest, TellsWhereItComesFrom) {
    CtfOrigin origin{"host \"one\"", "vorn-agent", "/a b/agent.ring", {1, 2, 3}, {}};
    origin.uuid = {0x2a, 0x64, 0x22, 0xd0, 0x6c, 0xee, 0x41, 0xe0,
                   0x8c, 0x08, 0xcb, 0x07, 0xd7, 0xb3, 0xa5, 0x64};
    const CtfTrace trace = ctfTraceOf({{numbered(1, 10)}, {}}, origin);
    for (const char* line :
         {"uuid = \"2a6422d0-6cee-41e0-8c08-cb07d7b3a564\";", "hostname = \"host \\\"one\\\"\";",
          "procname = \"vorn-agent\";", "tracer_major = 1;", "tracer_minor = 2;",
          "tracer_patchlevel = 3;", "ring_file = \"/a b/agent.ring\";"})
        EXPECT_THAT(trace.metadata, HasSubstr(line));
    EXPECT_EQ(trace.stream.substr(4, 16), std::string(origin.uuid.begin(), origin.uuid.end()));
}

/// Without the bytes that no text of a ring has.
rc::Gen<std::string> anyText() {
    return rc::gen::container<std::string>(rc::gen::nonZero<char>());
}

rc::Gen<Message> anyMessage() {
    const auto anyNumbers = rc::gen::mapcat(rc::gen::inRange<std::size_t>(0, 5), [](auto count) {
        return rc::gen::container<Numbers>(count, rc::gen::arbitrary<std::int64_t>());
    });
    using Arguments = decltype(Message::arguments);
    return rc::gen::construct<Message>(
        rc::gen::oneOf(rc::gen::inRange<std::uint64_t>(1, 50), rc::gen::arbitrary<std::uint64_t>()),
        rc::gen::oneOf(rc::gen::inRange<std::uint64_t>(0, 100),
                       rc::gen::arbitrary<std::uint64_t>()),
        rc::gen::inRange<RingTrace::MessageId>(0, 4), anyText(),
        rc::gen::oneOf(rc::gen::map(anyText(), [](std::string text) { return Arguments(text); }),
                       rc::gen::map(anyNumbers, [](Numbers n) { return Arguments(n); })));
}

void requireUtf8(const std::string& text) {
    RC_ASSERT(!nlohmann::json(text).dump().empty());  // throws where it is none
}

/// Blocks and strings close, and no byte stands in it that a reader takes for something else.
void requireReadable(const std::string& metadata) {
    int depth = 0;
    bool isString = false;
    for (std::size_t i = 0; i < metadata.size(); ++i) {
        const char c = metadata[i];
        RC_ASSERT(static_cast<unsigned char>(c) >= ' ' || (c == '\n' && !isString));
        if (isString && c == '\\') {
            ++i;
            RC_ASSERT(metadata[i] == '"' || metadata[i] == '\\' ||
                      (metadata[i] >= '0' && metadata[i] <= '7'));
        } else if (c == '"')
            isString = !isString;
        else if (!isString)
            depth += c == '{' ? 1 : c == '}' ? -1 : 0;
    }
    RC_ASSERT(depth == 0 && !isString);
    requireUtf8(metadata);
}

TEST(RingCtfTest, AnyMessagesGiveATraceWhosePacketsAndTextsHold) {
    EXPECT_TRUE(rc::check("any reading", [] {
        Reading reading{*rc::gen::container<std::vector<Message>>(anyMessage()), {}};
        std::ranges::sort(reading.messages, {}, &Message::sequence);
        // An id has one format.
        std::map<RingTrace::MessageId, std::string> formats;
        for (Message& message : reading.messages)
            message.format = formats.try_emplace(message.id, message.format).first->second;
        const CtfTrace trace = ctfTraceOf(reading, {"h", "p", *anyText(), {}, {}});
        requireReadable(trace.metadata);
        std::uint64_t now_ns = 0;
        std::uint64_t discarded = 0;
        std::vector<Event> events;
        for (const Packet& packet : packetsOf(trace)) {
            RC_ASSERT(packet.begin_ns >= now_ns);
            RC_ASSERT(packet.discarded >= discarded);
            now_ns = packet.begin_ns;
            discarded = packet.discarded;
            for (const Event& event : packet.events) {
                RC_ASSERT(event.time_ns >= now_ns);
                now_ns = event.time_ns;
                events.push_back(event);
            }
            RC_ASSERT(packet.end_ns >= now_ns);
            now_ns = packet.end_ns;
        }
        RC_ASSERT(now_ns < std::uint64_t{std::numeric_limits<std::int64_t>::max()});
        RC_ASSERT(events.size() == reading.messages.size());
        for (std::size_t i = 0; i < events.size(); ++i) {
            const Message& message = reading.messages[i];
            RC_ASSERT(events[i].sequence == message.sequence);
            RC_ASSERT(events[i].recorded_ns == message.time_ns);
            requireUtf8(events[i].msg);
            requireUtf8(events[i].text);
            if (const auto* numbers = std::get_if<Numbers>(&message.arguments); numbers != nullptr)
                RC_ASSERT(events[i].numbers == *numbers);
        }
    }));
}

}  // namespace
}  // namespace Inspect::Test
