#include "hwside/LogReader.h"

#include <algorithm>

#include "platform/brumo/Trace.h"

namespace HwSide {

namespace {

const Brumo::TraceSource kTrace{"HwSideLogReader", "LogReader"};

/// Announcements looked through for the later change of a key that was written again.
constexpr std::size_t kLookAhead = 1024;

Asic::SwTableId idOf(std::uint32_t tableId) {
    return Asic::SwTableId(tableId);
}

}  // namespace

LogReader::LogReader(Group group, Tcam& tcam, KivShimo::AckMapWriter& acks)
    : group_(std::move(group)), acks_(&acks), tables_(tableReaders(group_, tcam)) {}

LogReader::Progress LogReader::pump(std::size_t budget) {
    busy_ = false;
    try {
        if (!opened())
            return Progress::idle;
        retryWaiting();
        const Progress progress = consume(budget);
        publishConsumed();
        tellAgent();
        return busy_ ? Progress::again : progress;
    } catch (const KivShimo::BusyError& error) {
        kTrace(3, " {}", error.what());
        return Progress::again;
    } catch (const KivShimo::CorruptionError& error) {
        // The tail or a published version: the agent restores those at its next start.
        rotten(error.what());
    } catch (const KivShimo::MountError& error) {
        rotten(error.what());
    }
    waker_.reset();
    announcements_.reset();
    return Progress::idle;
}

void LogReader::tellAgent() {
    if (waker_)
        waker_->published();
}

/// Whether the announcements can be followed; takes up where hardware stands when they are new.
bool LogReader::opened() {
    const auto isStale = [](const auto& reader) { return reader->stale(); };
    if (announcements_ && (announcements_->stale() || std::ranges::any_of(tables_, isStale))) {
        kTrace(2, " files were replaced");
        waker_.reset();
        announcements_.reset();
        snapshotDue_ = true;
    }
    if (!announcements_) {
        for (const auto& table : tables_)
            table->close();
        announcements_ = KivShimo::AnnounceLogReader::open(group_.announcementsFile());
        if (!announcements_)
            return false;
        waker_.emplace(announcements_->sleepEpoch(), group_.agentBell());
        waiting_.clear();
        snapshotDue_ = snapshotDue_ || !goesOn();
        if (!snapshotDue_)
            position_ = acks_->consumed();
    }
    if (snapshotDue_)
        snapshot();
    return true;
}

/// Whether hardware holds what was acknowledged, from these very files.
///
/// A process that has programmed nothing goes on only where nothing was consumed: one killed while
/// it began anew may have left no acknowledgements of what it had programmed.
bool LogReader::goesOn() {
    const bool isNew =
        std::ranges::all_of(tables_, [](const auto& table) { return table->reached().value == 0; });
    return isSameLog() && acks_->consumed() <= announcements_->tail() &&
           !(isNew && acks_->consumed() != 0) &&
           std::ranges::all_of(tables_, [&](const auto& table) {
               const std::uint64_t version = acknowledged(table->tableId());
               return table->reached().value == version && snapshotVersion(*table, 0) >= version;
           });
}

LogReader::Progress LogReader::consume(std::size_t budget) {
    for (; budget > 0; --budget) {
        try {
            std::optional<KivShimo::Announcement> announcement =
                announcements_->next(position_ + 1);
            if (!announcement)
                return Progress::idle;
            const std::uint64_t before = position_;
            position_ = announcement->position;
            take(std::move(*announcement), before);
        } catch (const KivShimo::CorruptionError& error) {
            rotten(error.what());
            snapshotDue_ = true;
        }
        if (snapshotDue_)
            snapshot();
    }
    return Progress::more;
}

void LogReader::take(KivShimo::Announcement announcement, std::uint64_t before) {
    const std::uint32_t tableId = announcement.tableId;
    if (!waiting_.contains(tableId) && needsMet(announcement)) {
        if (carriedOut(announcement)) {
            if (!waiting_.empty())
                retryWaiting();
            return;
        }
        if (snapshotDue_)
            return;
    }
    waiting_[tableId].push_back({std::move(announcement), before});
}

/// Whether the change may be carried out. A table that is not looked up waits for nothing, and the
/// agent announces what is needed first: what an announcement that was taken needs of it was taken
/// before. Its acknowledgement may be lost, and the agent does not announce it again.
bool LogReader::needsMet(const KivShimo::Announcement& announcement) {
    const bool isTaken = announcement.position <= position_;
    return std::ranges::all_of(announcement.needed, [&](const KivShimo::NeededVersion& needed) {
        if (acknowledged(needed.tableId) >= needed.version)
            return true;
        if (isTaken && tableOf(needed.tableId) == nullptr)
            return true;
        if (needed.tableId == announcement.tableId && needed.version >= announcement.version) {
            kTrace(1, " {}@{} needs {} of its own table: cannot be waited for",
                   idOf(announcement.tableId), announcement.version, needed.version);
            return true;
        }
        kTrace(9, " {}@{} waits for {}@{}", idOf(announcement.tableId), announcement.version,
               idOf(needed.tableId), needed.version);
        return false;
    });
}

/// Carries a change out and acknowledges it; false when it has to be tried again, or is lost and
/// needs a snapshot.
bool LogReader::carriedOut(const KivShimo::Announcement& announcement) {
    const std::uint32_t tableId = announcement.tableId;
    TableReader* const table = tableOf(tableId);
    if (announcement.version <= acknowledged(tableId)) {
        ++counters_.repeated;
    } else if (table == nullptr) {
        ++counters_.resources;
    } else if (announcement.version > acknowledged(tableId) + 1) {
        // Whatever the versions between have changed, the configurations hold it.
        kTrace(1, " {}@{} is announced after {}: the versions between never were", idOf(tableId),
               announcement.version, acknowledged(tableId));
        ++counters_.lost;
        snapshotDue_ = true;
        return false;
    } else {
        const Applied applied = table->apply({announcement.version});
        kTrace(8, " {}@{}: {}", idOf(tableId), announcement.version, static_cast<int>(applied));
        switch (applied) {
            case Applied::done:
                break;
            case Applied::superseded:
                ++counters_.superseded;
                if (const auto later = table->laterVersion();
                    later.has_value() && isLaterMet(announcement, *later)) {
                    table->programLater();
                }
                break;
            case Applied::rotten:
                break;  // the table has counted it
            case Applied::busy:
                busy_ = true;
                return false;
            case Applied::lost:
                ++counters_.lost;
                snapshotDue_ = true;
                return false;
        }
    }
    ++counters_.announcements;
    acknowledge(tableId, announcement.version);
    return true;
}

/// Looks ahead, a bounded way, for the announcement of the later change of a key and at what it
/// needs. All versions of a table are announced, in order: a change that is so many versions later
/// stands behind the bound, and is not looked for with each change of a long backlog.
bool LogReader::isLaterMet(const KivShimo::Announcement& announcement, Asic::LogVersion later) {
    if (later.value - announcement.version > kLookAhead)
        return false;
    try {
        std::uint64_t at = position_ + 1;
        for (std::size_t left = kLookAhead; left > 0; --left) {
            const auto next = announcements_->next(at);
            if (!next)
                return false;
            if (next->tableId == announcement.tableId && next->version == later.value)
                return needsMet(*next);
            at = next->position + 1;
        }
    } catch (const KivShimo::CorruptionError&) {
        return false;  // counted when it is taken
    }
    return false;
}

/// Carries out what waits and need not any more, until nothing of it is left that could go on.
void LogReader::retryWaiting() {
    for (bool moved = true; moved && !snapshotDue_;) {
        moved = false;
        for (auto at = waiting_.begin(); at != waiting_.end() && !snapshotDue_;) {
            std::deque<Waiting>& queue = at->second;
            while (!queue.empty() && needsMet(queue.front().announcement) &&
                   carriedOut(queue.front().announcement)) {
                queue.pop_front();
                moved = true;
            }
            at = queue.empty() ? waiting_.erase(at) : std::next(at);
        }
    }
    if (snapshotDue_)
        snapshot();
}

void LogReader::publishConsumed() {
    std::uint64_t consumed = position_;
    for (const auto& [tableId, queue] : waiting_) {
        consumed = std::min(consumed, queue.front().before);
    }
    if (acks_->consumed() != consumed)
        acks_->consumedIs(consumed);
}

/// Brings hardware to what the configurations hold, whatever it holds now.
///
/// The order makes it right beside a running agent. The tail comes first: what is announced behind
/// it is consumed afterwards. Then the published versions, those of tables that need others first:
/// what a change of theirs needs was published before it, so it is within the versions read after.
/// Values newer than these are left to their announcements, which come behind the tail. So are
/// published ones that are not announced yet, where all announcements are known: the log was full,
/// and what they need of tables that publish nothing is not announced either.
///
/// One hole is left. In a new log that announces nothing of a table yet, what the table has
/// published is taken, as it may have been announced in the log that is lost. Where the agent has
/// just published a change, and announces it behind the tail, that is programmed before the
/// resources that it needs are taken, if these are announced behind the tail as well.
void LogReader::snapshot() {
    const std::uint64_t tail = announcements_->tail();
    kTrace(2, " snapshot: announcements up to {}", tail);
    Covered covered = coveredUpTo(tail);
    bool isOtherHistory = !isSameLog();
    std::map<std::uint32_t, std::uint64_t> published;
    for (auto at = tables_.rbegin(); at != tables_.rend(); ++at) {
        const std::uint32_t tableId = (*at)->tableId();
        published[tableId] = snapshotVersion(**at, covered.versions[tableId]);
        isOtherHistory = isOtherHistory || published[tableId] < acknowledged(tableId);
    }
    for (const auto& [tableId, version] : published) {
        std::uint64_t& announced = covered.versions[tableId];
        // What is published and not announced yet needs what nobody knows.
        const std::uint64_t known =
            isOtherHistory ? announced : std::max(announced, acknowledged(tableId));
        announced = covered.isWhole && (known != 0 || !isOtherHistory) ? known : version;
    }
    if (!isOtherHistory)
        leaveOutWhatHasToWait(covered);
    for (const auto& table : tables_)
        table->programAll({covered.versions[table->tableId()]});
    for (auto at = tables_.rbegin(); at != tables_.rend(); ++at)
        (*at)->removeRest();
    if (isOtherHistory)
        startAcknowledgingAnew();
    for (const auto& [tableId, version] : covered.versions) {
        acknowledge(tableId, version);
        if (TableReader* const table = tableOf(tableId))
            table->reachedIs({version});
    }
    waiting_.clear();
    for (Waiting& waiting : covered.notConsumed) {
        const std::uint32_t tableId = waiting.announcement.tableId;
        if (waiting.announcement.version > covered.versions[tableId]) {
            waiting_[tableId].push_back(std::move(waiting));
        }
    }
    position_ = tail;
    snapshotDue_ = false;
    ++counters_.snapshots;
}

/// What was announced up to the tail, as far as the log still has it.
LogReader::Covered LogReader::coveredUpTo(std::uint64_t tail) const {
    Covered covered;
    const std::uint64_t slots = announcements_->slots();
    covered.isWhole = isSameLog() || tail <= slots;
    const std::uint64_t oldest = tail > slots ? tail - slots + 1 : 1;
    std::uint64_t at = isSameLog() ? std::max(oldest, acks_->consumed() + 1) : oldest;
    while (at <= tail) {
        try {
            auto announcement = announcements_->next(at);
            if (!announcement)
                break;
            std::uint64_t& version = covered.versions[announcement->tableId];
            version = std::max(version, announcement->version);
            const std::uint64_t before = std::exchange(at, announcement->position + 1) - 1;
            if (isSameLog())
                covered.notConsumed.push_back({std::move(*announcement), before});
        } catch (const KivShimo::CorruptionError&) {
            covered.isWhole = false;
            ++at;  // rot, counted when it was met, or overwritten since
        }
    }
    return covered;
}

/// Leaves changes whose needs the snapshot does not meet, and those behind them in their table, to
/// be carried out when they are met.
void LogReader::leaveOutWhatHasToWait(Covered& covered) const {
    const auto isMet = [&](const KivShimo::NeededVersion& needed) {
        return tableOf(needed.tableId) == nullptr ||
               std::max(covered.versions[needed.tableId], acknowledged(needed.tableId)) >=
                   needed.version;
    };
    for (bool moved = true; moved;) {
        moved = false;
        for (const auto& [announcement, before] : covered.notConsumed) {
            std::uint64_t& version = covered.versions[announcement.tableId];
            if (announcement.version > version ||
                announcement.version <= acknowledged(announcement.tableId) ||
                std::ranges::all_of(announcement.needed, isMet)) {
                continue;
            }
            version = announcement.version - 1;
            moved = true;
        }
    }
}

/// The agent's logs are others than those that were acknowledged. Tables that are not looked up
/// keep what they have as long as the announcements are the same.
void LogReader::startAcknowledgingAnew() {
    for (const auto& [tableId, version] : acks_->all()) {
        if (!isSameLog() || tableOf(tableId) != nullptr)
            acks_->forget(tableId);
    }
    acks_->consumedIs(0);
    acks_->announceIdentityIs(announcements_->identity());
}

std::uint64_t LogReader::snapshotVersion(TableReader& table, std::uint64_t announced) {
    try {
        return std::max(announced, table.published().value);
    } catch (const KivShimo::CorruptionError& error) {
        rotten(error.what());
    } catch (const KivShimo::MountError& error) {
        rotten(error.what());
    }
    return std::max(announced, acknowledged(table.tableId()));
}

void LogReader::acknowledge(std::uint32_t tableId, std::uint64_t version) {
    if (version <= acknowledged(tableId))
        return;
    if (!acks_->ackIs(tableId, version)) {
        kTrace(1, " {}@{} finds no room among the acknowledgements", idOf(tableId), version);
    }
    if (TableReader* const table = tableOf(tableId))
        table->reachedIs({version});
}

std::uint64_t LogReader::acknowledged(std::uint32_t tableId) const {
    return acks_->acknowledged(tableId).value_or(0);
}

TableReader* LogReader::tableOf(std::uint32_t tableId) const {
    for (const auto& table : tables_) {
        if (table->tableId() == tableId)
            return table.get();
    }
    return nullptr;
}

void LogReader::rotten(std::string_view what) {
    ++counters_.rotten;
    kTrace(1, " {}", what);
}

LogReader::Counters LogReader::counters() const {
    Counters counters = counters_;
    for (const auto& table : tables_)
        counters.rotten += table->rotten();
    return counters;
}

std::size_t LogReader::waiting() const {
    std::size_t count = 0;
    for (const auto& [tableId, queue] : waiting_)
        count += queue.size();
    return count;
}

}  // namespace HwSide
