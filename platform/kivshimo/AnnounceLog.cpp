// The ring of announcements: stored slot by slot, published by the tail.
#include "platform/kivshimo/AnnounceLog.h"

#include <algorithm>
#include <bit>

#include "platform/brumo/Assert.h"
#include "platform/brumo/Trace.h"
#include "platform/kivshimo/detail/AnnounceSlot.h"
#include "platform/kivshimo/detail/Memory.h"

namespace KivShimo {
namespace {

using detail::AnnounceKind;
using detail::AnnounceSlot;
using SlotWords = Words<AnnounceSlot>;

std::vector<detail::CollectionPlan> planFor(std::uint64_t slots) {
    return {{detail::kAnnounceCollection, detail::CollectionKind::announceLog, sizeof(AnnounceSlot),
             1, slots}};
}

const Brumo::TraceSource& announcementsTrace() {
    static const Brumo::TraceSource source("KivShimo", "AnnounceLogWriter");
    return source;
}

detail::MountFindings mounted(const std::string& root, const std::string& path,
                              std::uint64_t slots) {
    Brumo::require(std::has_single_bit(slots) && slots <= detail::kMostSlots,
                   "slots are a power of two", path);
    return detail::mountedAndTraced(root, path, detail::kAnnounceType, planFor(slots),
                                    announcementsTrace());
}

/// Slots whose pages are made at once: 16 pages.
constexpr std::uint64_t kSlotsAhead = 1024;

/// The words of the slot of a position.
const std::uint64_t* placeOf(const std::byte* area, std::uint64_t position, std::uint64_t slots) {
    return reinterpret_cast<const std::uint64_t*>(area) +
           (position & (slots - 1)) * SlotWords::kCount;
}

}  // namespace

AnnounceLogWriter::AnnounceLogWriter(const std::string& root, const std::string& path,
                                     std::uint64_t slots)
    : AnnounceLogWriter(mounted(root, path, slots)) {}

AnnounceLogWriter::AnnounceLogWriter(detail::MountFindings found)
    : mapping_(std::move(found.file)),
      slots_(mapping_.header().collection[0].slots),
      seed_(mapping_.seed(0)),
      tail_(mapping_.dynamicHeader().tail, mapping_.wordSeed()),
      wiped_(found.lost),
      corruptions_(found.corruptions) {
    if (tail_.rotten())
        findTail();
    // How far the reader is comes from its side; until then nothing that it may need is
    // overwritten.
    consumed_ = tail() > slots_ ? tail() - slots_ : 0;
}

/// Without a tail that verifies, the highest position of all whole slots is the tail: at most one
/// announcement more than there was, which was stored but not published.
void AnnounceLogWriter::findTail() {
    std::uint64_t highest = tail();
    for (std::uint64_t i = 0; i < slots_; ++i) {
        const AnnounceSlot slot = SlotWords::loadFrom(placeOf(mapping_.area(0), i, slots_)).value();
        if (slot.verifies(seed_) && slot.kind == AnnounceKind::change && slot.position > highest) {
            highest = slot.position;
        }
    }
    tail_.valueIs(highest);
    ++corruptions_;
    announcementsTrace()(1, " {}",
                         CorruptionError(file(), "tail", 0, "does not verify, found again").what());
}

bool AnnounceLogWriter::append(std::uint32_t tableId, std::uint64_t version,
                               std::span<const NeededVersion> needed) {
    const std::uint64_t slots = slotsFor(needed.size());
    if (slots > free())
        return false;
    for (std::uint64_t i = 0; i < slots; ++i) {
        const std::size_t count = std::min(needed.size(), detail::kInlineNeeded);
        store(tail() + 1 + i, tableId, version, i + 1 == slots, needed.first(count));
        needed = needed.subspan(count);
    }
    tail_.valueIs(tail() + slots);
    if ((tail() & (kSlotsAhead - 1)) < slots)
        makeNextPages();
    return true;
}

/// Those of the block of slots that comes after this one.
void AnnounceLogWriter::makeNextPages() {
    const std::uint64_t first = (tail() + kSlotsAhead) & (slots_ - 1) & ~(kSlotsAhead - 1);
    const std::uint64_t count = std::min(kSlotsAhead, slots_ - first);
    detail::makePages(placeOf(mapping_.area(0), first, slots_), count * sizeof(AnnounceSlot));
}

void AnnounceLogWriter::store(std::uint64_t position, std::uint32_t tableId, std::uint64_t version,
                              bool last, std::span<const NeededVersion> needed) {
    AnnounceSlot slot;
    slot.position = position;
    slot.kind = last ? AnnounceKind::change : AnnounceKind::continuation;
    slot.neededCount = static_cast<std::uint8_t>(needed.size());
    slot.version = version;
    slot.tableId = tableId;
    for (std::size_t i = 0; i < needed.size(); ++i) {
        slot.needed[i] = {needed[i].tableId, needed[i].version};
    }
    // Each word is stored as it was made: in a copy of them all, it would be loaded together with
    // another one, and wait (see detail::justStored).
    const auto words = slot.words(slot.sum(seed_));
    const std::uint64_t* place = placeOf(mapping_.writableArea(0), position, slots_);
    for (std::size_t i = 0; i < words.size(); ++i)
        detail::word(place[i]).store(words[i], std::memory_order_relaxed);
}

bool AnnounceLogWriter::consumedIs(std::uint64_t position) {
    if (position < consumed_ || position > tail())
        return false;
    consumed_ = position;
    return true;
}

std::optional<AnnounceLogReader> AnnounceLogReader::open(const std::string& file) {
    bool missing = false;
    try {
        return AnnounceLogReader(
            detail::ReaderFile::open(file, detail::kAnnounceType, planFor(1), &missing));
    } catch (const MountError&) {
        if (missing)
            return std::nullopt;
        throw;
    }
}

AnnounceLogReader::AnnounceLogReader(detail::ReaderFile mapping)
    : mapping_(std::move(mapping)),
      slots_(mapping_.header().collection[0].slots),
      seed_(mapping_.seed(0)) {}

std::uint64_t AnnounceLogReader::tail() const {
    const std::optional<std::uint64_t> tail = mapping_.dynamic().tail.read(mapping_.wordSeed());
    if (!tail)
        throw CorruptionError(file(), "tail", 0, "does not verify");
    return *tail;
}

std::optional<Announcement> AnnounceLogReader::next(std::uint64_t position) const {
    const std::uint64_t last = tail();
    if (position == 0 || position > last)
        return std::nullopt;
    if (last - position >= slots_) {
        throw CorruptionError(file(), detail::kAnnounceCollection, position & (slots_ - 1),
                              "overwritten before it was read");
    }
    Announcement result;
    for (; position <= last; ++position) {
        const AnnounceSlot slot =
            SlotWords::loadFrom(placeOf(mapping_.area(0), position, slots_)).value();
        if (slot.position != position || !slot.verifies(seed_)) {
            throw CorruptionError(file(), detail::kAnnounceCollection, position & (slots_ - 1),
                                  "announcement does not verify");
        }
        for (std::size_t i = 0; i < slot.neededCount; ++i) {
            result.needed.push_back({slot.needed[i].tableId, slot.needed[i].version});
        }
        if (slot.kind == AnnounceKind::change) {
            result.position = position;
            result.tableId = slot.tableId;
            result.version = slot.version;
            return result;
        }
    }
    throw CorruptionError(file(), detail::kAnnounceCollection, last & (slots_ - 1),
                          "announcement without an end");
}

}  // namespace KivShimo
