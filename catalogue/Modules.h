// What each source unit of a table registers of itself when the library is loaded.
#pragma once

#include <cctype>

#include "catalogue/Binding.h"
#include "catalogue/TableFamily.h"
#include "platform/kiv/Module.h"

namespace VornPolicyCpu {

/// A module named after a table's source unit, in the library's namespace.
template <class B>
std::string moduleName(std::string_view unit) {
    return std::string(kTableNamespace) + "::" + className<B>(unit);
}

/// The type data of a table's class with the attributes that it publishes.
template <class B>
Kiv::TypeData typeDataOf(std::string_view role, std::vector<std::string> attributes) {
    return {moduleName<B>(role), std::move(attributes)};
}

template <class B>
const Kiv::TypeData& entryLogTypeData() {
    static const Kiv::TypeData data =
        typeDataOf<B>("EntryLog", {"tableId", "entityManager", "groupInterface", "agentName",
                                   "tableVersion", "tableEntryLog", "tableConfigShimo"});
    return data;
}

/// A table's member for a linkage: the linkage's class without the table's name.
template <class B, class L>
std::string linkageAttribute() {
    std::string name(L::kClassName.substr(B::Types::kName.size()));
    name.front() = static_cast<char>(std::tolower(static_cast<unsigned char>(name.front())));
    return name;
}

template <class B, class... L>
std::vector<std::string> swTableAttributes(LinkageList<L...>) {
    return {"swTableHelper",
            "transientAddEntry",
            "transientRemoveEntry",
            "transientVersionForKey",
            "transientRemoveAllVersion",
            "entryLog",
            "groupResolver",
            "entryHandleInLog",
            linkageAttribute<B, L>()...,
            "tableEntries"};
}

template <class B>
const Kiv::TypeData& swTableTypeData() {
    static const Kiv::TypeData data =
        typeDataOf<B>("SwTable", swTableAttributes<B>(typename B::Linkages{}));
    return data;
}

template <class B>
const Kiv::TypeData& entryHandleTypeData() {
    static const Kiv::TypeData data = typeDataOf<B>(
        "SwTable::EntryHandle",
        {"entryVersion", "logVersion", "entryState", "key", "swTable", "responseHandler"});
    return data;
}

/// What every wrapper shows, and what those of a table with resources show of these: the handles
/// come right after the entry's own, the values that the handles give come last.
template <class B>
std::vector<std::string> entryWrapperAttributes() {
    std::vector<std::string> names{"entry", "entryHandle"};
    const std::vector<std::string> common{"logEntry", "rsrcKeys", "isDeleted", "swTableEntry"};
    if constexpr (requires { B::kResourceAttributes; }) {
        const auto values = B::kResourceAttributes.begin() + B::Linkages::kCount;
        names.insert(names.end(), B::kResourceAttributes.begin(), values);
        names.insert(names.end(), common.begin(), common.end());
        names.insert(names.end(), values, B::kResourceAttributes.end());
    } else {
        names.insert(names.end(), common.begin(), common.end());
    }
    return names;
}

template <class B>
const Kiv::TypeData& interfaceTypeData() {
    static const Kiv::TypeData data =
        typeDataOf<B>("Interface", {"tableName", "groupName", "agentName", "tableNamespace",
                                    "entryLog", "swTableStatus", "swTableSet"});
    return data;
}

template <class L>
const Kiv::TypeData& linkageTypeData() {
    static const Kiv::TypeData data{
        std::string(kTableNamespace) + "::" + std::string(L::kClassName),
        {"swTable", "resTblClient", "entryUsageSm", "publisher"}};
    return data;
}

/// The state machines of a linkage, one a resource key in use.
template <class L>
Kiv::TypeData usageSmTypeData() {
    return {linkageTypeData<L>().name + "::LocalUsageUpdateSm",
            {"resPtr", "parent", "resourceKey", "hasNotificationActive", "entryUsage"}};
}

template <class B>
Kiv::Module entryLogModule() {
    return {moduleName<B>("EntryLog"), {entryLogTypeData<B>()}, {}};
}

template <class B>
Kiv::Module infraTypesModuleOf() {
    return {moduleName<B>("InfraTypes"),
            {typeDataOf<B>("EntryWrapper", entryWrapperAttributes<B>()),
             typeDataOf<B>("ResolverEntry",
                           {"dependantEntryHandle", "flags", "swTable", "entryWrapper"}),
             typeDataOf<B>("SwTableHelperBase", {})},
            {}};
}

template <class B>
Kiv::Module swTableModuleOf() {
    return {moduleName<B>("SwTable"),
            {swTableTypeData<B>(), entryHandleTypeData<B>(),
             typeDataOf<B>("SwTableIteratorState", {"flags", "swTable", "bookmark"}),
             typeDataOf<B>("SwTable::SwTableEntries_py", {"tableEntries"})},
            {}};
}

template <class B, class... L>
Kiv::Module linkageModule() {
    return {moduleName<B>("ResourceTableLinkage"),
            {linkageTypeData<L>()..., usageSmTypeData<L>()...},
            {}};
}

/// The one module with a factory: through it an agent enters the library.
template <class B>
Kiv::Module interfaceModule() {
    const TableFamilyFactory<typename B::Types> factory =
        [](const Brumo::Ptr<Asic::OrderedTableInterface>& orderedTableIntf)
        -> Brumo::Ptr<TableFamily<typename B::Types>> {
        return Interface<B>::getIntf(orderedTableIntf);
    };
    return {moduleName<B>("Interface"), {interfaceTypeData<B>()}, factory};
}

}  // namespace VornPolicyCpu
