// Tables of shared memory as their one writer sees them, and the registry of their types.
//
// Event thread of the writing process. A type library derives a class from Table for each table
// type, gives it collections as members and registers it; mounting makes an object of it.
//
// What always holds:
//  1. A table object exists only while its file is mapped and locked for writing.
//  2. The collections' indexes were rebuilt from their slots when the object was made.
//  3. What a mount finds rotten is traced, counted and repaired to "free". A value whose store was
//     cut off is no corruption when its change is in a journal, which carries it out again.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/brumo/Layout.h"
#include "platform/kiv/Entity.h"
#include "platform/kivshimo/Errors.h"
#include "platform/kivshimo/Journal.h"
#include "platform/kivshimo/detail/MappedFile.h"

namespace KivShimo {

/// A collection as a table type declares it; made by Map<Value>::layout and the like.
struct CollectionLayout {
    std::string name;
    detail::CollectionKind kind;
    std::uint32_t recordBytes;
    std::uint64_t fingerprint;
};

/// What identifies a record's layout: its size, and where it says that its fields lie.
template <class Record>
constexpr std::uint64_t layoutFingerprint() {
    return Brumo::layoutOf<Record>();
}

/// The words of a mounted table that readers follow.
class CollectionControl {
public:
    explicit CollectionControl(const detail::WriterFile& file)
        : header_(&file.dynamicHeader()), scratchpad_(header_->scratchpad, file.wordSeed()) {}

    /// The number published last; 0 in a fresh table.
    std::uint64_t scratchpad() const { return scratchpad_.value(); }
    /// Publishes: a reader that sees the number sees every store before it.
    void scratchpadIs(std::uint64_t value) { scratchpad_.valueIs(value); }
    /// The number published last had rotted when the table was mounted: the one before counts, or
    /// 0, until whoever knows better has published again.
    bool scratchpadRotten() const { return scratchpad_.rotten(); }

    /// The table had existed and its content was lost. Stays until cleared, over restarts too.
    bool wiped() const { return detail::WipedMark(detail::loaded(header_->wiped)).isWiped; }
    void clearWiped() {
        detail::word(header_->wiped).store(detail::kNotWiped, std::memory_order_release);
    }

private:
    detail::DynamicHeader* header_;
    detail::VerifiedWordWriter scratchpad_;
};

/// What a table object is made of; comes from the mount and goes to the base class.
struct TableMount {
    std::string path;
    std::unique_ptr<detail::WriterFile> file;
};

/// What tells the keys of torn values apart. A store that is cut off leaves its key whole: it had
/// the same one before.
template <class Key>
std::uint64_t tornKeyOf(const Key& key) {
    return std::uint64_t{key.hash(1)} << 32U | key.hash(0);
}

class Table : public Kiv::Entity {
public:
    explicit Table(TableMount mount);

    const std::string& path() const { return path_; }
    const std::string& file() const { return file_->file(); }

    CollectionControl& collectionControl() { return control_; }
    const CollectionControl& collectionControl() const { return control_; }
    JournalWriter& journal() { return journal_; }
    std::uint64_t identity() const { return file_->identity(); }

    /// Takes notice of a corruption: a trace at level 1, and the count.
    virtual void doCorruptionDetected(std::string_view message);
    std::uint64_t corruptions() const { return corruptions_; }

    /// A value whose store was cut off.
    struct Torn {
        std::string message;         ///< that it is dropped
        std::function<void()> drop;  ///< from its collection
    };
    /// Takes notice of one. `key`: see tornKeyOf.
    void tornDetected(Torn torn, std::uint64_t key);
    /// Drops all of them, which counts as corruption, but the one of the key that the caller has a
    /// pending change for: the caller stores it again.
    void tornSettled(std::optional<std::uint64_t> pendingKey = std::nullopt);

    /// For the collections that are made as members.
    detail::WriterFile& mapping() { return *file_; }

private:
    std::string path_;
    std::unique_ptr<detail::WriterFile> file_;
    CollectionControl control_;
    JournalWriter journal_;
    std::uint64_t corruptions_ = 0;
    std::map<std::uint64_t, std::vector<Torn>> torn_;  ///< by key
};

using TableFactory = Brumo::Ptr<Table> (*)(TableMount mount);

/// A table type: its collections and how its objects are made.
struct TableType {
    std::vector<CollectionLayout> collections;
    TableFactory factory;
};

/// The type of a class that offers `static std::vector<CollectionLayout> layouts()` and a
/// constructor from TableMount.
template <class T>
TableType tableTypeOf() {
    return {T::layouts(),
            [](TableMount mount) -> Brumo::Ptr<Table> { return Brumo::make<T>(std::move(mount)); }};
}

/// Process-wide.
class TableTypes {
public:
    static TableTypes& instance();

    /// Null when no such type is registered.
    const TableType* type(std::string_view typeName) const;

private:
    friend class TableTypeRegistration;
    TableTypes() = default;

    std::map<std::string, TableType, std::less<>> types_;
};

/// Registers a type for as long as the object lives; a name registered twice ends the process.
class TableTypeRegistration {
public:
    TableTypeRegistration(std::string typeName, TableType type);
    TableTypeRegistration(const TableTypeRegistration&) = delete;
    TableTypeRegistration& operator=(const TableTypeRegistration&) = delete;
    ~TableTypeRegistration();

private:
    std::string typeName_;
};

}  // namespace KivShimo
