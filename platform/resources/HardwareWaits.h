// Which indexes the hardware may still use, and until when.
//
// An index waits for changes: one that a handle stands for, or all of a table up to a version. It
// waits no more when each handle is complete or has failed, or its version is acknowledged.
// Event thread only.
//
// What always holds:
//  1. An acknowledgement costs no more than what it ends; a handle is observed once, however many
//     indexes wait for it (a remove-all ends the use of thousands).
//  2. A handle whose change is not in a log yet is waited for until it is and beyond.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <set>
#include <unordered_map>
#include <utility>
#include <vector>

#include "platform/asic/SwTable.h"
#include "platform/resources/ResourceGroup.h"

namespace Asic {

class HardwareWaits {
public:
    using Over = std::function<void(std::uint32_t index)>;

    /// `over` is called when an index has nothing left to wait for; not from within waitFor().
    /// `group` may be null; it outlives this object.
    HardwareWaits(ResourceGroup* group, Over over);
    HardwareWaits(const HardwareWaits&) = delete;
    HardwareWaits& operator=(const HardwareWaits&) = delete;

    /// Nothing to wait for when the handle is null, or its change taken in already.
    void waitFor(std::uint32_t index, const Brumo::Ptr<const DependencyEntryHandle>& handle);
    void waitFor(std::uint32_t index, const TableVersion& version);

    bool waits(std::uint32_t index) const { return counts_.contains(index); }
    /// Ends the process unless every index is counted as often as it waits.
    void assertConsistent() const;

private:
    using Handle = DependencyEntryHandle;
    struct Watched {
        Brumo::Ptr<const Handle> handle;
        Kiv::Subscription subscription;
        TableVersion filed;  ///< under which it stands in byVersion_; version 0: it does not
        std::vector<std::uint32_t> indexes;
    };

    bool over(const Handle& handle) const;
    bool acknowledged(const TableVersion& version) const;
    void moved(const Handle* handle);
    void acknowledgementsMoved();
    void end(const Handle* handle);
    void countDown(const std::vector<std::uint32_t>& indexes);

    ResourceGroup* group_;
    Over over_;
    std::unordered_map<std::uint32_t, std::uint32_t> counts_;  ///< by index
    std::unordered_map<const Handle*, Watched> watched_;
    std::set<std::pair<TableVersion, const Handle*>> byVersion_;
    std::map<TableVersion, std::vector<std::uint32_t>> versions_;
    Kiv::Subscription subscription_;
};

}  // namespace Asic
