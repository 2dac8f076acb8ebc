// Mapped files of shared memory: opened, checked and mapped, for the one writer or for a reader.
//
// Event thread of the process that mounts. Collections keep pointers into the mapping, so a mapping
// lives as long as what was made from it.
//
// What always holds:
//  1. A writer's mapping holds a lock on the file and on its manifest; both go with the process.
//  2. Before a mapping exists, owner, kind, size and first page of the file were checked.
//  3. A reader's mapping is read-only, and reading never creates or changes a file.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "platform/brumo/Trace.h"
#include "platform/kivshimo/Journal.h"
#include "platform/kivshimo/detail/FileHeader.h"

namespace KivShimo::detail {

/// A file descriptor that closes itself.
class Descriptor {
public:
    Descriptor() = default;
    explicit Descriptor(int fd) : fd_(fd) {}
    Descriptor(Descriptor&& other) noexcept;
    Descriptor& operator=(Descriptor&& other) noexcept;
    ~Descriptor();

    int fd() const { return fd_; }
    explicit operator bool() const { return fd_ >= 0; }

private:
    int fd_ = -1;
};

/// The mapping itself and the places of its headers.
class MappedFile {
public:
    MappedFile(MappedFile&& other) noexcept;
    MappedFile& operator=(MappedFile&& other) noexcept;
    ~MappedFile();

    const std::string& file() const { return file_; }
    std::uint64_t identity() const { return header_.identity; }
    /// A private copy of the first page: what was checked is what is used.
    const StaticHeader& header() const { return header_; }

    const DynamicHeader& dynamic() const { return *at<DynamicHeader>(kDynamicOffset); }
    const std::byte* area(std::size_t collection) const {
        return base_ + header_.collection[collection].offset;
    }
    /// Position of the collection in the header; throws MountError when it has none of that name.
    std::size_t collectionNumber(std::string_view name) const;
    /// Seeds the checksums of a collection.
    std::uint64_t seed(std::size_t collection) const {
        return mixed(header_.identity, collection + 1);
    }
    /// Seeds the checks of verified words.
    std::uint64_t wordSeed() const { return detail::wordSeed(header_.identity); }
    /// The table had existed and its content was lost, says its mark; one with wrong bits counts as
    /// the nearer of its two values.
    bool wiped() const { return WipedMark(loaded(dynamic().wiped)).isWiped; }
    /// Seeds the check of the sleeper's word.
    std::uint64_t sleepSeed() const { return SleepEpoch::seedOf(header_.identity); }
    /// True when the path leads to another file by now, or to none.
    bool stale() const;

protected:
    MappedFile(std::string file, Descriptor descriptor, const StaticHeader& header, bool writable);

    template <class T>
    T* at(std::size_t offset) const {
        return reinterpret_cast<T*>(base_ + offset);
    }

    std::byte* base_ = nullptr;

private:
    std::string file_;
    Descriptor descriptor_;
    StaticHeader header_;
};

/// The one writer's mapping.
class WriterFile final : public MappedFile {
public:
    /// What mounting found.
    struct Report {
        bool created = false;
        bool wiped = false;       ///< it had existed, and is gone, damaged or of another layout
        std::string keptAside;    ///< where the damaged file is now, or empty
        std::string reason;       ///< why the file there was not taken
        bool markRotten = false;  ///< the wiped mark had neither value; it was put right
    };

    /// Mounts the file, making it and the folders below `root` when they are not there. Throws
    /// MountError, DuplicateWriterError.
    static WriterFile open(const std::string& root, const std::string& relative,
                           std::string_view typeName, const std::vector<CollectionPlan>& plan,
                           Report& report);

    /// The loss was taken notice of.
    void clearWiped() const { markIs(kNotWiped); }

    DynamicHeader& dynamicHeader() const { return *at<DynamicHeader>(kDynamicOffset); }
    Journal& journal() const { return *at<Journal>(kJournalOffset); }
    std::byte* writableArea(std::size_t collection) const {
        return base_ + header().collection[collection].offset;
    }

private:
    WriterFile(std::string file, Descriptor descriptor, Descriptor manifest,
               const StaticHeader& header);
    void markIs(std::uint64_t mark) const {
        word(dynamicHeader().wiped).store(mark, std::memory_order_release);
    }

    Descriptor manifest_;
};

/// What is said of a wiped mark that is rotten.
std::string rottenMarkIn(const std::string& file);

/// What the mount of a file that has no owner to tell has found, traced.
struct MountFindings {
    WriterFile file;
    bool lost = false;  ///< its content; the mark was cleared when that had been traced
    std::uint64_t corruptions = 0;
};

/// Mounts as WriterFile::open does, and traces on `trace` what is lost or rotten.
MountFindings mountedAndTraced(const std::string& root, const std::string& relative,
                               std::string_view typeName, const std::vector<CollectionPlan>& plan,
                               const Brumo::TraceSource& trace);

/// A reader's mapping.
class ReaderFile final : public MappedFile {
public:
    /// Throws MountError; `missing` is set then when the reason is that there is no such file.
    static ReaderFile open(const std::string& file, std::string_view typeName,
                           const std::vector<CollectionPlan>& plan, bool* missing = nullptr);

private:
    ReaderFile(std::string file, Descriptor descriptor, const StaticHeader& header);
};

}  // namespace KivShimo::detail
