// Canonical names of tables, as other agents and operators know them.
#pragma once

#include <string>
#include <string_view>

#include "platform/brumo/Assert.h"
#include "platform/brumo/Ptr.h"

namespace Asic {

enum class TableType : int { ordered = 0, partiallyOrdered = 1, resource = 2 };

/// The canonical name of a table of a type, made of the table's own name and a second component.
/// Any other type is a broken invariant.
inline std::string canonicalName(TableType type, std::string_view own, std::string_view second) {
    const std::string ownName(own);
    const std::string secondName(second);
    switch (type) {
        case TableType::ordered:
            return "OrderedSwTable." + secondName + "." + ownName;
        case TableType::partiallyOrdered:
            return "PartiallyOrderedSwTable." + ownName;
        case TableType::resource:
            return "ResourceTable." + secondName + "::" + ownName;
    }
    Brumo::assertionFailed("false", "Table type undefined!", __FILE__, __LINE__);
}

/// A table's name object; immutable, any thread.
class CanonicalTableName final : public Brumo::RefCounted {
public:
    CanonicalTableName(TableType type, std::string_view own, std::string_view second)
        : name_(canonicalName(type, own, second)) {}

    const std::string& name() const { return name_; }
    std::string toText() const { return name_; }

private:
    std::string name_;
};

}  // namespace Asic
