// What all entry logs have: an identity, the services they use, and the version counter.
#pragma once

#include "platform/asic/GroupInterface.h"
#include "platform/brumo/String.h"
#include "platform/regdb/EntityManager.h"

namespace Asic {

/// Event thread only.
class EntryLogBase : public Kiv::Entity {
public:
    EntryLogBase(SwTableId tableId, Brumo::Ptr<Regdb::EntityManager> entityManager,
                 Brumo::Ptr<GroupInterface> groupInterface, Brumo::String agentName)
        : tableId_(tableId),
          entityManager_(std::move(entityManager)),
          groupInterface_(std::move(groupInterface)),
          agentName_(std::move(agentName)) {}

    SwTableId tableId() const { return tableId_; }
    const Brumo::Ptr<Regdb::EntityManager>& entityManager() const { return entityManager_; }
    const Brumo::Ptr<GroupInterface>& groupInterface() const { return groupInterface_; }
    const Brumo::String& agentName() const { return agentName_; }

    /// The last version handed out; 0 when none was.
    LogVersion tableVersion() const { return tableVersion_; }

protected:
    /// Hands the next versions out and returns the last of them.
    LogVersion tableVersionInc(std::uint64_t by) {
        tableVersion_.value += by;
        return tableVersion_;
    }
    /// Takes up the counter where the process before left it.
    void tableVersionRestored(LogVersion version) { tableVersion_ = version; }

private:
    SwTableId tableId_;
    Brumo::Ptr<Regdb::EntityManager> entityManager_;
    Brumo::Ptr<GroupInterface> groupInterface_;
    Brumo::String agentName_;
    LogVersion tableVersion_;
};

}  // namespace Asic
