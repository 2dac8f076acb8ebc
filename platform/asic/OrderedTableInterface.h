// The agent's side of the ordered-table framework: its groups, the families of tables that it has,
// and the resource tables that they use.
//
// Event thread only. The agent makes one before it makes a family, and keeps it longer.
#pragma once

#include <map>
#include <string>

#include "platform/asic/GroupInterface.h"

namespace Asic {

/// Base of the object through which the agent enters a table family.
class TableInterfaceBase;

/// Base of resource tables; a resource library derives its own from it.
class ResourceTableBase : public Kiv::Entity {
public:
    /// Requests that the table knows, restored ones included.
    virtual std::size_t entries() const = 0;
};

class OrderedTableInterface final : public Kiv::Entity {
public:
    /// `loop` outlives this object.
    OrderedTableInterface(Brumo::Ptr<Regdb::EntityManager> entityManager, std::string agentName,
                          Kiv::EventLoop& loop);
    ~OrderedTableInterface() override;

    const Brumo::Ptr<Regdb::EntityManager>& entityManager() const { return entityManager_; }
    const std::string& agentName() const { return agentName_; }
    Kiv::EventLoop& loop() const { return loop_; }

    /// Makes the group unless it exists; returns it. Throws KivShimo::MountError.
    Brumo::Ptr<GroupInterface> makeGroupIntf(const std::string& groupName,
                                             std::uint16_t agentAndGroupId);
    /// By canonical name; null when there is none.
    Brumo::Ptr<GroupInterface> groupIntf(const std::string& canonicalName) const;

    void swTableIntfIs(const std::string& name, TableInterfaceBase* tableInterface);
    void swTableIntfDel(const std::string& name);
    /// Null when there is none.
    TableInterfaceBase* swTableIntf(const std::string& name) const;

    /// By library and name, as in "VornCountersLib" and "CrpsIndexRequest.CpuTrafficPolicyIngress".
    void resourceTableIs(const std::string& library, const std::string& name,
                         Brumo::Ptr<ResourceTableBase> table);
    /// Null when there is none.
    Brumo::Ptr<ResourceTableBase> resourceTable(const std::string& library,
                                                const std::string& name) const;

private:
    Brumo::Ptr<Regdb::EntityManager> entityManager_;
    std::string agentName_;
    Kiv::EventLoop& loop_;
    std::map<std::string, Brumo::Ptr<GroupInterface>> groups_;
    std::map<std::string, TableInterfaceBase*> tableInterfaces_;
    std::map<std::string, Brumo::Ptr<ResourceTableBase>> resourceTables_;
};

class TableInterfaceBase : public Kiv::Entity {
public:
    explicit TableInterfaceBase(Brumo::Ptr<OrderedTableInterface> orderedTableIntf)
        : orderedTableIntf_(std::move(orderedTableIntf)) {}

    const Brumo::Ptr<OrderedTableInterface>& orderedTableIntf() const { return orderedTableIntf_; }

    /// Creates and clears the tables of units that left state behind and have no table.
    virtual void reconcile() = 0;
    /// Unregisters the family.
    virtual void onDelete() = 0;

private:
    Brumo::Ptr<OrderedTableInterface> orderedTableIntf_;
};

/// The process's families by registry name; it keeps them.
class SwTableInterfacesSingleton {
public:
    static SwTableInterfacesSingleton& instance();

    bool swTableIntfHas(const std::string& name) const { return interfaces_.contains(name); }
    /// Null when there is none.
    Brumo::Ptr<TableInterfaceBase> swTableIntf(const std::string& name) const;
    void swTableIntfIs(const std::string& name, const Brumo::Ptr<TableInterfaceBase>& intf);
    /// The agent calls this after onDelete(), when it has no more use of the family.
    void swTableIntfDel(const std::string& name) { interfaces_.erase(name); }

private:
    std::map<std::string, Brumo::Ptr<TableInterfaceBase>> interfaces_;
};

}  // namespace Asic
