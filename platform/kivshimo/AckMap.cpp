// The rows of the acknowledgement file, and how the writer takes them up again.
#include "platform/kivshimo/AckMap.h"

#include <algorithm>

#include "platform/brumo/Trace.h"

namespace KivShimo {
namespace {

constexpr const char* kType = "KivShimo::AckMap";
constexpr const char* kCollection = "acknowledged";
constexpr const char* kPauseRequest = "pause request";

constexpr unsigned kRowTries = 1000;

/// One table's row. Rows are reused: the label tells their uses apart, also those by one table.
///
/// The writer takes the check away before it stores anything for another table, with a release
/// fence in between; the label and its check come last. So a reader that has read anything of the
/// new table does not find the old check any more when it looks once more behind an acquire fence.
///
///   0       8       16        64
///   | label | check | version |
struct Row {
    std::uint64_t label;  ///< table id; in the upper half how often the row was taken
    std::uint64_t check;  ///< of the label; 0 while the row is free, stored last
    detail::VerifiedWord version;
};
static_assert(sizeof(Row) == 64 && offsetof(Row, version) == 16);

std::uint64_t checkOf(std::uint64_t label, std::uint64_t seed) {
    return detail::mixed(seed, label) | 1U;
}

std::uint32_t tableOf(std::uint64_t label) {
    return static_cast<std::uint32_t>(label);
}

std::uint64_t nextLabelOf(const Row& row, std::uint32_t tableId) {
    return ((detail::loaded(row.label) >> 32U) + 1) << 32U | tableId;
}

std::vector<detail::CollectionPlan> plan() {
    return {{kCollection, detail::CollectionKind::ackMap, sizeof(Row), 1, kMostAckTables}};
}

const Brumo::TraceSource& acknowledgementsTrace() {
    static const Brumo::TraceSource source("KivShimo", "AckMapWriter");
    return source;
}

detail::MountFindings mounted(const std::string& root, const std::string& path) {
    return detail::mountedAndTraced(root, path, kType, plan(), acknowledgementsTrace());
}

const Row* rowsIn(const detail::MappedFile& mapping) {
    return reinterpret_cast<const Row*>(mapping.area(0));
}

Row* rowsOf(const detail::WriterFile& mapping) {
    return reinterpret_cast<Row*>(mapping.writableArea(0));
}

/// What a row said at one moment.
struct RowReading {
    bool isLabelRotten = false;
    std::optional<std::uint32_t> table;    ///< empty: free, or it is not known
    std::optional<std::uint64_t> version;  ///< empty with a table: rotten
};

RowReading readingOf(const Row& row, const detail::MappedFile& mapping) {
    for (unsigned attempt = 0; attempt < kRowTries; ++attempt) {
        const std::uint64_t check = detail::word(row.check).load(std::memory_order_acquire);
        if (check == 0)
            return {};
        RowReading result;
        const std::uint64_t label = detail::loaded(row.label);
        if (check == checkOf(label, mapping.seed(0))) {
            result.table = tableOf(label);
            result.version = row.version.read(mapping.wordSeed());
        } else {
            result.isLabelRotten = true;
        }
        // What was read may be another table's by now; its writer has changed the check then.
        std::atomic_thread_fence(std::memory_order_acquire);
        if (detail::loaded(row.check) == check)
            return result;
    }
    return {};  // its table changes all the time, so none is known to be acknowledged here
}

constexpr std::size_t kRowsALook = 4;
static_assert(kMostAckTables % kRowsALook == 0);

/// A check of 0 alone makes a row free: nothing else of it is read, so no order is needed.
bool areFree(const Row* rows) {
    return (detail::loaded(rows[0].check) | detail::loaded(rows[1].check) |
            detail::loaded(rows[2].check) | detail::loaded(rows[3].check)) == 0;
}

std::uint64_t valueOf(const detail::VerifiedWord& stored, const detail::MappedFile& mapping,
                      std::string_view what, std::uint64_t row) {
    const std::optional<std::uint64_t> value = stored.read(mapping.wordSeed());
    if (!value)
        throw CorruptionError(mapping.file(), what, row, "does not verify");
    return *value;
}

}  // namespace

AckMapWriter::AckMapWriter(const std::string& root, const std::string& path)
    : AckMapWriter(mounted(root, path)) {}

/// The consumed position, the announce log's identity and the pause request lie in words of the
/// header (scratchpad, tail, pause).
AckMapWriter::AckMapWriter(detail::MountFindings found)
    : mapping_(std::move(found.file)),
      consumed_(mapping_.dynamicHeader().scratchpad, mapping_.wordSeed()),
      announceIdentity_(mapping_.dynamicHeader().tail, mapping_.wordSeed()),
      pause_(mapping_.dynamicHeader().pause, mapping_.wordSeed()),
      wiped_(found.lost) {
    takeUp();
    if (corruptions_ != 0) {
        acknowledgementsTrace()(1, " {}: {} rotten acknowledgements", mapping_.file(),
                                corruptions_);
    }
    takeUpPause();
    corruptions_ += found.corruptions;
}

/// A rotten row is freed: its table counts as not acknowledged. A version or a position whose newer
/// cell has rotted counts as the one before: what follows is done once more. Where it is not known
/// which log was acknowledged, no log must take the rows for its own.
void AckMapWriter::takeUp() {
    Row* rows = rowsOf(mapping_);
    for (std::size_t i = 0; i < kMostAckTables; ++i) {
        const std::uint64_t check = detail::loaded(rows[i].check);
        if (check == 0)
            continue;
        const std::uint64_t label = detail::loaded(rows[i].label);
        const bool isOfTable =
            check == checkOf(label, mapping_.seed(0)) && entryOf(tableOf(label)) == nullptr;
        const detail::VerifiedWord::Reading version = rows[i].version.reading(mapping_.wordSeed());
        if (isOfTable && version.serial != 0) {
            detail::VerifiedWordWriter writer(rows[i].version, mapping_.wordSeed());
            if (version.rotten)
                writer.valueIs(version.value);
            corruptions_ += version.rotten ? 1U : 0U;
            entries_.push_back({tableOf(label), i, label, writer});
        } else {
            detail::word(rows[i].check).store(0, std::memory_order_release);
            ++corruptions_;
        }
    }
    corruptions_ += (consumed_.rotten() ? 1U : 0U) + (announceIdentity_.rotten() ? 1U : 0U);
    if (consumed_.rotten())
        consumed_.valueIs(consumed_.value());
    if (announceIdentity_.rotten())
        announceIdentity_.valueIs(kNoAnnounceLog);
}

/// Without a request that verifies the agent goes on, and whoever wanted it to pause says so again.
void AckMapWriter::takeUpPause() {
    if (!pause_.rotten())
        return;
    pause_.valueIs(0);
    ++corruptions_;
    acknowledgementsTrace()(
        1, " {}", CorruptionError(file(), kPauseRequest, 0, "does not verify, none counts").what());
}

const AckMapWriter::Entry* AckMapWriter::entryOf(std::uint32_t tableId) const {
    const auto found = std::ranges::find(entries_, tableId, &Entry::tableId);
    return found == entries_.end() ? nullptr : &*found;
}

bool AckMapWriter::ackIs(std::uint32_t tableId, std::uint64_t version) {
    const auto found = std::ranges::find(entries_, tableId, &Entry::tableId);
    if (found != entries_.end()) {
        if (version < found->version.value())
            return false;
        if (version > found->version.value())
            found->version.valueIs(version);
        labelIs(found->row, found->label);
        return true;
    }
    const std::optional<std::size_t> free = freeRow();
    if (!free)
        return false;
    Row& row = rowsOf(mapping_)[*free];
    const std::uint64_t label = nextLabelOf(row, tableId);
    detail::VerifiedWordWriter writer(row.version, mapping_.wordSeed());
    // Its stores stand behind a release fence, and so behind the one that took the row's check
    // away: a reader that meets them finds the table of before gone.
    writer.valueIs(version);
    labelIs(*free, label);
    entries_.push_back({tableId, *free, label, writer});
    return true;
}

/// Says which table the row is of, also where that has rotted since.
void AckMapWriter::labelIs(std::size_t row, std::uint64_t label) {
    Row& stored = rowsOf(mapping_)[row];
    const std::uint64_t check = checkOf(label, mapping_.seed(0));
    if (detail::loaded(stored.label) == label && detail::loaded(stored.check) == check)
        return;
    detail::word(stored.label).store(label, std::memory_order_relaxed);
    detail::word(stored.check).store(check, std::memory_order_release);
}

std::optional<std::uint64_t> AckMapWriter::acknowledged(std::uint32_t tableId) const {
    const Entry* entry = entryOf(tableId);
    return entry == nullptr ? std::nullopt : std::optional(entry->version.value());
}

std::vector<Acknowledged> AckMapWriter::all() const {
    std::vector<Acknowledged> result;
    for (const Entry& entry : entries_)
        result.push_back({entry.tableId, entry.version.value()});
    return result;
}

void AckMapWriter::forget(std::uint32_t tableId) {
    const auto found = std::ranges::find(entries_, tableId, &Entry::tableId);
    if (found == entries_.end())
        return;
    detail::word(rowsOf(mapping_)[found->row].check).store(0, std::memory_order_release);
    entries_.erase(found);
}

std::optional<std::size_t> AckMapWriter::freeRow() const {
    for (std::size_t i = 0; i < kMostAckTables; ++i) {
        if (std::ranges::find(entries_, i, &Entry::row) == entries_.end())
            return i;
    }
    return std::nullopt;
}

void AckMapWriter::pauseRequestedIs(bool requested) {
    pause_.valueIs(requested ? 1 : 0);
}

bool AckMapWriter::pauseRequested() const {
    return pause_.value() != 0;
}

std::optional<AckMapReader> AckMapReader::open(const std::string& file) {
    bool missing = false;
    try {
        return AckMapReader(detail::ReaderFile::open(file, kType, plan(), &missing));
    } catch (const MountError&) {
        if (missing)
            return std::nullopt;
        throw;
    }
}

std::optional<std::uint64_t> AckMapReader::acknowledged(std::uint32_t tableId) const {
    std::optional<std::size_t> rottenRow;
    for (std::size_t i = 0; i < kMostAckTables; ++i) {
        const RowReading row = readingOf(rowsIn(mapping_)[i], mapping_);
        const bool isWanted = row.table == tableId;
        if (isWanted && row.version)
            return row.version;
        if (isWanted || row.isLabelRotten)
            rottenRow = i;
        if (isWanted)
            break;
    }
    if (rottenRow)
        throw CorruptionError(file(), kCollection, *rottenRow, "does not verify");
    return std::nullopt;
}

Acknowledgements AckMapReader::all(
    const std::function<void(const CorruptionError&)>& report) const {
    Acknowledgements result;
    const Row* const rows = rowsIn(mapping_);
    for (std::size_t group = 0; group < kMostAckTables; group += kRowsALook) {
        if (areFree(rows + group)) [[likely]]
            continue;
        for (std::size_t i = group; i < group + kRowsALook; ++i) {
            const RowReading row = readingOf(rows[i], mapping_);
            if (row.table && row.version) {
                result.add({*row.table, *row.version});
            } else if (row.table || row.isLabelRotten) {
                report(CorruptionError(file(), kCollection, i, "does not verify"));
            }
        }
    }
    return result;
}

std::uint64_t AckMapReader::consumed() const {
    return valueOf(mapping_.dynamic().scratchpad, mapping_, "consumed position", 0);
}

std::uint64_t AckMapReader::announceIdentity() const {
    return valueOf(mapping_.dynamic().tail, mapping_, "announce log", 0);
}

bool AckMapReader::pauseRequested() const {
    return valueOf(mapping_.dynamic().pause, mapping_, kPauseRequest, 0) != 0;
}

}  // namespace KivShimo
