// The rows of the acknowledgement file, and how the writer takes them up again.
#include "platform/kivshimo/AckMap.h"

#include <algorithm>

#include "platform/brumo/Trace.h"

namespace KivShimo {
namespace {

constexpr const char* kType = "KivShimo::AckMap";
constexpr const char* kCollection = "acknowledged";
constexpr std::uint64_t kPauseRequested = 0x5041555345U;

/// One table's row. The consumed position and the identity of the announce log lie in the words of
/// the header that tables and announce logs use for scratchpad and tail.
///
///   0         8       16        64
///   | tableId | check | version |
struct Row {
    std::uint64_t tableId;
    std::uint64_t check;  ///< of tableId; 0 while the row is free, stored last
    detail::VerifiedWord version;
};
static_assert(sizeof(Row) == 64 && offsetof(Row, version) == 16);

std::uint64_t checkOf(std::uint64_t tableId, std::uint64_t seed) {
    return detail::mixed(seed, tableId) | 1U;
}

std::vector<detail::CollectionPlan> plan() {
    return {{kCollection, detail::CollectionKind::ackMap, sizeof(Row), 1, kMostAckTables}};
}

const Brumo::TraceSource& acknowledgementsTrace() {
    static const Brumo::TraceSource source("KivShimo", "AckMapWriter");
    return source;
}

detail::WriterFile mounted(const std::string& root, const std::string& path) {
    detail::WriterFile::Report report;
    detail::WriterFile file = detail::WriterFile::open(root, path, kType, plan(), report);
    if (report.wiped)
        acknowledgementsTrace()(1, " {}: content lost: {}", file.file(), report.reason);
    return file;
}

const Row* rowsIn(const detail::MappedFile& mapping) {
    return reinterpret_cast<const Row*>(mapping.area(0));
}

Row* rowsOf(const detail::WriterFile& mapping) {
    return reinterpret_cast<Row*>(mapping.writableArea(0));
}

/// Which table a row is of: empty while it is free.
std::optional<std::uint32_t> tableOf(const Row& row, std::uint64_t seed, bool& rotten) {
    const std::uint64_t check = detail::word(row.check).load(std::memory_order_acquire);
    if (check == 0)
        return std::nullopt;
    const std::uint64_t tableId = detail::loaded(row.tableId);
    rotten = check != checkOf(tableId, seed) || tableId > 0xFFFFFFFF;
    if (rotten)
        return std::nullopt;
    return static_cast<std::uint32_t>(tableId);
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

AckMapWriter::AckMapWriter(detail::WriterFile mapping)
    : mapping_(std::move(mapping)),
      consumed_(mapping_.dynamicHeader().scratchpad, mapping_.wordSeed()),
      announceIdentity_(mapping_.dynamicHeader().tail, mapping_.wordSeed()) {
    takeUp();
}

/// A rotten row is freed: its table counts as not acknowledged. A version or a position whose newer
/// cell has rotted counts as the one before: what follows is done once more.
void AckMapWriter::takeUp() {
    Row* rows = rowsOf(mapping_);
    for (std::size_t i = 0; i < kMostAckTables; ++i) {
        bool rotten = false;
        const std::optional<std::uint32_t> table = tableOf(rows[i], mapping_.seed(0), rotten);
        if (!table && !rotten)
            continue;
        const detail::VerifiedWord::Reading version = rows[i].version.reading(mapping_.wordSeed());
        if (table && version.serial != 0 && entryOf(*table) == nullptr) {
            detail::VerifiedWordWriter writer(rows[i].version, mapping_.wordSeed());
            if (version.rotten)
                writer.valueIs(version.value);
            corruptions_ += version.rotten ? 1U : 0U;
            entries_.push_back({*table, i, writer});
        } else {
            detail::word(rows[i].check).store(0, std::memory_order_release);
            ++corruptions_;
        }
    }
    corruptions_ += (consumed_.rotten() ? 1U : 0U) + (announceIdentity_.rotten() ? 1U : 0U);
    if (consumed_.rotten())
        consumed_.valueIs(consumed_.value());
    if (announceIdentity_.rotten())
        announceIdentity_.valueIs(0);
    if (corruptions_ != 0) {
        acknowledgementsTrace()(1, " {}: {} rotten acknowledgements", mapping_.file(),
                                corruptions_);
    }
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
        labelIs(found->row, tableId);
        return true;
    }
    const std::optional<std::size_t> free = freeRow();
    if (!free)
        return false;
    detail::VerifiedWordWriter writer(rowsOf(mapping_)[*free].version, mapping_.wordSeed());
    writer.valueIs(version);
    labelIs(*free, tableId);
    entries_.push_back({tableId, *free, writer});
    return true;
}

/// Says which table the row is of, also where that has rotted since.
void AckMapWriter::labelIs(std::size_t row, std::uint32_t tableId) {
    Row& stored = rowsOf(mapping_)[row];
    const std::uint64_t check = checkOf(tableId, mapping_.seed(0));
    if (stored.tableId == tableId && stored.check == check)
        return;
    detail::word(stored.tableId).store(tableId, std::memory_order_relaxed);
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
    detail::word(mapping_.dynamicHeader().pause[0])
        .store(requested ? kPauseRequested : 0, std::memory_order_release);
}

bool AckMapWriter::pauseRequested() const {
    return detail::loaded(mapping_.dynamic().pause[0]) == kPauseRequested;
}

void AckMapWriter::clearWiped() {
    detail::word(mapping_.dynamicHeader().wiped)
        .store(detail::kNotWiped, std::memory_order_release);
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
        const Row& row = rowsIn(mapping_)[i];
        bool rotten = false;
        const std::optional<std::uint32_t> table = tableOf(row, mapping_.seed(0), rotten);
        if (rotten)
            rottenRow = i;
        if (table == tableId)
            return valueOf(row.version, mapping_, kCollection, i);
    }
    if (rottenRow)
        throw CorruptionError(file(), kCollection, *rottenRow, "does not verify");
    return std::nullopt;
}

std::vector<Acknowledged> AckMapReader::all(
    const std::function<void(const CorruptionError&)>& report) const {
    std::vector<Acknowledged> result;
    for (std::size_t i = 0; i < kMostAckTables; ++i) {
        const Row& row = rowsIn(mapping_)[i];
        bool rotten = false;
        const std::optional<std::uint32_t> table = tableOf(row, mapping_.seed(0), rotten);
        if (!table && !rotten)
            continue;
        const std::optional<std::uint64_t> version = row.version.read(mapping_.wordSeed());
        if (rotten || !version) {
            report(CorruptionError(file(), kCollection, i, "does not verify"));
        } else {
            result.push_back({*table, *version});
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
    return detail::word(mapping_.dynamic().pause[0]).load(std::memory_order_acquire) ==
           kPauseRequested;
}

}  // namespace KivShimo
