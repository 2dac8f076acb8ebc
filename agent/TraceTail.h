// The last trace lines of this process, for whoever asks over the control socket; they go to
// standard error as well.
//
// Event thread only, which is the thread that traces.
#pragma once

#include <algorithm>
#include <cstdint>
#include <deque>
#include <string>

#include <nlohmann/json.hpp>

#include "platform/brumo/Trace.h"

namespace Agent {

using Json = nlohmann::ordered_json;

class TraceTail {
public:
    static constexpr std::size_t kMostLines = 4096;

    /// Takes the place of the sink that is there, and gives it back when it goes.
    TraceTail();
    TraceTail(const TraceTail&) = delete;
    TraceTail& operator=(const TraceTail&) = delete;
    ~TraceTail();

    /// {"last", "lost", "lines"}: the lines after number `after` that are still there, at most
    /// `limit` from the first of them on; "last": the last number seen so; "lost": how many are not
    /// there any more.
    Json json(std::uint64_t after, std::size_t limit) const;
    /// The same of the last `count` lines.
    Json newest(std::size_t count) const {
        return json(last_ - std::min<std::uint64_t>(count, last_), count);
    }

private:
    struct Line {
        std::uint64_t number;
        double time;  ///< seconds since 1970
        int level;
        std::string handle;
        std::string text;
    };

    void take(const Brumo::TraceRecord& record);

    Brumo::TraceSink before_;
    std::deque<Line> lines_;
    std::uint64_t last_ = 0;
};

}  // namespace Agent
