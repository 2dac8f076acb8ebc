// The layouts are those of the metadata below; all is aligned to bytes, little endian.
#include "inspect/RingCtf.h"

#include <algorithm>
#include <bit>
#include <limits>
#include <map>
#include <set>
#include <span>
#include <utility>

#include <fmt/format.h>
#include <nlohmann/json.hpp>

namespace Inspect {

namespace {

using RingTrace::Message;
using RingTrace::Reading;

static_assert(std::endian::native == std::endian::little);

constexpr std::uint32_t kMagic = 0xC1FC1FC1;
constexpr std::uint32_t kStreamId = 0;
/// Readers count in signed nanoseconds, the greatest of which is no time.
constexpr auto kLatest_ns = std::uint64_t{std::numeric_limits<std::int64_t>::max()} - 1;

constexpr std::string_view kTypes = R"(/* CTF 1.8 */

typealias integer { size = 8; align = 8; signed = false; } := uint8_t;
typealias integer { size = 32; align = 8; signed = false; } := uint32_t;
typealias integer { size = 64; align = 8; signed = false; } := uint64_t;
typealias integer { size = 64; align = 8; signed = true; } := int64_t;
)";

constexpr std::string_view kStream = R"(
clock {
    name = realtime;
    description = "nanoseconds since 1970";
    freq = 1000000000;
    offset_s = 0;
    offset = 0;
    absolute = TRUE;
};

typealias integer {
    size = 64; align = 8; signed = false; map = clock.realtime.value;
} := realtime_t;

stream {
    id = 0;
    packet.context := struct {
        realtime_t timestamp_begin;
        realtime_t timestamp_end;
        uint64_t content_size;
        uint64_t packet_size;
        uint64_t events_discarded;
    };
    event.header := struct {
        uint32_t id;
        realtime_t timestamp;
    };
    event.context := struct {
        uint64_t sequence;
        uint64_t recorded_ns;
    };
};
)";

std::string asUtf8(const std::string& text) {
    const std::string document =
        nlohmann::json(text).dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
    return nlohmann::json::parse(document).get<std::string>();
}

void append(std::string& bytes, std::unsigned_integral auto number) {
    const auto raw = std::bit_cast<std::array<char, sizeof(number)>>(number);
    bytes.append(raw.data(), raw.size());
}

void append(std::string& bytes, const std::string& text) {
    bytes.append(asUtf8(text)).push_back('\0');
}

/// A format with the kind and number of its arguments, which make the fields of an event.
struct EventClass {
    RingTrace::MessageId format = 0;
    bool isText = false;
    std::size_t numbers = 0;
    auto operator<=>(const EventClass&) const = default;
};

EventClass classOf(const Message& message) {
    const auto* const numbers = std::get_if<std::vector<std::int64_t>>(&message.arguments);
    return {message.id, numbers == nullptr, numbers == nullptr ? 0 : numbers->size()};
}

/// Numbered in the order in which they are first met.
class EventClasses {
public:
    explicit EventClasses(const Reading& reading) {
        for (const Message& message : reading.messages) {
            const auto id = static_cast<std::uint32_t>(ids_.size());
            if (ids_.try_emplace(classOf(message), id).second)
                examples_.push_back(&message);
        }
    }

    std::uint32_t idOf(const Message& message) const { return ids_.at(classOf(message)); }
    /// The first message of each.
    const std::vector<const Message*>& examples() const { return examples_; }

private:
    std::map<EventClass, std::uint32_t> ids_;
    std::vector<const Message*> examples_;
};

/// Messages without a gap between them.
using Run = std::span<const Message>;

/// How many are missing between two numbers.
std::uint64_t missingBetween(std::uint64_t before, std::uint64_t after) {
    return after > before ? after - before - 1 : 0;
}

std::vector<Run> runsOf(const std::vector<Message>& messages) {
    std::vector<Run> runs;
    for (auto begin = messages.begin(); begin != messages.end();) {
        auto end = std::adjacent_find(begin, messages.end(), [](const auto& a, const auto& b) {
            return missingBetween(a.sequence, b.sequence) != 0;
        });
        if (end != messages.end())
            ++end;
        runs.emplace_back(begin, end);
        begin = end;
    }
    return runs;
}

class Stream {
public:
    Stream(const EventClasses& classes, const std::array<std::uint8_t, 16>& uuid)
        : classes_(classes), uuid_(uuid) {}

    /// A gap is a packet without events: its count lies between its times. A count means something
    /// only behind another, so there is one of 0 at first.
    void add(Run run, std::uint64_t missing) {
        if (bytes_.empty()) {
            now_ns_ = timeOf(run.front());
            addPacket({});
        }
        if (missing != 0) {
            discarded_ += missing;
            const std::uint64_t begin_ns = now_ns_;
            now_ns_ = timeOf(run.front());
            addPacket({}, begin_ns);
        }
        addPacket(run);
    }

    std::uint64_t discarded() const { return discarded_; }
    std::string& bytes() { return bytes_; }

private:
    std::uint64_t timeOf(const Message& message) const {
        return message.time_ns > kLatest_ns ? now_ns_ : std::max(now_ns_, message.time_ns);
    }

    std::string eventsOf(Run run) {
        std::string events;
        for (const Message& message : run) {
            now_ns_ = timeOf(message);
            append(events, classes_.idOf(message));
            append(events, now_ns_);
            append(events, message.sequence);
            append(events, message.time_ns);
            append(events, textOf(message));
            if (const auto* text = std::get_if<std::string>(&message.arguments); text != nullptr) {
                append(events, *text);
                continue;
            }
            for (const std::int64_t number : std::get<0>(message.arguments))
                append(events, static_cast<std::uint64_t>(number));
        }
        return events;
    }

    void addPacket(Run run) { addPacket(run, run.empty() ? now_ns_ : timeOf(run.front())); }

    void addPacket(Run run, std::uint64_t begin_ns) {
        constexpr std::uint64_t kHeadBytes = 4 + 16 + 4 + 5 * 8;
        const std::string events = eventsOf(run);
        const std::uint64_t bits = (kHeadBytes + events.size()) * 8;
        append(bytes_, kMagic);
        bytes_.append(uuid_.begin(), uuid_.end());
        append(bytes_, kStreamId);
        for (const std::uint64_t word : {begin_ns, now_ns_, bits, bits, discarded_})
            append(bytes_, word);
        bytes_ += events;
    }

    const EventClasses& classes_;
    const std::array<std::uint8_t, 16>& uuid_;
    std::string bytes_;
    std::uint64_t now_ns_ = 0;
    std::uint64_t discarded_ = 0;
};

std::string uuidText(const std::array<std::uint8_t, 16>& uuid) {
    const std::span<const std::uint8_t> bytes(uuid);
    return fmt::format("{:02x}-{:02x}-{:02x}-{:02x}-{:02x}", fmt::join(bytes.subspan(0, 4), ""),
                       fmt::join(bytes.subspan(4, 2), ""), fmt::join(bytes.subspan(6, 2), ""),
                       fmt::join(bytes.subspan(8, 2), ""), fmt::join(bytes.subspan(10, 6), ""));
}

std::string traceBlock(const CtfOrigin& origin) {
    return fmt::format(R"(
trace {{
    major = 1;
    minor = 8;
    uuid = "{}";
    byte_order = le;
    packet.header := struct {{
        uint32_t magic;
        uint8_t uuid[16];
        uint32_t stream_id;
    }};
}};
)",
                       uuidText(origin.uuid));
}

/// With the text of the format of each event, under the event's number.
std::string environmentBlock(const Reading& reading, const EventClasses& classes,
                             const CtfOrigin& origin) {
    std::string block = fmt::format(
        "\nenv {{\n    hostname = {};\n    procname = {};\n    tracer_name = \"vorn-ring\";\n"
        "    tracer_major = {};\n    tracer_minor = {};\n    tracer_patchlevel = {};\n"
        "    ring_file = {};\n    rotten_slots = {};\n",
        tsdlString(origin.host), tsdlString(origin.process), origin.version[0], origin.version[1],
        origin.version[2], tsdlString(origin.file), reading.rottenSlots.size());
    for (const Message* message : classes.examples())
        block += fmt::format("    format_{} = {};\n", classes.idOf(*message),
                             tsdlString(message->format));
    return block + "};\n";
}

std::string fieldsOf(const EventClass& shape) {
    std::string fields = "string msg; ";
    if (shape.isText)
        fields += "string text; ";
    for (std::size_t i = 1; i <= shape.numbers; ++i)
        fields += fmt::format("int64_t arg{}; ", i);
    return fields;
}

std::string eventBlocks(const EventClasses& classes) {
    std::string blocks;
    std::set<std::string> taken;
    for (const Message* message : classes.examples()) {
        const std::string name = ctfEventName(message->format);
        std::string unique = name;
        for (int i = 2; !taken.insert(unique).second; ++i)
            unique = fmt::format("{}_{}", name, i);
        blocks += fmt::format(
            "\nevent {{\n    name = {};\n    id = {};\n    stream_id = {};\n"
            "    fields := struct {{ {}}};\n}};\n",
            tsdlString(unique), classes.idOf(*message), kStreamId, fieldsOf(classOf(*message)));
    }
    return blocks;
}

}  // namespace

std::string ctfEventName(std::string_view format) {
    const auto isWord = [](char c) {
        return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9');
    };
    std::string name;
    for (const char c : format) {
        if (isWord(c))
            name += c;
        else if (!name.empty() && name.back() != '_')
            name += '_';
    }
    if (name.ends_with('_'))
        name.pop_back();
    return name.empty() ? "message" : name;
}

std::string tsdlString(std::string_view text) {
    std::string literal = "\"";
    for (const char c : asUtf8(std::string(text))) {
        const auto byte = static_cast<unsigned char>(c);
        if (c == '"' || c == '\\')
            literal += {'\\', c};
        else if (byte < ' ' || byte == 0x7F)
            literal += fmt::format("\\{:03o}", byte);
        else
            literal += c;
    }
    return literal + '"';
}

CtfTrace ctfTraceOf(const Reading& reading, const CtfOrigin& origin) {
    const EventClasses classes(reading);
    Stream stream(classes, origin.uuid);
    std::uint64_t before = 0;
    for (const Run run : runsOf(reading.messages)) {
        stream.add(run, missingBetween(before, run.front().sequence));
        before = run.back().sequence;
    }
    std::string metadata(kTypes);
    metadata += traceBlock(origin);
    metadata += environmentBlock(reading, classes, origin);
    metadata += kStream;
    metadata += eventBlocks(classes);
    return {std::move(metadata), std::move(stream.bytes()), stream.discarded()};
}

}  // namespace Inspect
