#include "fuzz/support/TableFiles.h"

#include <stdlib.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <stdexcept>

#include "platform/brumo/Trace.h"
#include "platform/kivshimo/AckMap.h"
#include "platform/kivshimo/AnnounceLog.h"
#include "platform/kivshimo/Paths.h"
#include "platform/kivshimo/detail/AnnounceSlot.h"

namespace Fuzz {

namespace {

using namespace KivShimo::detail;  // NOLINT(google-build-using-namespace): layouts of the files

constexpr std::uint64_t kIdentity = 0x1234567890ABCDEF;
/// Nobody counts so far that numbers overflow.
constexpr std::uint64_t kMostCounted = ~std::uint64_t{0} >> 2U;
constexpr FileKind kAllKinds[kFileKinds] = {FileKind::items, FileKind::changes,
                                            FileKind::announcements, FileKind::acknowledgements};

std::string contentOf(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

void contentIs(const std::string& path, const std::string& content) {
    std::filesystem::create_directories(std::filesystem::path(path).parent_path());
    std::ofstream file(path, std::ios::binary | std::ios::trunc);
    file.write(content.data(), static_cast<std::streamsize>(content.size()));
    if (!file.flush())
        throw std::runtime_error(path + " cannot be written");
}

/// A part of a file's bytes as the struct that lies there.
template <class T>
T partAt(const std::string& content, std::size_t offset) {
    T part;
    std::memcpy(static_cast<void*>(&part), content.data() + offset, sizeof(T));
    return part;
}
template <class T>
void partIs(std::string& content, std::size_t offset, const T& part) {
    std::memcpy(content.data() + offset, &part, sizeof(T));
}

void sealHeader(std::string& content, std::uint64_t identity) {
    auto header = partAt<StaticHeader>(content, 0);
    header.identity = identity;
    seal(header);
    partIs(content, 0, header);
}

/// What an input does to a file. Checksums are made to fit where the input wants it: damage that
/// every checksum shows would never reach what lies behind them.
class Damage {
public:
    Damage(FileKind kind, std::string& content) : kind_(kind), content_(content) {}

    void all(Input& input) {
        const auto seals = input.take<std::uint8_t>();
        while (!input.empty())
            one(input);
        if (content_.size() < kAreasOffset)
            return;
        if ((seals & 1U) != 0)
            sealHeader(content_, partAt<StaticHeader>(content_, 0).identity);
        if ((seals & 2U) != 0)
            sealSlots();
    }

private:
    void one(Input& input) {
        switch (input.below(7)) {
            case 0:
                return overwrite(input);
            case 1:
                return addToWord(input);
            case 2:
                return link(input);
            case 3:
                return copySlot(input);
            case 4:
                return content_.resize(input.below(65536));
            case 5:
                return verifiedWord(input);
            default:
                return journal(input);
        }
    }

    void overwrite(Input& input) {
        const std::size_t at = input.below(content_.size());
        const std::string bytes = input.takeText(input.take<std::uint8_t>() % 64U);
        content_.replace(at, std::min(bytes.size(), content_.size() - at), bytes, 0,
                         content_.size() - at);
    }
    void addToWord(Input& input) {
        if (content_.size() < 8)
            return;
        const std::size_t at = input.below(content_.size() / 8) * 8;
        const auto step = static_cast<std::uint64_t>(std::int64_t{input.take<std::int8_t>()});
        partIs(content_, at, partAt<std::uint64_t>(content_, at) + step);
    }
    /// A link that verifies, from a bucket or a slot to any place.
    void link(Input& input) {
        const std::size_t from = input.below(slots() + buckets());
        const auto target = static_cast<std::uint32_t>(std::int32_t{input.take<std::int8_t>()});
        const bool fromSlot = from < slots();
        const std::size_t at =
            fromSlot ? slotOffset(from) + 16 : kAreasOffset + 8 * (from - slots());
        if (kind_ != FileKind::items || at + 8 > content_.size())
            return;
        partIs(content_, at,
               Link::encoded(target, fromSlot ? Link::slotPlace(seed(), from)
                                              : Link::headPlace(seed(), from - slots())));
    }
    void copySlot(Input& input) {
        const std::size_t from = slotOffset(input.below(slots()));
        const std::size_t to = slotOffset(input.below(slots()));
        if (std::max(from, to) + slotBytes() <= content_.size())
            content_.replace(to, slotBytes(), std::string(content_, from, slotBytes()));
    }
    void verifiedWord(Input& input) {
        constexpr std::size_t kPlaces[] = {offsetof(DynamicHeader, scratchpad),
                                           offsetof(DynamicHeader, tail),
                                           offsetof(DynamicHeader, pause)};
        const std::size_t at = kDynamicOffset + kPlaces[input.below(std::size(kPlaces))];
        if (at + sizeof(VerifiedWord) > content_.size())
            return;
        auto word = partAt<VerifiedWord>(content_, at);
        VerifiedWordWriter(word, wordSeed(kIdentity))
            .valueIs(input.take<std::uint64_t>() & kMostCounted);
        partIs(content_, at, word);
    }
    /// A pending change that verifies.
    void journal(Input& input) {
        if (kJournalOffset + sizeof(KivShimo::Journal) > content_.size())
            return;
        const auto place = std::make_unique<KivShimo::Journal>();
        KivShimo::JournalWriter writer(*place, partAt<StaticHeader>(content_, 0).identity);
        writer.begin(input.below(KivShimo::kFirstOwnersOperation), input.below(3),
                     input.below(2 * kCapacity));
        Item item{{input.take<std::uint8_t>(), 0}, {}};
        writer.valueIs(item);
        writer.seal();
        partIs(content_, kJournalOffset, *place);
    }

    void sealSlots() {
        for (std::size_t slot = 0; slot < slots(); ++slot) {
            const std::size_t at = slotOffset(slot);
            if (at + slotBytes() > content_.size())
                return;
            if (kind_ == FileKind::items) {
                const auto stored = partAt<MapSlot<Item>>(content_, at);
                const KivShimo::Words<Item> words(
                    partAt<Item>(content_, at + offsetof(MapSlot<Item>, value)));
                if ((stored.sequence & kHoldsValue) != 0)
                    partIs(content_, at + 8, words.checksum(slotSeed(seed(), slot)));
            } else if (kind_ == FileKind::changes) {
                const KivShimo::Words<ChangeRecord> words(partAt<ChangeRecord>(content_, at));
                partIs(content_, kAreasOffset + 8 * slot, words.checksum(slotSeed(seed(), slot)));
            } else if (kind_ == FileKind::announcements) {
                auto stored = partAt<AnnounceSlot>(content_, at);
                stored.position &= kMostCounted;
                stored.check = 0;
                stored.check = stored.sum(seed());
                partIs(content_, at, stored);
            }
        }
    }

    std::uint64_t seed() const {
        return content_.size() < kAreasOffset
                   ? 0
                   : mixed(partAt<StaticHeader>(content_, 0).identity, 1);
    }
    // As the whole file has them, whatever its header says by now.
    std::size_t buckets() const { return mapBuckets(kCapacity); }
    std::size_t slots() const { return kind_ == FileKind::items ? kCapacity : kAnnouncements; }
    std::size_t slotBytes() const {
        switch (kind_) {
            case FileKind::items:
                return sizeof(MapSlot<Item>);
            case FileKind::changes:
                return sizeof(ChangeRecord);
            default:
                return sizeof(AnnounceSlot);
        }
    }
    std::size_t slotOffset(std::size_t slot) const {
        std::size_t start = kAreasOffset;
        if (kind_ == FileKind::items)
            start += 8 * buckets();
        if (kind_ == FileKind::changes)
            start += 8 * versionLogSlots(kCapacity);
        return start + slot * slotBytes();
    }

    FileKind kind_;
    std::string& content_;
};

}  // namespace

Folder::Folder() {
    const bool inMemory = std::filesystem::is_directory("/dev/shm");
    path_ = inMemory ? "/dev/shm" : std::filesystem::temp_directory_path().string();
    path_ += "/fuzz-XXXXXX";
    if (::mkdtemp(path_.data()) == nullptr)
        throw std::runtime_error(path_ + " cannot be made");
}

Folder::~Folder() {
    std::error_code gone;
    std::filesystem::remove_all(path_, gone);
}

void Folder::clear() const {
    for (const auto& entry : std::filesystem::directory_iterator(path_))
        std::filesystem::remove_all(entry.path());
}

TableFiles::TableFiles() : manager_(Brumo::make<KivShimo::EntityManager>(folder_.path())) {
    Brumo::traceFilterIs("");  // a finding is what ends the process, not what is traced
    for (const FileKind kind : kAllKinds) {
        // Written twice: with an identity that is no random number every checksum is known.
        write(kind);
        std::string content = contentOf(fileOf(kind));
        content.resize(kJournalOffset);
        sealHeader(content, kIdentity);
        const auto bytes = partAt<StaticHeader>(content, 0).fileBytes;
        content.resize(bytes);
        VerifiedWord zero{};
        VerifiedWordWriter(zero, wordSeed(kIdentity)).valueIs(0);
        partIs(content, kDynamicOffset + offsetof(DynamicHeader, scratchpad), zero);
        partIs(content, kDynamicOffset + offsetof(DynamicHeader, tail), zero);
        contentIs(fileOf(kind), content);
        write(kind);
        auto& whole = whole_.at(static_cast<std::size_t>(kind));
        whole = contentOf(fileOf(kind));
        partIs(whole, kDynamicOffset + offsetof(DynamicHeader, holderPid), std::uint64_t{1});
    }
}

const char* TableFiles::nameOf(FileKind kind) {
    switch (kind) {
        case FileKind::items:
            return "items";
        case FileKind::changes:
            return "changes";
        case FileKind::announcements:
            return "announcements";
        case FileKind::acknowledgements:
            break;
    }
    return "acknowledgements";
}

std::string TableFiles::fileOf(FileKind kind) const {
    return KivShimo::tableFile(root(), nameOf(kind));
}

FileKind TableFiles::damagedBy(Input& input) {
    const FileKind kind = kAllKinds[input.below(kFileKinds)];
    std::string content = whole_.at(static_cast<std::size_t>(kind));
    Damage(kind, content).all(input);
    folder_.clear();
    contentIs(fileOf(kind), content);
    return kind;
}

namespace {

template <class T>
Brumo::Ptr<T> mounted(KivShimo::EntityManager& manager, const char* path, const char* type,
                      const char* collection) {
    KivShimo::MountInfo info(0);
    info.collectionIs({collection, kCapacity, 0});
    manager.mountGroup()->mountIs(path, type, info);
    manager.mountGroup()->close();
    const auto table = Brumo::dynamicCast<T>(manager.entity(path));
    manager.entityDel(path);
    return table;
}

}  // namespace

Brumo::Ptr<ItemTable> TableFiles::items() {
    return mounted<ItemTable>(*manager_, nameOf(FileKind::items), kItemType, "items");
}

Brumo::Ptr<ChangeTable> TableFiles::changes() {
    return mounted<ChangeTable>(*manager_, nameOf(FileKind::changes), kChangeType, "changes");
}

void TableFiles::write(FileKind kind) {
    switch (kind) {
        case FileKind::items: {
            const auto table = items();
            for (std::uint32_t id = 1; id < kCapacity; ++id)
                table->items.insertOrReplace({{id, id % 2}, {id, id, id, id}});
            table->collectionControl().scratchpadIs(kCapacity);
            return;
        }
        case FileKind::changes: {
            const auto table = changes();
            for (std::uint64_t version = 3; version < kCapacity; ++version)
                table->changes.insert({version, {version, 0, 0}});
            table->collectionControl().scratchpadIs(kCapacity - 1);
            return;
        }
        case FileKind::announcements: {
            KivShimo::AnnounceLogWriter log(root(), nameOf(kind), kAnnouncements);
            const std::vector<KivShimo::NeededVersion> needed(5, {7, 1});
            for (std::uint64_t version = 1; version < 9; ++version)
                log.append(7, version, std::span(needed).first(version % 6));
            return;
        }
        case FileKind::acknowledgements: {
            KivShimo::AckMapWriter map(root(), nameOf(kind));
            for (std::uint32_t table = 1; table < 6; ++table)
                map.ackIs(table, std::uint64_t{table} * 10);
            map.announceIdentityIs(kIdentity);
            map.consumedIs(5);
        }
    }
}

}  // namespace Fuzz
