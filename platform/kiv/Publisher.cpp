#include "platform/kiv/Publisher.h"

#include <algorithm>
#include <utility>

namespace Kiv {

namespace detail {

std::uint64_t Observers::add(Observer observer) {
    slots_.push_back({nextId_, std::move(observer)});
    return nextId_++;
}

void Observers::remove(std::uint64_t id) {
    const auto slot = std::find_if(slots_.begin(), slots_.end(),
                                   [id](const Slot& candidate) { return candidate.id == id; });
    if (slot == slots_.end())
        return;
    if (notifying_ > 0) {
        slot->id = 0;  // its callback may be running
        hasRemoved_ = true;
    } else {
        slots_.erase(slot);
    }
}

void Observers::notify(const Change& change) {
    /// An observer's error passes through to whoever published.
    struct Notifying {
        explicit Notifying(Observers& owner) : observers(owner) { ++observers.notifying_; }
        Notifying(const Notifying&) = delete;
        Notifying& operator=(const Notifying&) = delete;
        ~Notifying() {
            if (--observers.notifying_ > 0 || !std::exchange(observers.hasRemoved_, false))
                return;
            std::erase_if(observers.slots_, [](const Slot& slot) { return slot.id == 0; });
        }
        Observers& observers;
    };
    const Notifying guard(*this);
    if (slots_.empty())
        return;
    // A call may add observers, behind those that are there now, and remove any.
    const Slot& last = slots_.back();
    for (const Slot& slot : slots_) {
        if (slot.id != 0)
            slot.observer(change);
        if (&slot == &last)
            return;
    }
}

std::size_t Observers::count() const {
    return static_cast<std::size_t>(
        std::count_if(slots_.begin(), slots_.end(), [](const Slot& slot) { return slot.id != 0; }));
}

}  // namespace detail

Subscription& Subscription::operator=(Subscription&& other) noexcept {
    if (this != &other) {
        reset();
        observers_ = std::move(other.observers_);
        id_ = other.id_;
    }
    return *this;
}

void Subscription::reset() {
    if (observers_ == nullptr)
        return;
    observers_->remove(id_);
    observers_ = nullptr;
}

Subscription Publisher::subscribe(Observer observer) const {
    if (observers_ == nullptr)
        observers_ = Brumo::make<detail::Observers>();
    const std::uint64_t id = observers_->add(std::move(observer));
    return {observers_, id};
}

void Publisher::notify(const Change& change) const {
    const Brumo::Ptr<detail::Observers> keep = observers_;
    keep->notify(change);
}

}  // namespace Kiv
