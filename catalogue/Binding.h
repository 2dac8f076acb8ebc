// What a table must offer to the generic engine: its binding.
//
// A binding is a type without values: names, record types, identity, the linkages to resource
// tables, and which classes stand for the table. The engine's classes are templates over it. A
// table that needs nothing of its own takes the engine's classes by deriving its binding from
// TableBinding.
#pragma once

#include <string>
#include <string_view>
#include <tuple>

#include "platform/asic/SwTable.h"
#include "platform/brumo/Trace.h"
#include "types/Constants.h"
#include "types/Records.h"

namespace VornPolicyCpu {

template <class B>
class SwTable;
template <class B>
class EntryWrapper;
template <class B>
class EntryLog;
template <class B>
class Interface;
template <class B>
class ResolverEntry;
template <class B>
class SwTableHelperBase;
template <class B>
class SwTableIteratorState;
template <class B, class L>
class Linkage;

/// The linkages of a table, in the order in which they act.
template <class... L>
struct LinkageList {
    static constexpr std::size_t kCount = sizeof...(L);
};

/// Base of bindings: `Self` is the binding, `T` the table's type library, `L` its linkages.
template <class Self, TableTypes T, class... L>
struct TableBinding {
    using Types = T;
    using Key = typename T::Key;
    using Entry = typename T::Entry;
    using LogEntry = typename T::LogEntry;
    using ResourceKeys = typename T::ResourceKeys;
    using Linkages = LinkageList<L...>;
    using SwTable = VornPolicyCpu::SwTable<Self>;
    using EntryWrapper = VornPolicyCpu::EntryWrapper<Self>;

    static constexpr Asic::SwTableId kTableId = T::kTableId;
};

/// What the engine asks of a linkage's binding `L` for entries of type `Entry`: the resource
/// table's client and handle types and its name, the request key in an entry, how a request is
/// made, and what a resolved (or, with null, an unresolved) resource puts into an entry.
template <class L, class Entry>
concept LinkageBinding = requires(Entry& entry, const Entry& written,
                                  typename L::ClientInstance& client,
                                  const typename L::ResourceHandle* handle) {
    typename L::ResourceTable;
    typename L::ResourceKey;
    { L::kClassName } -> std::convertible_to<std::string_view>;
    { L::kResourceLibrary } -> std::convertible_to<std::string_view>;
    { L::kResourceTable } -> std::convertible_to<std::string_view>;
    { L::resourceKeyFromEntry(written) } -> std::convertible_to<typename L::ResourceKey>;
    {L::request(client, written)};
    L::setResolvedFields(entry, handle);
    L::retrieveClientData(entry, *handle);
};

/// The name of one of a table's classes, or of its trace handle.
template <class B>
std::string className(std::string_view role) {
    return std::string(B::Types::kName) + std::string(role);
}

/// The trace sources of a table: which handle each of its classes speaks on.
template <class B>
struct Traces {
    static inline const Brumo::TraceSource swTable{className<B>("SwTable"),
                                                   className<B>("SwTable")};
    static inline const Brumo::TraceSource engine{className<B>("SwTable"),
                                                  "OrderedSwTableAccessor"};
    static inline const Brumo::TraceSource entryHandle{className<B>("SwTable"), "EntryHandle"};
    static inline const Brumo::TraceSource entryWrapper{className<B>("SwTable"),
                                                        className<B>("EntryWrapper")};
    static inline const Brumo::TraceSource iterator{"SwTableIter", className<B>("SwTable")};
    static inline const Brumo::TraceSource entryLog{className<B>("EntryLog"),
                                                    className<B>("EntryLog")};
    static inline const Brumo::TraceSource interface {
        className<B>("Interface"), className<B>("Interface")
    };
};

}  // namespace VornPolicyCpu
