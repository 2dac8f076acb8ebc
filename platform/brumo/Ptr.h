// Reference-counted pointers: the ownership of everything that the framework passes around.
//
// Any thread may hold pointers, but counts are updated atomically only while ThreadControl says
// that more than one thread runs; with one thread they are plain additions, which cost a twentieth.
//
// What always holds:
//  1. An object made by make() is destroyed when its last Ptr goes, by lastUserGone().
//  2. During construction an object counts one user, so it may hand out Ptrs to itself.
#pragma once

#include <atomic>
#include <compare>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <type_traits>
#include <utility>

#include "platform/brumo/Recycled.h"
#include "platform/brumo/ThreadControl.h"

namespace Brumo {

/// Base of every object that a Ptr can hold.
class RefCounted : public Recycled {
public:
    RefCounted(const RefCounted&) = delete;
    RefCounted& operator=(const RefCounted&) = delete;
    virtual ~RefCounted() = default;

    /// Number of Ptrs to this object; 1 while it is being made. For tests and tools.
    std::uint32_t users() const { return users_.load(std::memory_order_relaxed); }

protected:
    RefCounted() = default;

    /// Called when the last Ptr has gone; the default ends the object.
    virtual void lastUserGone() const { delete this; }

private:
    template <class T>
    friend class Ptr;

    // Both in place: a change takes and drops some fifty references.
    [[gnu::always_inline]] void userAdded() const {
        if (ThreadControl::multiThreaded()) [[unlikely]] {
            users_.fetch_add(1, std::memory_order_relaxed);
        } else {
            users_.store(users() + 1, std::memory_order_relaxed);
        }
    }
    [[gnu::always_inline]] void userGone() const {
        std::uint32_t left = users() - 1;
        if (ThreadControl::multiThreaded()) [[unlikely]] {
            left = users_.fetch_sub(1, std::memory_order_acq_rel) - 1;
        } else {
            users_.store(left, std::memory_order_relaxed);
        }
        if (left == 0)
            lastUserGone();
    }

    mutable std::atomic<std::uint32_t> users_{1};
};

/// Shared owner of a RefCounted object; null by default.
template <class T>
class Ptr {
public:
    using element_type = T;

    constexpr Ptr() = default;
    constexpr Ptr(std::nullptr_t) {}
    /// Takes a further reference on an object that somebody already owns.
    explicit Ptr(T* object) : object_(object) { acquire(); }
    Ptr(const Ptr& other) : object_(other.object_) { acquire(); }
    Ptr(Ptr&& other) noexcept : object_(std::exchange(other.object_, nullptr)) {}
    template <class U>
    requires std::is_convertible_v<U*, T*> Ptr(const Ptr<U>& other) : object_(other.get()) {
        acquire();
    }
    template <class U>
    requires std::is_convertible_v<U*, T*> Ptr(Ptr<U>&& other)
    noexcept : object_(other.detach()) {}
    ~Ptr() { release(); }

    Ptr& operator=(Ptr other) noexcept {
        std::swap(object_, other.object_);
        return *this;
    }

    T* get() const { return object_; }
    T& operator*() const { return *object_; }
    T* operator->() const { return object_; }
    explicit operator bool() const { return object_ != nullptr; }

    /// Takes over the reference that the object was constructed with.
    static Ptr adopt(T* object) {
        Ptr result;
        result.object_ = object;
        return result;
    }

    /// Gives the reference up without dropping it; the caller owns it now.
    T* detach() noexcept { return std::exchange(object_, nullptr); }

    friend bool operator==(const Ptr& a, const Ptr& b) { return a.object_ == b.object_; }
    friend bool operator==(const Ptr& a, std::nullptr_t) { return a.object_ == nullptr; }

private:
    void acquire() const {
        if (object_ != nullptr)
            object_->userAdded();
    }
    void release() const {
        if (object_ != nullptr)
            object_->userGone();
    }

    T* object_ = nullptr;
};

/// Makes an object and its first Ptr.
template <class T, class... Arguments>
Ptr<T> make(Arguments&&... arguments) {
    return Ptr<T>::adopt(new T(std::forward<Arguments>(arguments)...));
}

template <class T, class U>
Ptr<T> staticCast(const Ptr<U>& other) {
    return Ptr<T>(static_cast<T*>(other.get()));
}

/// Null when the object is no T.
template <class T, class U>
Ptr<T> dynamicCast(const Ptr<U>& other) {
    return Ptr<T>(dynamic_cast<T*>(other.get()));
}

}  // namespace Brumo

template <class T>
struct std::hash<Brumo::Ptr<T>> {
    std::size_t operator()(const Brumo::Ptr<T>& ptr) const noexcept {
        return std::hash<T*>{}(ptr.get());
    }
};
