// Trace output: named handles, ten levels, a filter that can change at run time, and sinks.
//
// Every source unit owns one named handle. A line carries its level, the handle, the class and the
// function that speak, and a text with `{}` placeholders. Levels: 1 failures, 2 lifecycle and
// finished operations, 3 results and notable decisions, 8 entry into an operation, 9 iteration
// steps and needed versions.
//
// What always holds:
//  1. A disabled line costs one load and one predictable branch: nothing is formatted.
//  2. A handle, once made, lives until the process ends; the same name gives the same handle.
//  3. Sinks are called on the thread that traces.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include <fmt/format.h>

#include "platform/brumo/Text.h"

namespace Brumo {

/// One line as a sink gets it. The views live for the call only.
struct TraceRecord {
    int level;
    std::string_view handle;
    std::string_view className;
    std::string_view function;
    std::string_view text;
};

class TraceHandle {
public:
    explicit TraceHandle(std::string name) : name_(std::move(name)) {}

    /// The handle of that name, made on first use.
    static TraceHandle& named(std::string_view name);

    const std::string& name() const { return name_; }
    bool enabled(int level) const {
        return (levels_.load(std::memory_order_relaxed) >> level & 1U) != 0;
    }
    /// Bit n enables level n.
    void levelsIs(std::uint32_t levels) { levels_.store(levels, std::memory_order_relaxed); }
    std::uint32_t levels() const { return levels_.load(std::memory_order_relaxed); }

private:
    std::string name_;
    std::atomic<std::uint32_t> levels_{0};
};

/// The text of a line together with the function that it stands in.
template <class... Arguments>
struct TraceText {
    template <class Text>
    // Implicit: it stands where a literal is written.
    consteval TraceText(const Text& literal, const char* where = __builtin_FUNCTION())
        : text(literal), function(where) {}

    fmt::format_string<Arguments...> text;
    const char* function;
};

/// A class that traces on a handle; a constant of the class.
class TraceSource {
public:
    TraceSource(std::string_view handle, std::string_view className)
        : handle_(&TraceHandle::named(handle)), className_(className) {}

    bool enabled(int level) const { return handle_->enabled(level); }

    template <class... Arguments>
    void operator()(int level, TraceText<std::type_identity_t<Arguments>...> line,
                    const Arguments&... arguments) const {
        if (handle_->enabled(level)) [[unlikely]] {
            emit(level, line.function, line.text, fmt::make_format_args(arguments...));
        }
    }

    /// The same, in the name of another function: for steps that stand in functions of their own.
    template <class... Arguments>
    void in(const char* function, int level, TraceText<std::type_identity_t<Arguments>...> line,
            const Arguments&... arguments) const {
        if (handle_->enabled(level)) [[unlikely]] {
            emit(level, function, line.text, fmt::make_format_args(arguments...));
        }
    }

private:
    void emit(int level, const char* function, fmt::string_view text, fmt::format_args args) const;

    TraceHandle* handle_;
    std::string className_;
};

/// Where lines go. The default writes to standard error.
using TraceSink = std::function<void(const TraceRecord&)>;

/// Replaces the sink and returns the one before.
TraceSink traceSinkIs(TraceSink sink);

/// Writes "LEVEL HANDLE CLASS::FUNCTION:TEXT" lines to standard error.
TraceSink standardErrorTraceSink();

/// Appends the same lines to a file. Throws std::system_error with the path when it cannot be
/// opened.
TraceSink fileTraceSink(const std::string& path);

/// Sets the filter: "GLOB/LEVELS[;GLOB/LEVELS...]" with LEVELS like "1-3,8"; the last match counts.
/// Applies to handles that exist and to those made later. Throws std::invalid_argument with the
/// part that is wrong; nothing is changed then. The start value is "*/1-2", or the environment
/// variable VORN_TRACE.
void traceFilterIs(const std::string& filter);
std::string traceFilter();

/// The names of all handles made so far, sorted.
std::vector<std::string> traceHandleNames();

}  // namespace Brumo
