// Where the events of a recorder go.
//
// Event thread only.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>

#include "recording/Codec.h"
#include "recording/Frames.h"

namespace Recording {

class Sink {
public:
    virtual ~Sink() = default;

    /// `time`: of the turn of the event loop, by a clock of its own. Flat: fields stay in registers
    /// until they are words of a frame.
    template <class Kind>
    [[gnu::flatten]] void tell(const Kind& event, std::chrono::nanoseconds time) {
        const std::size_t size = sizeOf(event);
        const std::chrono::nanoseconds passed = window_.passedUntil(time);
        if (!window_.hasRoom(size, passed)) [[unlikely]]
            return tellElsewhere(event, time);
        window_.take(storeWords(event, window_.frame(size, passed)));
        window_.last = time;
    }
    /// An event as bytes, which are the caller's; also one that has no room in the window.
    virtual void eventIs(const Buffer& event, std::chrono::nanoseconds time) = 0;

protected:
    /// Memory for frames, so that an event that has room there costs no call.
    struct Window {
        std::uint64_t* next = nullptr;  ///< where the next frame goes: zeros from here on
        std::uint64_t* end = nullptr;
        std::size_t offset = 0;  ///< of the next frame in all that the recording's frames take
        std::chrono::nanoseconds last = std::chrono::nanoseconds::max();  ///< none before

        std::chrono::nanoseconds passedUntil(std::chrono::nanoseconds time) const {
            return time > last ? time - last : std::chrono::nanoseconds{0};
        }
        bool hasRoom(std::size_t bytes, std::chrono::nanoseconds passed) const {
            return frameWords(bytes, passed) <= static_cast<std::size_t>(end - next);
        }
        FrameStore frame(std::size_t bytes, std::chrono::nanoseconds passed) const {
            return {next, bytes, passed, offset};
        }
        /// REQUIRES: all words of the frame, which is that of frame(), are stored.
        void take(FrameStore frame) {
            std::uint64_t* const behind = frame.finish();
            offset += static_cast<std::size_t>(behind - next) * kWordSize;
            next = behind;
        }
    };
    /// Whoever lends none is told of each event as bytes.
    Window window_;

private:
    template <class Kind>
    [[gnu::noinline]] void tellElsewhere(const Kind& event, std::chrono::nanoseconds time) {
        encode(event, buffer_);
        eventIs(buffer_, time);
    }

    Buffer buffer_;
};

}  // namespace Recording
