// Records every trace line, at all levels, while it lives; then restores sink and filter.
#pragma once

#include <algorithm>
#include <string>
#include <string_view>
#include <vector>

#include "platform/brumo/Log.h"
#include "platform/brumo/Trace.h"

namespace TestSupport {

struct TraceLine {
    int level;
    std::string handle;
    std::string className;
    std::string function;
    std::string text;

    bool operator==(const TraceLine&) const = default;
};

class TraceCapture {
public:
    TraceCapture()
        : filterBefore_(Brumo::traceFilter()),
          sinkBefore_(Brumo::traceSinkIs([this](const Brumo::TraceRecord& record) {
              lines_.push_back({record.level, std::string(record.handle),
                                std::string(record.className), std::string(record.function),
                                std::string(record.text)});
          })) {
        Brumo::traceFilterIs("*/0-9");
    }
    TraceCapture(const TraceCapture&) = delete;
    TraceCapture& operator=(const TraceCapture&) = delete;
    ~TraceCapture() {
        Brumo::traceFilterIs(filterBefore_);
        Brumo::traceSinkIs(std::move(sinkBefore_));
    }

    const std::vector<TraceLine>& lines() const { return lines_; }
    void clear() { lines_.clear(); }

    /// Lines on a handle at a level with exactly this text.
    std::size_t count(std::string_view handle, int level, std::string_view text) const {
        return static_cast<std::size_t>(
            std::count_if(lines_.begin(), lines_.end(), [&](const TraceLine& line) {
                return line.handle == handle && line.level == level && line.text == text;
            }));
    }
    bool has(std::string_view handle, int level, std::string_view text) const {
        return count(handle, level, text) > 0;
    }
    /// The texts of a handle's lines at a level, in order.
    std::vector<std::string> texts(std::string_view handle, int level) const {
        std::vector<std::string> result;
        for (const TraceLine& line : lines_) {
            if (line.handle == handle && line.level == level)
                result.push_back(line.text);
        }
        return result;
    }

private:
    std::vector<TraceLine> lines_;
    std::string filterBefore_;
    Brumo::TraceSink sinkBefore_;
};

/// Records every log message while it lives.
class LogCapture {
public:
    struct Line {
        std::string identifier;
        std::string text;
        int severity;

        bool operator==(const Line&) const = default;
    };

    LogCapture()
        : sinkBefore_(
              Brumo::logSinkIs([this](const Brumo::LogMessage& message, std::string_view text) {
                  lines_.push_back(
                      {std::string(message.identifier), std::string(text), message.severity});
              })) {}
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;
    ~LogCapture() { Brumo::logSinkIs(std::move(sinkBefore_)); }

    const std::vector<Line>& lines() const { return lines_; }

private:
    std::vector<Line> lines_;
    Brumo::LogSink sinkBefore_;
};

}  // namespace TestSupport
