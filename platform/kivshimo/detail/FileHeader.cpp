// Planning, sealing and checking the first page of a file.
#include "platform/kivshimo/detail/FileHeader.h"

#include <cstring>

#include <fmt/format.h>

#include "platform/brumo/Assert.h"
#include "platform/kivshimo/Paths.h"
#include "platform/kivshimo/detail/LogLayout.h"
#include "platform/kivshimo/detail/MapLayout.h"

namespace KivShimo::detail {
namespace {

constexpr std::uint64_t kAnnounceSlotBytes = 64;

std::uint64_t slotsOf(CollectionKind kind, std::uint64_t capacity) {
    return kind == CollectionKind::versionLog ? versionLogSlots(capacity) : capacity;
}

/// Bytes of a collection's area, in whole pages; 0 for a kind that is not known.
std::uint64_t areaBytes(CollectionKind kind, std::uint32_t recordBytes, std::uint64_t slots) {
    std::uint64_t bytes = 0;
    switch (kind) {
        case CollectionKind::map:
            bytes = mapBytes(slots, recordBytes);
            break;
        case CollectionKind::versionLog:
            bytes = versionLogBytes(slots, recordBytes);
            break;
        case CollectionKind::announceLog:
            bytes = slots * kAnnounceSlotBytes;
            break;
        case CollectionKind::ackMap:
            bytes = slots * recordBytes;
            break;
        case CollectionKind::none:
            break;
    }
    return (bytes + kPageBytes - 1) / kPageBytes * kPageBytes;
}

template <std::size_t Size>
std::string_view textIn(const char (&field)[Size]) {
    return {field, strnlen(field, Size)};
}

template <std::size_t Size>
void textInto(char (&field)[Size], std::string_view text) {
    Brumo::require(text.size() < Size, "name fits the header", text);
    std::memcpy(field, text.data(), text.size());
}

std::uint64_t sumOf(const StaticHeader& header) {
    return checksumOf(&header, offsetof(StaticHeader, checksum), kMagic);
}

/// A file that was kept aside may be looked at; its place is where it was.
std::string_view beforeItWasKeptAside(std::string_view file) {
    return file.substr(0, file.find(kDamagedSuffix, file.rfind('/') + 1));
}

/// Why a declaration cannot be believed, or empty.
std::string defectOf(const CollectionHeader& header, std::uint64_t expectedOffset) {
    if (header.capacity == 0 || header.capacity > kMostSlots || header.slots > kMostSlots ||
        header.recordBytes > kPageBytes) {
        return "impossible size";
    }
    const std::uint64_t bytes = areaBytes(header.kind, header.recordBytes, header.slots);
    if (bytes == 0 || bytes != header.bytes || header.offset != expectedOffset ||
        header.slots != slotsOf(header.kind, header.capacity)) {
        return "impossible area";
    }
    return {};
}

}  // namespace

/// The length, to find where it begins, beside a hash of the text.
std::uint64_t placeOf(std::string_view belowRoot) {
    Brumo::require(belowRoot.size() <= 0xFFFF, "path below the root fits", belowRoot);
    const std::uint64_t hash = checksumOf(belowRoot.data(), belowRoot.size(), kMagic);
    return hash << 16U | belowRoot.size();
}

bool isInPlace(std::uint64_t place, std::string_view file) {
    file = beforeItWasKeptAside(file);
    const std::size_t length = place & 0xFFFFU;
    return length < file.size() && file[file.size() - length - 1] == '/' &&
           placeOf(file.substr(file.size() - length)) == place;
}

std::string rootOf(std::uint64_t place, std::string_view file) {
    file = beforeItWasKeptAside(file);
    return std::string(file.substr(0, file.size() - (place & 0xFFFFU) - 1));
}

StaticHeader plannedHeader(std::string_view typeName, const std::vector<CollectionPlan>& plan) {
    Brumo::require(plan.size() <= kMostCollections, "collections fit the header", typeName);
    StaticHeader header{};
    header.magic = kMagic;
    header.layoutVersion = kLayoutVersion;
    header.collections = static_cast<std::uint32_t>(plan.size());
    textInto(header.typeName, typeName);
    std::uint64_t offset = kAreasOffset;
    std::uint64_t fingerprint = checksumOf(typeName.data(), typeName.size(), kLayoutVersion);
    for (std::size_t i = 0; i < plan.size(); ++i) {
        CollectionHeader& collection = header.collection[i];
        textInto(collection.name, plan[i].name);
        collection.kind = plan[i].kind;
        collection.recordBytes = plan[i].recordBytes;
        collection.capacity = plan[i].capacity;
        collection.slots = slotsOf(plan[i].kind, plan[i].capacity);
        collection.offset = offset;
        collection.bytes = areaBytes(plan[i].kind, plan[i].recordBytes, collection.slots);
        collection.fingerprint = plan[i].fingerprint;
        offset += collection.bytes;
        fingerprint = mixed(fingerprint, collection.fingerprint);
    }
    header.fileBytes = offset;
    header.fingerprint = fingerprint;
    return header;
}

void seal(StaticHeader& header) {
    header.checksum = sumOf(header);
}

std::string defectOf(const StaticHeader& header, std::uint64_t fileBytes) {
    if (header.magic != kMagic)
        return "not a file of shared memory";
    if (header.layoutVersion != kLayoutVersion) {
        return fmt::format("layout version {} where {} is known", header.layoutVersion,
                           kLayoutVersion);
    }
    if (header.checksum != sumOf(header))
        return "damaged header";
    if (header.fileBytes != fileBytes) {
        return fmt::format("{} bytes long where the header says {}", fileBytes, header.fileBytes);
    }
    if (header.collections > kMostCollections)
        return "too many collections";
    std::uint64_t offset = kAreasOffset;
    for (std::size_t i = 0; i < header.collections; ++i) {
        std::string defect = defectOf(header.collection[i], offset);
        if (!defect.empty())
            return defect;
        offset += header.collection[i].bytes;
    }
    return offset == header.fileBytes ? std::string() : std::string("areas do not fill the file");
}

std::string differenceOf(const StaticHeader& header, const StaticHeader& planned,
                         bool compareCapacity) {
    if (textIn(header.typeName) != textIn(planned.typeName)) {
        return fmt::format("of type {}, not {}", textIn(header.typeName), textIn(planned.typeName));
    }
    for (std::size_t i = 0; i < planned.collections; ++i) {
        const CollectionHeader& wanted = planned.collection[i];
        const CollectionHeader* there = nullptr;
        for (std::size_t j = 0; j < header.collections; ++j) {
            if (textIn(header.collection[j].name) == textIn(wanted.name)) {
                there = &header.collection[j];
            }
        }
        if (there == nullptr)
            return fmt::format("without collection {}", textIn(wanted.name));
        if (there->kind != wanted.kind || there->recordBytes != wanted.recordBytes ||
            there->fingerprint != wanted.fingerprint) {
            return fmt::format("of another layout in collection {}", textIn(wanted.name));
        }
        if (compareCapacity && there->capacity != wanted.capacity) {
            return fmt::format("with room for {} in collection {}, not {}", there->capacity,
                               textIn(wanted.name), wanted.capacity);
        }
    }
    if (compareCapacity && header.collections != planned.collections) {
        return "with other collections";
    }
    return {};
}

}  // namespace KivShimo::detail
