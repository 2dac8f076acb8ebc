#include "platform/resources/ResourceGroup.h"

#include <algorithm>

namespace Asic {

namespace {

class GroupOfTables final : public ResourceGroup {
public:
    explicit GroupOfTables(const Brumo::Ptr<GroupInterface>& group) : group_(group) {}

    void announce(SwTableId tableId, LogVersion version) override {
        group_->addLatestVersion(tableId, version);
    }

    /// The process before may have been killed between its file and the announcement.
    void restored(SwTableId tableId, LogVersion version) override {
        const bool told = group_->announcedUpTo(tableId, version) >= version;
        group_->announcedVersionRestored(tableId, version);
        if (!told && group_->acknowledgedVersion(tableId) < version) {
            group_->addLatestVersion(tableId, version);
        }
    }

    LogVersion acknowledged(SwTableId tableId) const override {
        return group_->acknowledgedVersion(tableId);
    }

    /// A table that was mounted after the group knows more than was announced.
    LogVersion handedOut(SwTableId tableId) const override {
        LogVersion last = group_->announcedVersion(tableId);
        if (const auto set = group_->swTableSet(tableId)) {
            for (const auto& [unit, table] : set->swTables()) {
                last = std::max(last, table->logVersion());
            }
        }
        return last;
    }

    Kiv::Subscription onAcknowledged(std::function<void()> moved) override {
        return group_->publisher().subscribe([moved = std::move(moved)](const Kiv::Change& change) {
            if (change.attribute == GroupInterface::kAcknowledged)
                moved();
        });
    }

private:
    Brumo::Ptr<GroupInterface> group_;
};

}  // namespace

std::unique_ptr<ResourceGroup> makeResourceGroup(const Brumo::Ptr<GroupInterface>& group) {
    if (group == nullptr)
        return nullptr;
    return std::make_unique<GroupOfTables>(group);
}

}  // namespace Asic
