// Follows the agent's announcements, programs what they name, and acknowledges it.
//
// Used by one thread, whose process is the only one that acknowledges. The order of work is that of
// the announcements; the content comes from the change logs (what was done to which key) and from
// the configurations (the value). docs/hardware-side.md has the whole protocol.
//
// What always holds:
//  1. Nothing is programmed before every (table, version) that its announcement needs is
//     acknowledged; where the table is one that is not looked up, before it was announced, which
//     the agent does first. An announcement that has to wait holds back later ones of its own
//     table; those of other tables go on.
//  2. A version is acknowledged once hardware is as the table was at that version or later. One
//     exception: a key that was written again, or deleted, keeps what hardware has until its later
//     announcement is carried out, unless rule 5 applies.
//  3. The consumed position lies before the oldest announcement that is not done.
//  4. Hardware is never touched for what it already holds.
//  5. Where a later write has replaced the value of a written key meanwhile, that later value is
//     programmed at once, if the write is at most 1024 versions later, is announced already, and
//     that within the next 1024 announcements, and what it needs is there. A later deletion is left
//     to its announcement.
//
// Rotten records. A rotten or missing announcement or change record does not say what it was about,
// so everything is taken from the configurations once (a snapshot), which hold it as well. A rotten
// configuration value cannot be had elsewhere: the change is reported and acknowledged, hardware
// keeps what it has for the key. All of it is traced at level 1 and counted.
#pragma once

#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "hwside/Group.h"
#include "hwside/TableReader.h"
#include "hwside/Tcam.h"
#include "platform/kivshimo/AckMap.h"
#include "platform/kivshimo/AnnounceLog.h"
#include "platform/kivshimo/Doorbell.h"

namespace HwSide {

class LogReader {
public:
    enum class Progress : std::uint8_t {
        idle,   ///< nothing is left to do until something is announced
        more,   ///< the budget is used up
        again,  ///< a store is under way in the agent: try again a little later
    };

    /// What was met so far.
    struct Counters {
        std::uint64_t announcements = 0;  ///< done, those below included
        std::uint64_t resources = 0;      ///< of tables that are not looked up
        std::uint64_t repeated = 0;       ///< acknowledged before
        std::uint64_t superseded = 0;     ///< a later announcement brings the value
        std::uint64_t snapshots = 0;      ///< finished
        std::uint64_t rotten = 0;         ///< announcements, records, values, files
        std::uint64_t lost = 0;           ///< change records or values that are not there
    };

    /// `tcam` may hold what an earlier reader of this process programmed. Opens nothing yet.
    LogReader(Group group, Tcam& tcam, KivShimo::AckMapWriter& acks);

    /// Does what there is to do, at most `budget` announcements, and rings for the agent where it
    /// sleeps. Files that are not there yet are looked for at each call.
    Progress pump(std::size_t budget = SIZE_MAX);
    /// Has the next pump() take everything from the values, and remove what they do not have.
    void snapshotIsDue() { snapshotDue_ = true; }
    /// Rings for the agent where it sleeps: something was stored for it.
    void tellAgent();

    Counters counters() const;
    /// The last announcement taken off the log; 0 before the first.
    std::uint64_t position() const { return position_; }
    /// Announcements that wait for what they need.
    std::size_t waiting() const;
    /// Whether there is an agent's log to follow, or what a dead agent left of it.
    bool follows() const { return announcements_.has_value(); }

private:
    struct Waiting {
        KivShimo::Announcement announcement;
        std::uint64_t before;  ///< position up to which all is consumed without it
    };

    /// What a snapshot has to know of the announcements that it covers.
    struct Covered {
        std::map<std::uint32_t, std::uint64_t> versions;  ///< the highest announced, by table
        bool isWhole = false;  ///< all that this log announces was consumed or could be read
        std::vector<Waiting> notConsumed;
    };

    bool opened();
    bool goesOn();
    /// Whether what is acknowledged was announced in this very log.
    bool isSameLog() const { return acks_->announceIdentity() == announcements_->identity(); }
    Progress consume(std::size_t budget);
    void take(KivShimo::Announcement announcement, std::uint64_t before);
    bool needsMet(const KivShimo::Announcement& announcement);
    bool carriedOut(const KivShimo::Announcement& announcement);
    bool isLaterMet(const KivShimo::Announcement& announcement, Asic::LogVersion later);
    void retryWaiting();
    void publishConsumed();

    void snapshot();
    Covered coveredUpTo(std::uint64_t tail) const;
    std::uint64_t snapshotVersion(TableReader& table, std::uint64_t announced);
    void leaveOutWhatHasToWait(Covered& covered) const;
    void startAcknowledgingAnew();
    void acknowledge(std::uint32_t tableId, std::uint64_t version);
    std::uint64_t acknowledged(std::uint32_t tableId) const;
    TableReader* tableOf(std::uint32_t tableId) const;
    void rotten(std::string_view what);

    Group group_;
    KivShimo::AckMapWriter* acks_;
    Counters counters_;
    std::vector<std::unique_ptr<TableReader>> tables_;  ///< what is needed before what needs it
    std::optional<KivShimo::AnnounceLogReader> announcements_;
    std::optional<KivShimo::Waker> waker_;  ///< refers to the announcements' mapping
    std::uint64_t position_ = 0;
    std::map<std::uint32_t, std::deque<Waiting>> waiting_;  ///< by table; no empty queues
    bool snapshotDue_ = false;
    bool busy_ = false;
};

}  // namespace HwSide
