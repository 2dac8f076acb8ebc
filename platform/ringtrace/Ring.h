// The ring trace: the last messages of a process in a file, always on, readable after a kill.
//
// One thread records, the one that made the ring; anybody dumps. Recording formats nothing: it
// stores numbers, and the text is made when the file is read.
//
// What always holds:
//  1. A slot is 64 bytes; its check is taken away first and stored last, so a kill leaves whole
//     messages only, and a slot that is being overwritten is left out of a reading.
//  2. The formats lie in the file, so a reading needs nothing but the file.
//  3. A format that does not fit any more gets id 0, whose messages say "?".
//  4. A slot's check covers its message and the message's format. Where either has rotted, a
//     reading names the slot, and never another message than was recorded.
#pragma once

#include <sys/types.h>

#include <array>
#include <concepts>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

namespace RingTrace {

/// Identifies a registered format in its ring.
using MessageId = std::uint32_t;

/// A message as it was recorded.
struct Message {
    std::uint64_t sequence = 0;  ///< counts from 1; what is missing was overwritten or has rotted
    std::uint64_t time_ns = 0;   ///< since 1970
    MessageId id = 0;
    std::string format;                                              ///< "?" for id 0
    std::variant<std::vector<std::int64_t>, std::string> arguments;  ///< up to 4 numbers, or a text
};

/// What a ring holds.
struct Reading {
    std::vector<Message> messages;         ///< oldest first
    std::vector<std::size_t> rottenSlots;  ///< that do not verify
};

/// The format with its placeholders replaced from the left; those without an argument stay.
std::string textOf(const Message& message);
/// A line each: "SECONDS.NANOSECONDS TEXT". Behind them comes "? slot NUMBER does not verify" for
/// each slot that is rotten.
std::vector<std::string> linesOf(const Reading& reading);

class Ring {
public:
    static constexpr std::size_t kMostArguments = 4;
    static constexpr std::size_t kMostText = 31;
    static constexpr std::size_t kMostFormats = 256;

    /// Makes the file new with room for `slots` messages, a power of two. Throws std::system_error
    /// with the path.
    Ring(const std::string& file, std::size_t slots);
    Ring(const Ring&) = delete;
    Ring& operator=(const Ring&) = delete;
    ~Ring();

    /// Registers a format with `{}` placeholders; the same text gives the same id.
    MessageId message(std::string_view format);

    /// Records up to 4 numbers.
    template <std::integral... Arguments>
    requires(sizeof...(Arguments) <= kMostArguments) void record(MessageId id,
                                                                 Arguments... arguments) {
        const std::array<std::uint64_t, kMostArguments> words{
            static_cast<std::uint64_t>(arguments)...};
        store(id, sizeof...(Arguments), words);
    }
    /// Records a text, cut to 31 bytes.
    void record(MessageId id, std::string_view text);

    /// The messages still there.
    Reading read() const;
    /// The same from a file of this user or of root, or of anybody for root, whichever process
    /// wrote it. Throws std::system_error, or std::runtime_error when the file is no ring.
    static Reading read(const std::string& file);
    /// The lines of a reading.
    std::vector<std::string> dump() const { return linesOf(read()); }
    static std::vector<std::string> dump(const std::string& file) { return linesOf(read(file)); }
    /// Whether that user may be shown a ring of that owner: what others write is not to be trusted.
    static bool isShown(uid_t user, uid_t owner) {
        return owner == user || owner == 0 || user == 0;
    }

private:
    void store(MessageId id, std::size_t kind, const std::array<std::uint64_t, 4>& words);

    std::string file_;
    std::byte* base_ = nullptr;
    std::size_t bytes_ = 0;
    std::size_t slots_;
    std::uint64_t sequence_ = 0;
    std::vector<std::string> formats_;
    std::vector<std::uint64_t> formatSums_;
};

}  // namespace RingTrace
