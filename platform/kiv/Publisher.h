// Publish and subscribe: how an entity tells its observers that an attribute has changed.
//
// Used on the event thread only. Observers may subscribe, unsubscribe and destroy the publisher
// from within a notification.
//
// What always holds:
//  1. A publisher without observers costs one pointer and one branch to publish on.
//  2. After a Subscription is reset, its callback is never called again.
//  3. An observer added during a notification does not see that notification.
#pragma once

#include <cstdint>
#include <functional>
#include <list>

#include "platform/brumo/Ptr.h"

namespace Kiv {

/// Names an attribute of an entity class; the class documents its numbers.
using AttributeId = std::uint32_t;

/// What observers learn. `oldValue` points at the value before, for the length of the call, or is
/// null where the attribute does not keep it; the attribute documents its type.
struct Change {
    AttributeId attribute;
    const void* oldValue = nullptr;

    template <class T>
    const T& oldAs() const {
        return *static_cast<const T*>(oldValue);
    }
};

using Observer = std::function<void(const Change&)>;

namespace detail {

class Observers : public Brumo::RefCounted {
public:
    std::uint64_t add(Observer observer);
    void remove(std::uint64_t id);
    void notify(const Change& change);
    std::size_t count() const;

private:
    struct Slot {
        std::uint64_t id;
        Observer observer;
    };

    std::list<Slot> slots_;  ///< slots stay where they are when others are added
    std::uint64_t nextId_ = 1;
    int notifying_ = 0;
    bool hasRemoved_ = false;  ///< during a notification; erased when it is over
};

}  // namespace detail

/// An observer's stay with a publisher; ends with the object. Movable.
class Subscription {
public:
    Subscription() = default;
    Subscription(Subscription&& other) noexcept = default;
    Subscription& operator=(Subscription&& other) noexcept;
    ~Subscription() { reset(); }

    void reset();
    bool active() const { return observers_ != nullptr; }

private:
    friend class Publisher;
    Subscription(Brumo::Ptr<detail::Observers> observers, std::uint64_t id)
        : observers_(std::move(observers)), id_(id) {}

    Brumo::Ptr<detail::Observers> observers_;
    std::uint64_t id_ = 0;
};

class Publisher {
public:
    Publisher() = default;
    Publisher(const Publisher&) = delete;
    Publisher& operator=(const Publisher&) = delete;

    [[nodiscard]] Subscription subscribe(Observer observer) const;

    void publish(AttributeId attribute, const void* oldValue = nullptr) const {
        if (observers_ != nullptr) [[unlikely]]
            notify({attribute, oldValue});
    }

    std::size_t observers() const { return observers_ ? observers_->count() : 0; }

private:
    void notify(const Change& change) const;

    mutable Brumo::Ptr<detail::Observers> observers_;
};

}  // namespace Kiv
