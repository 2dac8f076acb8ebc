#include "platform/asic/GroupInterface.h"

#include <algorithm>
#include <bit>
#include <utility>
#include <vector>

#include "platform/asic/Constants.h"
#include "platform/asic/Recorder.h"
#include "platform/brumo/Recycled.h"
#include "platform/brumo/Trace.h"
#include "platform/kivshimo/AckMap.h"
#include "platform/kivshimo/AnnounceLog.h"
#include "platform/kivshimo/Doorbell.h"
#include "platform/kivshimo/EntityManager.h"
#include "platform/kivshimo/Paths.h"

namespace Asic {

namespace {

const Brumo::TraceSource trace("GroupInterface", "GroupInterface");

/// One slot in this many of the announcement log is left, by changes that can wait, to those that
/// cannot: updates of entries whose resource has moved, and cleared tables.
constexpr std::uint64_t kReserveShare = 8;

constexpr std::string_view kBeyond = "beyond the last version";

std::uint64_t announceSlots() {
    const std::uint64_t ceiling = KivShimo::EntityManager::capacityCeiling();
    return std::bit_floor(std::min<std::uint64_t>(KivShimo::kAnnounceSlots, ceiling));
}

/// Version 0 for a table that is not there.
LogVersion versionIn(const std::map<SwTableId, LogVersion>& versions, SwTableId tableId) {
    const auto found = versions.find(tableId);
    return found == versions.end() ? LogVersion{} : found->second;
}

std::string rootOf(const Regdb::EntityManager& entityManager) {
    return KivShimo::EntityManager::get(entityManager.systemName(), entityManager.local())->root();
}

}  // namespace

struct GroupInterface::SharedMemory {
    SharedMemory(const std::string& rootDirectory, const std::string& group)
        : root(rootDirectory),
          announcements(root, Constants::announcementsPath(group), announceSlots()),
          sleeper(announcements.sleepEpoch()),
          acknowledgementsFile(KivShimo::tableFile(root, Constants::acknowledgementsPath(group))) {}

    /// The hardware side's map; opened when it is there and not open, or was replaced. Null when it
    /// is not there.
    KivShimo::AckMapReader* map() {
        if (reader.has_value() && !reader->stale())
            return &*reader;
        return reopened();
    }
    /// The same, without the system call that finds a map that was replaced: for whoever asks again
    /// when nothing in it has moved.
    KivShimo::AckMapReader* openMap() { return reader.has_value() ? &*reader : reopened(); }

    /// The waker goes with the map whose word it reads.
    KivShimo::AckMapReader* reopened() {
        waker.reset();
        reader.reset();
        try {
            reader = KivShimo::AckMapReader::open(acknowledgementsFile);
        } catch (const KivShimo::MountError& error) {
            // A file that cannot be opened counts as not there; said once.
            if (reported != error.what())
                trace(1, " {}", error.what());
            reported = error.what();
        }
        if (!reader.has_value())
            return nullptr;
        waker.emplace(reader->sleepEpoch(), Constants::hardwareDoorbell(root));
        // It may have gone to sleep over what was announced before there was a waker.
        waker->published();
        return &*reader;
    }

    /// Whether the hardware side speaks of an announcement log that is lost, whose versions may
    /// have been handed out again since. One that has noted no log yet speaks of this one.
    /// REQUIRES: the map is open. Asked before what the map says is read: the hardware side notes
    /// the log first.
    bool isOfLostLog() const { return logOfMap() == AckMapReading::Log::another; }
    AckMapReading::Log logOfMap() const {
        const std::uint64_t identity = reader->announceIdentity();
        if (identity == 0)
            return AckMapReading::Log::none;
        return identity == announcements.identity() ? AckMapReading::Log::thisOne
                                                    : AckMapReading::Log::another;
    }

    std::string root;
    KivShimo::AnnounceLogWriter announcements;
    KivShimo::Sleeper sleeper;
    std::string acknowledgementsFile;
    std::optional<KivShimo::AckMapReader> reader;
    std::uint64_t refusedPosition = 0;  ///< consumed, says the map, but that cannot be
    std::uint64_t takenFrom = 0;        ///< identity of the map that the last position is from
    std::uint64_t takenPosition = 0;    ///< consumed, as that map said last
    std::string reported;               ///< why the map could not be opened last
    std::optional<KivShimo::Waker> waker;
    std::vector<KivShimo::NeededVersion> needed;  ///< of the announcement made last
};

GroupInterface::GroupInterface(std::string canonicalName, std::uint16_t agentAndGroupId,
                               const Brumo::Ptr<Regdb::EntityManager>& entityManager,
                               Kiv::EventLoop& loop)
    : name_(std::move(canonicalName)),
      agentAndGroupId_(agentAndGroupId),
      resolver_(Brumo::make<GroupResolver>(loop)),
      shm_(std::make_unique<SharedMemory>(rootOf(*entityManager), name_)) {
    corruptions_ += shm_->announcements.corruptions();
    resolver_->hasRoomIs([this] { return hasRoomForWaiting(); });
    takeUpAnnouncements();
}

GroupInterface::~GroupInterface() {
    resolver_->hasRoomIs({});
}

/// Learns from what is acknowledged, and from what the hardware side has still to read, how far
/// each table was announced by the process before. Where an acknowledgement is lost, also what was
/// consumed counts, as far as it is not overwritten.
void GroupInterface::takeUpAnnouncements() {
    const std::uint64_t overwritten = shm_->announcements.consumed();
    const bool isWhole = takeUpAtStart();
    const auto log = KivShimo::AnnounceLogReader::open(shm_->announcements.file());
    if (!log.has_value())
        return;
    std::uint64_t at = (isWhole ? shm_->announcements.consumed() : overwritten) + 1;
    while (at <= shm_->announcements.tail()) {
        try {
            const auto announcement = log->next(at);
            if (!announcement.has_value())
                return;
            announcedVersionIs(SwTableId(announcement->tableId), {announcement->version});
            at = announcement->position + 1;
        } catch (const KivShimo::CorruptionError& error) {
            doCorruptionDetected(error.what());
            ++at;  // what stands behind it is known all the same
        }
    }
}

void GroupInterface::tellOfLook() {
    if (recorder() != nullptr) [[unlikely]]
        recorder()->mapWillBeRead();
}

/// What the open map says, as far as it is taken up at the start of the process or later: a map of
/// a lost log acknowledges nothing later on, and one whose log cannot be read says nothing at all.
/// The log comes first, as the hardware side notes it first.
AckMapReading GroupInterface::readMap(bool atStart,
                                      const KivShimo::CorruptionReport& report) const {
    const KivShimo::AckMapReader& map = *shm_->reader;
    const auto read = [&report](const auto& look) {
        try {
            look();
            return true;
        } catch (const KivShimo::CorruptionError& error) {
            report(error);
            return false;
        }
    };
    AckMapReading reading;
    reading.identity = map.identity();
    reading.isWhole = read([&] { reading.log = shm_->logOfMap(); });
    if (!reading.log.has_value() && !atStart)
        return reading;
    if (atStart || *reading.log != AckMapReading::Log::another) {
        reading.versions = map.all([&](const KivShimo::CorruptionError& error) {
            report(error);
            reading.isWhole = false;
        });
    }
    if (reading.log == AckMapReading::Log::thisOne)
        read([&] { reading.consumed = map.consumed(); });
    if (!atStart)
        read([&] { reading.pauseRequested = map.pauseRequested(); });
    return reading;
}

KivShimo::CorruptionReport GroupInterface::corruptionReport() const {
    return [this](const KivShimo::CorruptionError& error) { doCorruptionDetected(error.what()); };
}

/// Whether taking up what the map says does anything, whatever was taken up before.
bool GroupInterface::isNews(const AckMapReading& reading) const {
    if (reading.pauseRequested.has_value() && *reading.pauseRequested != resolver_->suspended())
        return true;
    const KivShimo::AnnounceLogWriter& announcements = shm_->announcements;
    if (reading.consumed.has_value() && *reading.consumed > announcements.consumed() &&
        *reading.consumed <= announcements.tail())
        return true;
    return std::ranges::any_of(reading.versions, [this](const auto& each) {
        const SwTableId table(each.tableId);
        const LogVersion version{each.version};
        return version != acknowledgedVersion(table) && whyNot(table, version).empty();
    });
}

/// Takes up what the hardware side says at the start; false when not all of it can be read. Where
/// it cannot be said of which log that is, nothing counts as announced that may be of another one.
bool GroupInterface::takeUpAtStart() {
    tellOfLook();
    if (shm_->map() == nullptr)
        return true;
    AckMapReading reading = readMap(true, corruptionReport());
    reading.log = reading.log.value_or(AckMapReading::Log::another);
    if (recorder() != nullptr)
        recorder()->mapRead(reading, true);
    acknowledgedOfThisLog_ = *reading.log != AckMapReading::Log::another;
    for (const auto& [tableId, version] : reading.versions)
        acknowledgedBefore_[SwTableId(tableId)] = {version};
    takeUpConsumed(reading);
    return reading.isWhole;
}

void GroupInterface::addLogEntry(SwTableId tableId, LogVersion version,
                                 const Brumo::Ptr<const NeededEntry>& needed) {
    if (!announced(tableId, version, needed))
        waiting_.add(tableId, announcedVersion(tableId), version, needed);
    announcedVersionIs(tableId, version);
}

void GroupInterface::addLatestVersion(SwTableId tableId, LogVersion version) {
    if (!announced(tableId, version, nullptr))
        waiting_.addLatest(tableId, version);
    announcedVersionIs(tableId, version);
}

/// False when it has to wait for room, or behind what waits already.
bool GroupInterface::announced(SwTableId tableId, LogVersion version,
                               const Brumo::Ptr<const NeededEntry>& needed) {
    if (!waiting_.empty())
        return false;
    if (!append(tableId, version, needed)) {
        trace(1, " announcement log of {} is full", name_);
        return false;
    }
    if (shm_->waker.has_value())
        shm_->waker->published();
    return true;
}

bool GroupInterface::append(SwTableId tableId, LogVersion version,
                            const Brumo::Ptr<const NeededEntry>& needed) {
    std::vector<KivShimo::NeededVersion>& versions = shm_->needed;
    versions.clear();
    if (needed != nullptr) {
        for (const TableVersion& each : *needed) {
            versions.push_back({each.tableId.whole(), each.version.value});
        }
    }
    return shm_->announcements.append(tableId.whole(), version.value, versions);
}

void GroupInterface::appendWaiting() {
    const bool appended =
        waiting_.giveOut([this](SwTableId tableId, LogVersion version, const auto& needed) {
            return append(tableId, version, needed);
        });
    if (appended && shm_->waker.has_value())
        shm_->waker->published();
}

GroupInterface::AnnouncementFill GroupInterface::announcementFill() const {
    const auto& announcements = shm_->announcements;
    return {announcements.slots() - announcements.free(), announcements.slots()};
}

bool GroupInterface::hasRoom() const {
    const auto& announcements = shm_->announcements;
    return waiting_.empty() && announcements.free() > announcements.slots() / kReserveShare;
}

/// Asked when changes wait to be committed; says once that they are held, and once that they go on.
bool GroupInterface::hasRoomForWaiting() {
    const bool room = hasRoom();
    if (room != changesHeld_)
        return room;
    changesHeld_ = !room;
    if (room) {
        trace(2, " announcement log of {} has room again, changes go on", name_);
    } else {
        trace(1, " announcement log of {} is short of room, changes wait", name_);
    }
    return room;
}

Brumo::Ptr<NeededEntry> GroupInterface::everythingAnnounced() const {
    auto needed = Brumo::make<NeededEntry>();
    for (const auto& [tableId, version] : announced_) {
        if (version.value != 0)
            needed->add({tableId, version});
    }
    return needed;
}

void GroupInterface::swTableSetIs(const Brumo::Ptr<OrderedSwTableSet>& set) {
    sets_[set->tableId()] = set;
}

void GroupInterface::swTableSetDel(SwTableId tableId) {
    sets_.erase(tableId);
}

Brumo::Ptr<OrderedSwTableSet> GroupInterface::swTableSet(SwTableId tableId) const {
    const auto found = sets_.find(tableId);
    return found == sets_.end() ? nullptr : found->second;
}

void GroupInterface::announcedVersionIs(SwTableId tableId, LogVersion version) {
    LogVersion& announced = announced_[tableId];
    announced = std::max(announced, version);
}

LogVersion GroupInterface::announcedVersion(SwTableId tableId) const {
    return std::max(versionIn(announced_, tableId), versionIn(acknowledgedBefore_, tableId));
}

LogVersion GroupInterface::announcedUpTo(SwTableId tableId, LogVersion last) const {
    const LogVersion announced = versionIn(announced_, tableId);
    const LogVersion acknowledged = versionIn(acknowledgedBefore_, tableId);
    const bool counts = acknowledgedOfThisLog_ && acknowledged <= last;
    return counts ? std::max(announced, acknowledged) : announced;
}

void GroupInterface::announcedVersionRestored(SwTableId tableId, LogVersion version) {
    announced_[tableId] = version;
    acknowledgedBefore_.erase(tableId);
}

/// What is read of one table is told with all of the map, of which the rest may be later.
void GroupInterface::tellOfVersion(SwTableId tableId, std::uint64_t version) const {
    AckMapReading reading = readMap(true, [](const auto&) {});  // whoever takes it up reports it
    KivShimo::Acknowledgements versions;
    for (KivShimo::Acknowledged row : reading.versions) {
        if (row.tableId == tableId.whole())
            row.version = version;
        versions.add(row);
    }
    reading.versions = versions;
    reading.log = reading.log.value_or(AckMapReading::Log::none);
    recorder()->mapRead(reading, false);
}

std::optional<LogVersion> GroupInterface::tableVersionInMap(SwTableId tableId) const {
    tellOfLook();
    KivShimo::AckMapReader* map = shm_->map();
    if (map == nullptr || shm_->isOfLostLog())
        return std::nullopt;
    const auto version = map->acknowledged(tableId.whole());
    if (version.has_value() && recorder() != nullptr)
        tellOfVersion(tableId, *version);
    if (!version.has_value())
        return std::nullopt;
    const auto announced = announced_.find(tableId);
    if (announced != announced_.end() && announced->second.value < *version) {
        refuse(tableId, {*version}, kBeyond);
        return std::nullopt;
    }
    return LogVersion{*version};
}

void GroupInterface::doCorruptionDetected(std::string_view message) const {
    ++corruptions_;
    if (reportedCorruption_ == message)
        return;
    reportedCorruption_ = message;
    trace(1, " corruption: {}", message);
}

LogVersion GroupInterface::acknowledgedVersion(SwTableId tableId) const {
    return versionIn(acknowledged_, tableId);
}

/// A map that was replaced does not move any more, so it is looked for only when nothing has; what
/// the new one says is taken up at once.
void GroupInterface::acknowledgementsArrived() {
    const Brumo::Ptr<GroupInterface> keep(this);  // a handler may drop the group
    tellOfLook();
    const KivShimo::AckMapReader* map = shm_->openMap();
    if (map == nullptr)
        return;
    const std::uint64_t identity = map->identity();
    if (takeUpMap())
        return;
    tellOfLook();
    map = shm_->map();
    if (map != nullptr && map->identity() != identity)
        takeUpMap();
}

/// Takes up what the open map says. Returns whether anything in it has moved; false also where that
/// cannot be read.
bool GroupInterface::takeUpMap() {
    const AckMapReading reading = readMap(false, corruptionReport());
    if (!reading.log.has_value())
        return false;
    if (recorder() != nullptr) [[unlikely]]
        recorder()->mapRead(reading, resolver_->waitsForMore() || isNews(reading));
    const std::uint64_t consumedBefore = shm_->announcements.consumed();
    takeUpConsumed(reading);
    appendWaiting();
    takeUpPauseRequest(reading);
    bool moved = false;
    for (const auto& [tableId, version] : reading.versions)
        moved |= acknowledge(SwTableId(tableId), {version});
    if (moved)
        publisher().publish(kAcknowledged);
    resolver_->updateGenId();
    return moved || shm_->announcements.consumed() != consumedBefore;
}

/// Frees what the hardware side has consumed. A position that was never announced, or goes
/// backwards, is refused; that is traced once, however often the map is read. A hardware side that
/// begins anew stores 0 first, or has a new map; then any position may be the first.
void GroupInterface::takeUpConsumed(const AckMapReading& reading) {
    if (!reading.consumed.has_value())
        return;
    KivShimo::AnnounceLogWriter& announcements = shm_->announcements;
    const std::uint64_t position = *reading.consumed;
    if (position == 0 || shm_->takenFrom != reading.identity)
        shm_->takenPosition = 0;
    shm_->takenFrom = reading.identity;
    const bool isBeyond = position > announcements.tail();
    const bool isBackwards = position < shm_->takenPosition;
    if (isBeyond || isBackwards) {
        if (std::exchange(shm_->refusedPosition, position) == position)
            return;
        trace(1, " refused consumed position {}: {}, {}", position,
              isBeyond ? "beyond the last one announced"
                       : "goes backwards from the last one taken up",
              isBeyond ? announcements.tail() : shm_->takenPosition);
        return;
    }
    shm_->refusedPosition = 0;
    shm_->takenPosition = position;
    announcements.consumedIs(position);
}

/// While the request cannot be read, the one before counts.
void GroupInterface::takeUpPauseRequest(const AckMapReading& reading) {
    if (reading.pauseRequested.has_value())
        resolver_->suspendRequestedIs(*reading.pauseRequested);
    resolver_->maybeUpdateSuspend();
}

/// A request that does not verify asks for nothing. REQUIRES: the map is open.
bool GroupInterface::isPauseRequestPending() const try {
    return shm_->reader->pauseRequested() != resolver_->suspended();
} catch (const KivShimo::CorruptionError&) {
    return false;  // reported when it is taken up
}

/// True when the table's acknowledged version has moved. A handler may end tables: they are held.
bool GroupInterface::acknowledge(SwTableId tableId, LogVersion version) {
    if (version == acknowledgedVersion(tableId))
        return false;
    if (const std::string_view why = whyNot(tableId, version); !why.empty()) {
        refuse(tableId, version, why);
        return false;
    }
    acknowledged_[tableId] = version;
    const Brumo::Ptr<OrderedSwTableSet> set = swTableSet(tableId);
    if (set == nullptr)
        return true;
    using TablePtr = Brumo::Ptr<OrderedSwTable>;
    std::vector<TablePtr, Brumo::RecyclingAllocator<TablePtr>> tables;
    tables.reserve(set->swTables().size());
    for (const auto& [unit, table] : set->swTables())
        tables.push_back(table);
    for (const TablePtr& table : tables)
        table->tableStatusVersion(version);
    return true;
}

/// Why an acknowledgement cannot be; empty where it can.
std::string_view GroupInterface::whyNot(SwTableId tableId, LogVersion version) const {
    if (!sets_.contains(tableId) && !announced_.contains(tableId))
        return "no such table";
    if (version < acknowledgedVersion(tableId))
        return "goes backwards";
    if (version > announcedVersion(tableId))
        return kBeyond;
    return {};
}

/// Traced once for each lie, however often the map is read. What a map names beside each other is
/// remembered, and no more: it may name ever other tables.
void GroupInterface::refuse(SwTableId tableId, LogVersion version, std::string_view why) const {
    if (refused_.size() > KivShimo::kMostAckTables)
        refused_.clear();
    LogVersion& last = refused_[tableId];
    if (last == version)
        return;
    last = version;
    trace(1, " refused acknowledgement of version {} for table id: {}: {}", version, tableId, why);
}

bool GroupInterface::sleepPrepared() {
    shm_->sleeper.asleep();
    return !acknowledgementsPending();
}

/// Whether the hardware side's map says anything that was not taken up yet.
bool GroupInterface::acknowledgementsPending() {
    try {
        const KivShimo::AckMapReader* map = shm_->map();
        if (map == nullptr)
            return false;
        if (isPauseRequestPending())
            return true;
        if (map->announceIdentity() == shm_->announcements.identity() &&
            map->consumed() > shm_->announcements.consumed() &&
            map->consumed() <= shm_->announcements.tail()) {
            return true;
        }
        if (shm_->isOfLostLog())
            return false;
        const auto acknowledgements = map->all([](const auto&) {});  // reported when taken up
        return std::ranges::any_of(acknowledgements, [this](const auto& each) {
            const SwTableId table(each.tableId);
            const LogVersion pending{each.version};
            return pending != acknowledgedVersion(table) && whyNot(table, pending).empty();
        });
    } catch (const KivShimo::CorruptionError&) {
        return false;  // reported when it is taken up
    }
}

void GroupInterface::awake() {
    shm_->sleeper.awake();
}

}  // namespace Asic
