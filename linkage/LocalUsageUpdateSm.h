// The usage state machine of one resource key: which committed entries use the resource.
//
// Event thread only. Its linkage owns it; it refers to the linkage. While its notifications are on,
// it is subscribed to the resource table's handle and has every new state of it handled.
//
// What always holds:
//  1. Its handle never changes, and is the one that the linkage's collection key comes from.
//  2. While some committed entry uses the key, it exists. It may outlast them: between its creation
//     and the first use, and when the table was cleared and the resources were kept.
#pragma once

#include "catalogue/Binding.h"
#include "platform/kiv/KeySet.h"
#include "platform/kiv/Publisher.h"

namespace VornPolicyCpu {

template <class B, class L>
class LocalUsageUpdateSm final : public Brumo::RefCounted {
public:
    using Key = typename B::Key;
    using ResourceHandle = typename L::ResourceHandle;
    using HandlePtr = Brumo::Ptr<const ResourceHandle>;

    LocalUsageUpdateSm(HandlePtr resPtr, Linkage<B, L>* parent)
        : resPtr_(std::move(resPtr)), parent_(parent) {
        subscribe();
    }

    const HandlePtr& resPtr() const { return resPtr_; }
    Linkage<B, L>* parent() const { return parent_; }
    /// The key of the handle; the default key when there is no handle.
    typename L::ResourceKey resourceKey() const {
        return resPtr_ == nullptr ? typename L::ResourceKey{} : resPtr_->key();
    }

    bool hasNotificationActive() const { return hasNotificationActive_; }
    void hasNotificationActiveIs(bool active) {
        if (active == hasNotificationActive_)
            return;
        hasNotificationActive_ = active;
        if (active) {
            subscribe();
        } else {
            subscription_.reset();
        }
    }

    /// The keys of the software table, in their order.
    const Kiv::KeySet<Key>& entryUsage() const { return entryUsage_; }
    void entryUsageIs(const Key& key) { entryUsage_.insert(key); }
    void entryUsageDel(const Key& key) { entryUsage_.erase(key); }
    void entryUsageDelAll() { entryUsage_.clear(); }

    void handleResourceChange();
    /// The framework's hook at teardown: no reaction from now on.
    void kivDoZombieReactors() {
        zombie_ = true;
        subscription_.reset();
    }

private:
    void subscribe() {
        if (resPtr_ == nullptr || subscription_.active())
            return;
        subscription_ = resPtr_->publisher().subscribe(
            [this](const Kiv::Change& change) { resPtrDispatch(change); });
    }
    void resPtrDispatch(const Kiv::Change& change) {
        if (change.attribute != ResourceHandle::kState || zombie_)
            return;
        const Brumo::Ptr<LocalUsageUpdateSm> keep(this);
        handleResourceChange();
    }

    HandlePtr resPtr_;
    Linkage<B, L>* parent_;
    Kiv::KeySet<Key> entryUsage_;
    Kiv::Subscription subscription_;
    bool hasNotificationActive_ = false;
    bool zombie_ = false;
};

}  // namespace VornPolicyCpu
