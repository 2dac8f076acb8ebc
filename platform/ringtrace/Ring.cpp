#include "platform/ringtrace/Ring.h"

#define XXH_INLINE_ALL
#include <xxhash.h>

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <bit>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <memory>
#include <optional>
#include <span>
#include <stdexcept>
#include <system_error>

#include <fmt/format.h>

#include "platform/brumo/Assert.h"

namespace RingTrace {
namespace {

constexpr std::uint64_t kMagic = 0x32474E4952535642U;
constexpr std::size_t kFormatBytes = 128;
constexpr std::size_t kTextKind = 0xFF;

/// First bytes of the file; the formats follow, then the slots.
///
///   0       8       16             64
///   | magic | slots | reserved[6]  |
struct Header {
    std::uint64_t magic;
    std::uint64_t slots;
    std::uint64_t reserved[6];
};
static_assert(sizeof(Header) == 64);

constexpr std::size_t kSlotsOffset = sizeof(Header) + Ring::kMostFormats * kFormatBytes;

/// One message.
///
///   0       8          16     24        28     32           64
///   | check | sequence | time | message | kind | argument[4] |
struct Slot {
    std::uint64_t check;     ///< of what follows; 0 before and while the slot is stored
    std::uint64_t sequence;  ///< counts from 1
    std::uint64_t time_ns;
    std::uint32_t message;
    std::uint32_t kind;  ///< number of arguments, or kTextKind
    std::uint64_t argument[4];
};
static_assert(sizeof(Slot) == 64 && offsetof(Slot, argument) == 32);

using SlotWords = std::array<std::uint64_t, sizeof(Slot) / sizeof(std::uint64_t)>;

/// Of a format as it lies in the file, zeros behind it.
std::uint64_t formatSumOf(const std::byte* base, std::uint64_t id) {
    return XXH3_64bits_withSeed(base + sizeof(Header) + id * kFormatBytes, kFormatBytes, id);
}

/// Never 0, nor one bit away from it: what was stored does not rot into what was not.
std::uint64_t checkOf(const SlotWords& words, std::uint64_t slot, std::uint64_t formatSum) {
    return XXH3_64bits_withSeed(words.data() + 1, sizeof(Slot) - sizeof(words[0]),
                                formatSum + slot) |
           3U;
}

std::atomic_ref<std::uint64_t> word(const std::uint64_t& place) {
    return std::atomic_ref<std::uint64_t>(const_cast<std::uint64_t&>(place));
}

[[noreturn]] void throwErrno(const std::string& file, const char* operation) {
    throw std::system_error(errno, std::generic_category(), file + ": " + operation);
}

/// A descriptor for the time it takes to map.
struct File {
    int fd;
    explicit File(int opened) : fd(opened) {}
    File(const File&) = delete;
    File& operator=(const File&) = delete;
    ~File() {
        if (fd >= 0)
            close(fd);
    }
};

std::string formatIn(const std::byte* base, std::uint64_t id) {
    if (id == 0)
        return "?";
    const char* text = reinterpret_cast<const char*>(base) + sizeof(Header) + id * kFormatBytes;
    return {text, strnlen(text, kFormatBytes)};
}

Message messageOf(const std::byte* base, const Slot& slot) {
    Message message{slot.sequence, slot.time_ns, slot.message, formatIn(base, slot.message), {}};
    if (slot.kind == kTextKind) {
        const char* text = reinterpret_cast<const char*>(slot.argument);
        message.arguments.emplace<std::string>(text, strnlen(text, sizeof(slot.argument)));
    } else {
        const std::span used(slot.argument, std::min<std::size_t>(slot.kind, Ring::kMostArguments));
        message.arguments.emplace<std::vector<std::int64_t>>(used.begin(), used.end());
    }
    return message;
}

std::uint64_t* wordsOf(const std::byte* base, std::size_t slot) {
    const std::byte* place = base + kSlotsOffset + slot * sizeof(Slot);
    return const_cast<std::uint64_t*>(reinterpret_cast<const std::uint64_t*>(place));
}

/// What a slot holds; empty before and while it is stored.
std::optional<SlotWords> wordsIn(const std::byte* base, std::size_t slot) {
    const std::uint64_t* place = wordsOf(base, slot);
    SlotWords words{word(place[0]).load(std::memory_order_acquire)};
    for (std::size_t i = 1; i < words.size(); ++i)
        words[i] = word(place[i]).load(std::memory_order_relaxed);
    std::atomic_thread_fence(std::memory_order_acquire);
    if (words[0] == 0 || word(place[0]).load(std::memory_order_relaxed) != words[0])
        return std::nullopt;
    return words;
}

Reading readingOf(const std::byte* base, std::size_t slots) {
    std::vector<std::uint64_t> formatSums;
    for (std::uint64_t id = 0; id < Ring::kMostFormats; ++id)
        formatSums.push_back(formatSumOf(base, id));
    Reading reading;
    for (std::size_t i = 0; i < slots; ++i) {
        const std::optional<SlotWords> words = wordsIn(base, i);
        if (!words)
            continue;
        const auto slot = std::bit_cast<Slot>(*words);
        if (slot.message < formatSums.size() &&
            slot.check == checkOf(*words, i, formatSums[slot.message])) {
            reading.messages.push_back(messageOf(base, slot));
        } else {
            reading.rottenSlots.push_back(i);
        }
    }
    std::ranges::sort(reading.messages, {}, &Message::sequence);
    return reading;
}

void checkStatus(const struct stat& status, const std::string& file) {
    if (!S_ISREG(status.st_mode))
        throw std::runtime_error(file + ": check ring: no regular file");
    if (!Ring::isShown(geteuid(), status.st_uid))
        throw std::runtime_error(file + ": check ring: belongs to another user");
}

}  // namespace

std::string textOf(const Message& message) {
    std::vector<std::string> arguments;
    if (const auto* text = std::get_if<std::string>(&message.arguments); text != nullptr) {
        arguments.push_back(*text);
    } else {
        for (const std::int64_t number : std::get<0>(message.arguments))
            arguments.push_back(std::to_string(number));
    }
    std::string_view format = message.format;
    std::string result;
    for (const std::string& argument : arguments) {
        const std::size_t at = format.find("{}");
        if (at == std::string_view::npos)
            break;
        result += format.substr(0, at);
        result += argument;
        format.remove_prefix(at + 2);
    }
    return result += format;
}

std::vector<std::string> linesOf(const Reading& reading) {
    constexpr std::uint64_t kSecond_ns = 1000000000;
    std::vector<std::string> lines;
    lines.reserve(reading.messages.size() + reading.rottenSlots.size());
    for (const Message& message : reading.messages)
        lines.push_back(fmt::format("{}.{:09} {}", message.time_ns / kSecond_ns,
                                    message.time_ns % kSecond_ns, textOf(message)));
    for (const std::size_t slot : reading.rottenSlots)
        lines.push_back(fmt::format("? slot {} does not verify", slot));
    return lines;
}

Ring::Ring(const std::string& file, std::size_t slots)
    : file_(file), bytes_(kSlotsOffset + slots * sizeof(Slot)), slots_(slots) {
    Brumo::require(slots != 0 && (slots & (slots - 1)) == 0, "slots are a power of two", file);
    // A new file each time: whoever still reads the one before keeps it.
    if (unlink(file.c_str()) != 0 && errno != ENOENT)
        throwErrno(file, "remove older ring");
    const File opened(open(file.c_str(), O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0640));
    if (opened.fd < 0)
        throwErrno(file, "make ring");
    errno = posix_fallocate(opened.fd, 0, static_cast<off_t>(bytes_));
    if (errno != 0)
        throwErrno(file, "allocate ring");
    void* mapped = mmap(nullptr, bytes_, PROT_READ | PROT_WRITE, MAP_SHARED, opened.fd, 0);
    if (mapped == MAP_FAILED)
        throwErrno(file, "map ring");
    base_ = static_cast<std::byte*>(mapped);
    const Header header{kMagic, slots, {}};
    std::memcpy(base_, &header, sizeof(header));
    formats_.emplace_back("?");
    formatSums_.push_back(formatSumOf(base_, 0));
}

Ring::~Ring() {
    munmap(base_, bytes_);
}

MessageId Ring::message(std::string_view format) {
    const auto known = std::ranges::find(formats_, format);
    if (known != formats_.end())
        return static_cast<MessageId>(known - formats_.begin());
    if (formats_.size() == kMostFormats || format.size() > kFormatBytes)
        return 0;
    std::memcpy(base_ + sizeof(Header) + formats_.size() * kFormatBytes, format.data(),
                format.size());
    formatSums_.push_back(formatSumOf(base_, formats_.size()));
    formats_.emplace_back(format);
    return static_cast<MessageId>(formats_.size() - 1);
}

void Ring::record(MessageId id, std::string_view text) {
    std::array<std::uint64_t, 4> words{};
    std::memcpy(words.data(), text.data(), std::min(text.size(), kMostText));
    store(id, kTextKind, words);
}

void Ring::store(MessageId id, std::size_t kind, const std::array<std::uint64_t, 4>& words) {
    const auto now = std::chrono::system_clock::now().time_since_epoch();
    const std::size_t number = sequence_++ & (slots_ - 1);
    Slot slot{};
    slot.sequence = sequence_;
    slot.time_ns = static_cast<std::uint64_t>(
        std::chrono::duration_cast<std::chrono::nanoseconds>(now).count());
    slot.message = id;
    slot.kind = static_cast<std::uint32_t>(kind);
    std::ranges::copy(words, slot.argument);
    const auto stored = std::bit_cast<SlotWords>(slot);
    std::uint64_t* place = wordsOf(base_, number);
    word(place[0]).store(0, std::memory_order_relaxed);
    std::atomic_thread_fence(std::memory_order_release);
    for (std::size_t i = 1; i < stored.size(); ++i)
        word(place[i]).store(stored[i], std::memory_order_relaxed);
    word(place[0]).store(checkOf(stored, number, formatSums_[id]), std::memory_order_release);
}

Reading Ring::read() const {
    return readingOf(base_, slots_);
}

Reading Ring::read(const std::string& file) {
    // Nothing that stands in its place is followed, or waited for, as a pipe would be.
    const File opened(open(file.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    if (opened.fd < 0)
        throwErrno(file, "open ring");
    struct stat status {};
    if (fstat(opened.fd, &status) != 0)
        throwErrno(file, "check ring");
    checkStatus(status, file);
    const auto bytes = static_cast<std::size_t>(status.st_size);
    Header header{};
    if (bytes < kSlotsOffset || pread(opened.fd, &header, sizeof(header), 0) != sizeof(header) ||
        header.magic != kMagic || header.slots != (bytes - kSlotsOffset) / sizeof(Slot)) {
        throw std::runtime_error(file + ": not a ring trace");
    }
    void* mapped = mmap(nullptr, bytes, PROT_READ, MAP_SHARED, opened.fd, 0);
    if (mapped == MAP_FAILED)
        throwErrno(file, "map ring");
    const auto unmap = [bytes](void* base) { munmap(base, bytes); };
    const std::unique_ptr<void, decltype(unmap)> mapping(mapped, unmap);
    return readingOf(static_cast<const std::byte*>(mapped), header.slots);
}

}  // namespace RingTrace
