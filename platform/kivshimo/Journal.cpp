// How a pending change verifies.
#include "platform/kivshimo/Journal.h"

namespace KivShimo {

/// Covers what is used and nothing else. REQUIRES: the counts are within their bounds.
std::uint64_t JournalWriter::sum(const Journal::Head& head, std::uint64_t valueSum) const {
    const std::uint64_t ofHead =
        detail::checksumOf(&head, sizeof(head), detail::mixed(seed_, valueSum));
    if (head.neededCount() == 0)
        return ofHead;
    return detail::checksumOf(place_->needed, head.neededCount() * sizeof(JournalNeeded), ofHead);
}

bool JournalWriter::verifies() const {
    const Journal::Head& head = place_->head;
    if (head.valueBytes() > Journal::kValueBytes || head.neededCount() > Journal::kMostNeeded)
        return false;
    const std::uint64_t valueSum =
        head.valueBytes() == 0 ? 0 : detail::checksumOf(place_->value, head.valueBytes(), 0);
    return sum(head, valueSum) == sealed();
}

std::optional<PendingChange> JournalWriter::pending() const {
    if (sealed() == 0 || !verifies())
        return std::nullopt;
    PendingChange change;
    const Journal::Head& head = place_->head;
    change.operation = head.operation;
    change.unit = head.unit;
    change.version = head.version;
    change.valueBytes = head.valueBytes();
    std::memcpy(change.bytes.data(), place_->value, head.valueBytes());
    change.needed = {place_->needed, head.neededCount()};
    return change;
}

}  // namespace KivShimo
