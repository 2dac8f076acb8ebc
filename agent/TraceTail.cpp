#include "agent/TraceTail.h"

#include <algorithm>

#include <fmt/format.h>

#include "agent/WallClock.h"

namespace Agent {

TraceTail::TraceTail() {
    before_ = Brumo::traceSinkIs([this](const Brumo::TraceRecord& record) { take(record); });
}

TraceTail::~TraceTail() {
    Brumo::traceSinkIs(before_);
}

void TraceTail::take(const Brumo::TraceRecord& record) {
    if (lines_.size() == kMostLines)
        lines_.pop_front();
    lines_.push_back({++last_, secondsSince1970(), record.level, std::string(record.handle),
                      fmt::format("{}::{}:{}{}", record.className, record.function,
                                  record.text.starts_with(' ') ? "" : " ", record.text)});
    before_(record);
}

Json TraceTail::json(std::uint64_t after, std::size_t limit) const {
    if (after > last_)
        after = 0;  // a number of the process before
    Json lines = Json::array();
    const std::uint64_t first = last_ - lines_.size() + 1;
    for (const Line& line : lines_) {
        if (line.number <= after)
            continue;
        if (lines.size() == limit)
            break;
        lines.push_back({{"number", line.number},
                         {"time", line.time},
                         {"level", line.level},
                         {"handle", line.handle},
                         {"text", line.text}});
    }
    return {{"last", lines.empty() ? after : lines.back()["number"].get<std::uint64_t>()},
            {"lost", first > after + 1 ? first - after - 1 : 0},
            {"lines", std::move(lines)}};
}

}  // namespace Agent
