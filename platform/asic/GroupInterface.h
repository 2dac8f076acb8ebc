// A group of tables that one hardware side programs: the announcement log, the acknowledgements,
// the resolver and the families of the group.
//
// Event thread only. Whoever runs the event loop calls acknowledgementsArrived() when the doorbell
// rings.
//
// What always holds:
//  1. Announcements are in the order of the changes; none is lost while the process lives, and a
//     restart announces anew what the change logs hold and the announcement log does not.
//  2. An acknowledgement that goes backwards, beyond the last version of its table, or names a
//     table that the group does not know is refused with a trace, and changes nothing.
//  3. What the hardware side has acknowledged of an announcement log that is lost completes
//     nothing, as versions may have been handed out again, and is announced anew.
//  4. What waits in memory for room in the announcement log does not grow with its number.
#pragma once

#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>

#include "platform/asic/GroupResolver.h"
#include "platform/asic/NeededEntry.h"
#include "platform/asic/OrderedSwTableSet.h"
#include "platform/asic/WaitingAnnouncements.h"
#include "platform/brumo/String.h"
#include "platform/kiv/EventLoop.h"
#include "platform/kivshimo/Errors.h"
#include "platform/regdb/EntityManager.h"

namespace Asic {

struct AckMapReading;

class GroupInterface final : public Kiv::Entity {
public:
    /// Published when some table's acknowledged version has moved.
    static constexpr Kiv::AttributeId kAcknowledged = 1;

    /// Mounts the group's files. Throws KivShimo::MountError.
    GroupInterface(std::string canonicalName, std::uint16_t agentAndGroupId,
                   const Brumo::Ptr<Regdb::EntityManager>& entityManager, Kiv::EventLoop& loop);
    ~GroupInterface() override;

    const std::string& name() const { return name_; }
    std::uint16_t agentAndGroupId() const { return agentAndGroupId_; }
    const Brumo::Ptr<GroupResolver>& groupResolver() const { return resolver_; }

    /// Announces a change to the hardware side. `needed` may be null.
    void addLogEntry(SwTableId tableId, LogVersion version,
                     const Brumo::Ptr<const NeededEntry>& needed);
    /// Announces a change of a table without a change log: of several that wait for room, the last
    /// one is enough.
    void addLatestVersion(SwTableId tableId, LogVersion version);
    /// What a change needs that must come after everything announced so far.
    Brumo::Ptr<NeededEntry> everythingAnnounced() const;
    /// Slots of the announcement log that the hardware side has not consumed, of how many.
    struct AnnouncementFill {
        std::uint64_t used = 0;
        std::uint64_t capacity = 0;
    };
    AnnouncementFill announcementFill() const;
    /// Whether the announcement log takes further changes that can wait.
    bool hasRoom() const;

    void swTableSetIs(const Brumo::Ptr<OrderedSwTableSet>& set);
    void swTableSetDel(SwTableId tableId);
    bool swTableSetHas(SwTableId tableId) const { return sets_.contains(tableId); }
    /// Null when there is none.
    Brumo::Ptr<OrderedSwTableSet> swTableSet(SwTableId tableId) const;

    /// Tells that a table has handed versions out up to this one, so that its acknowledgements can
    /// be checked.
    void announcedVersionIs(SwTableId tableId, LogVersion version);
    /// Tells where a table stands that has just been mounted, whatever the hardware side says.
    void announcedVersionRestored(SwTableId tableId, LogVersion version);
    /// The highest version announced, or acknowledged before the start, also of a log that is lost:
    /// no version up to it is handed out again. 0 when there is none.
    LogVersion announcedVersion(SwTableId tableId) const;
    /// The highest version that this very log has announced. An acknowledgement from before the
    /// start says so too, but not one of a lost log, nor one above `last`, the table's own last
    /// version.
    LogVersion announcedUpTo(SwTableId tableId, LogVersion last) const;

    /// The acknowledged version as the hardware side's map has it; nothing when the table is not in
    /// it, says more than was handed out, or there is no map of this log yet. Throws
    /// KivShimo::CorruptionError.
    std::optional<LogVersion> tableVersionInMap(SwTableId tableId) const;
    /// Reports corruption of the map, which is counted, and traced when it is not the same again.
    void doCorruptionDetected(std::string_view message) const;
    std::uint64_t corruptions() const { return corruptions_; }

    /// The acknowledged version as it was taken over; version 0 when there is none.
    LogVersion acknowledgedVersion(SwTableId tableId) const;
    /// Reads the hardware side's map and hands what has moved to the tables; takes up pauses. Where
    /// something has moved, a map that has replaced this one is left to the next call: call it
    /// until sleepPrepared().
    void acknowledgementsArrived();

    /// Prepares to sleep: from the return on, the hardware side rings. False when there is work,
    /// which acknowledgementsArrived() takes up; then the caller must not sleep.
    bool sleepPrepared();
    void awake();

    /// For tests and tools: changes that found no room in the announcement log and wait in memory.
    std::uint64_t announcementsWaiting() const { return waiting_.count(); }

private:
    struct SharedMemory;  ///< the mounted files; keeps their headers out of this one

    void takeUpAnnouncements();
    static void tellOfLook();
    AckMapReading readMap(bool atStart, const KivShimo::CorruptionReport& report) const;
    KivShimo::CorruptionReport corruptionReport() const;
    bool isNews(const AckMapReading& reading) const;
    void tellOfVersion(SwTableId tableId, std::uint64_t version) const;
    bool takeUpMap();
    bool takeUpAtStart();
    bool hasRoomForWaiting();
    void takeUpConsumed(const AckMapReading& reading);
    void takeUpPauseRequest(const AckMapReading& reading);
    bool isPauseRequestPending() const;
    bool acknowledgementsPending();
    bool announced(SwTableId tableId, LogVersion version,
                   const Brumo::Ptr<const NeededEntry>& needed);
    bool append(SwTableId tableId, LogVersion version, const Brumo::Ptr<const NeededEntry>& needed);
    void appendWaiting();
    bool acknowledge(SwTableId tableId, LogVersion version);
    std::string_view whyNot(SwTableId tableId, LogVersion version) const;
    void refuse(SwTableId tableId, LogVersion version, std::string_view why) const;

    std::string name_;
    std::uint16_t agentAndGroupId_;
    Brumo::Ptr<GroupResolver> resolver_;
    std::unique_ptr<SharedMemory> shm_;
    std::map<SwTableId, Brumo::Ptr<OrderedSwTableSet>> sets_;
    std::map<SwTableId, LogVersion> announced_;
    /// What the hardware side said at the start; tables that are taken up know better.
    std::map<SwTableId, LogVersion> acknowledgedBefore_;
    bool acknowledgedOfThisLog_ = false;  ///< and not of one that is lost
    std::map<SwTableId, LogVersion> acknowledged_;
    mutable std::map<SwTableId, LogVersion> refused_;  ///< so that a lie is traced once
    WaitingAnnouncements waiting_;
    bool changesHeld_ = false;  ///< what the resolver was told last, so that it is traced once
    mutable std::uint64_t corruptions_ = 0;
    mutable std::string reportedCorruption_;  ///< the last one: the map is read over and over
};

}  // namespace Asic
