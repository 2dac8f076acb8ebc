// What every table does, and the registry of table types.
#include "platform/kivshimo/Table.h"

#include <utility>

#include "platform/brumo/Assert.h"
#include "platform/brumo/Trace.h"

namespace KivShimo {
namespace {

const Brumo::TraceSource& tableTrace() {
    static const Brumo::TraceSource source("KivShimo", "Table");
    return source;
}

/// Whether somebody carries the change out: a collection of the file, or the table's owner.
bool isKnown(const PendingChange& pending, const detail::WriterFile& file) {
    if (pending.operation == kStoreValue)
        return pending.unit < file.header().collections;
    return pending.operation >= kFirstOwnersOperation;
}

}  // namespace

Table::Table(TableMount mount)
    : path_(std::move(mount.path)),
      file_(std::move(mount.file)),
      control_(*file_),
      journal_(file_->journal(), file_->identity()) {
    if (journal_.rotten()) {
        Table::doCorruptionDetected(
            CorruptionError(file(), "journal", 0, "does not verify, dropped").what());
        journal_.done();
    }
    if (const auto pending = journal_.pending(); pending && !isKnown(*pending, *file_)) {
        Table::doCorruptionDetected(
            CorruptionError(file(), "journal", 0, "of no known change, dropped").what());
        journal_.done();
    }
    // Left as it is until the owner, who may know of later numbers, stores it: a process that is
    // killed before must not leave the one before as if it were the last.
    if (control_.scratchpadRotten()) {
        Table::doCorruptionDetected(
            CorruptionError(file(), "scratchpad", 0, "does not verify, the one before counts")
                .what());
    }
}

void Table::doCorruptionDetected(std::string_view message) {
    ++corruptions_;
    tableTrace()(1, " {}", message);
}

void Table::tornDetected(Torn torn, std::uint64_t key) {
    tableTrace()(3, " {}", torn.message);
    torn_[key].push_back(std::move(torn));
}

void Table::tornSettled(std::optional<std::uint64_t> pendingKey) {
    for (const auto& [key, values] : torn_) {
        for (std::size_t i = key == pendingKey ? 1 : 0; i < values.size(); ++i) {
            doCorruptionDetected(values[i].message);
            values[i].drop();
        }
    }
    torn_.clear();
}

TableTypes& TableTypes::instance() {
    static TableTypes types;
    return types;
}

const TableType* TableTypes::type(std::string_view typeName) const {
    const auto found = types_.find(typeName);
    return found == types_.end() ? nullptr : &found->second;
}

// NOLINTNEXTLINE(performance-unnecessary-value-param): it is moved into the registry
TableTypeRegistration::TableTypeRegistration(std::string typeName, TableType type)
    : typeName_(std::move(typeName)) {
    const bool inserted =
        TableTypes::instance().types_.try_emplace(typeName_, std::move(type)).second;
    Brumo::require(inserted, "table type registered once", typeName_);
}

TableTypeRegistration::~TableTypeRegistration() {
    TableTypes::instance().types_.erase(typeName_);
}

}  // namespace KivShimo
