// How a pending change verifies.
#include "platform/kivshimo/Journal.h"

namespace KivShimo {

/// Covers what is used and nothing else. REQUIRES: the counts are within their bounds.
std::uint64_t JournalWriter::sum(std::uint64_t valueSum) const {
    constexpr std::size_t kHeadBytes = offsetof(Journal, value) - offsetof(Journal, operation);
    const std::uint64_t head =
        detail::checksumOf(&place_->operation, kHeadBytes, detail::mixed(seed_, valueSum));
    if (place_->neededCount == 0)
        return head;
    return detail::checksumOf(place_->needed, place_->neededCount * sizeof(JournalNeeded), head);
}

bool JournalWriter::verifies() const {
    if (place_->valueBytes > Journal::kValueBytes || place_->neededCount > Journal::kMostNeeded)
        return false;
    const std::uint64_t valueSum =
        place_->valueBytes == 0 ? 0 : detail::checksumOf(place_->value, place_->valueBytes, 0);
    return sum(valueSum) == sealed();
}

std::optional<PendingChange> JournalWriter::pending() const {
    if (sealed() == 0 || !verifies())
        return std::nullopt;
    PendingChange change;
    change.operation = place_->operation;
    change.unit = place_->unit;
    change.version = place_->version;
    change.valueBytes = place_->valueBytes;
    std::memcpy(change.bytes.data(), place_->value, place_->valueBytes);
    change.needed = {place_->needed, place_->neededCount};
    return change;
}

}  // namespace KivShimo
