#include "platform/asic/OrderedTableInterface.h"

#include "platform/asic/CanonicalTableName.h"
#include "platform/asic/Constants.h"

namespace Asic {

namespace {

template <class Map>
auto valueOrNull(const Map& map, const typename Map::key_type& key) -> typename Map::mapped_type {
    const auto found = map.find(key);
    return found == map.end() ? nullptr : found->second;
}

}  // namespace

OrderedTableInterface::OrderedTableInterface(Brumo::Ptr<Regdb::EntityManager> entityManager,
                                             std::string agentName, Kiv::EventLoop& loop)
    : entityManager_(std::move(entityManager)), agentName_(std::move(agentName)), loop_(loop) {}

OrderedTableInterface::~OrderedTableInterface() = default;

Brumo::Ptr<GroupInterface> OrderedTableInterface::makeGroupIntf(const std::string& groupName,
                                                                std::uint16_t agentAndGroupId) {
    const std::string canonical = Constants::canonicalizeGroupName(groupName, agentName_);
    Brumo::Ptr<GroupInterface>& group = groups_[canonical];
    if (group == nullptr) {
        group = Brumo::make<GroupInterface>(canonical, agentAndGroupId, entityManager_, loop_);
    }
    return group;
}

Brumo::Ptr<GroupInterface> OrderedTableInterface::groupIntf(
    const std::string& canonicalName) const {
    return valueOrNull(groups_, canonicalName);
}

void OrderedTableInterface::swTableIntfIs(const std::string& name,
                                          TableInterfaceBase* tableInterface) {
    tableInterfaces_[name] = tableInterface;
}

void OrderedTableInterface::swTableIntfDel(const std::string& name) {
    tableInterfaces_.erase(name);
}

TableInterfaceBase* OrderedTableInterface::swTableIntf(const std::string& name) const {
    return valueOrNull(tableInterfaces_, name);
}

void OrderedTableInterface::resourceTableIs(const std::string& library, const std::string& name,
                                            Brumo::Ptr<ResourceTableBase> table) {
    resourceTables_[canonicalName(TableType::resource, name, library)] = std::move(table);
}

Brumo::Ptr<ResourceTableBase> OrderedTableInterface::resourceTable(const std::string& library,
                                                                   const std::string& name) const {
    return valueOrNull(resourceTables_, canonicalName(TableType::resource, name, library));
}

SwTableInterfacesSingleton& SwTableInterfacesSingleton::instance() {
    static SwTableInterfacesSingleton singleton;
    return singleton;
}

Brumo::Ptr<TableInterfaceBase> SwTableInterfacesSingleton::swTableIntf(
    const std::string& name) const {
    return valueOrNull(interfaces_, name);
}

void SwTableInterfacesSingleton::swTableIntfIs(const std::string& name,
                                               const Brumo::Ptr<TableInterfaceBase>& intf) {
    interfaces_[name] = intf;
}

}  // namespace Asic
