// Mounting: deciding what is taken, what is kept aside and what is made anew.
#include "platform/kivshimo/detail/MappedFile.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <random>
#include <utility>

#include "platform/kivshimo/Errors.h"
#include "platform/kivshimo/Paths.h"
#include "platform/kivshimo/detail/Files.h"

namespace KivShimo::detail {
namespace {

/// Nothing that stands in the place of a file is followed, or waited for, as a pipe would be.
constexpr int kOpenFlags = O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK;

/// What is to be mounted for writing, and where.
struct Target {
    std::string file;
    std::string name;
    Descriptor folder;
    StaticHeader planned;
};

/// What became of the file that is there.
struct Taken {
    Descriptor descriptor;  ///< empty: not taken
    StaticHeader header{};
    bool wasThere = false;
    std::string reason;  ///< why it was not taken
};

/// The first page of an open file, or why there is none that counts.
std::string readHeader(const Descriptor& descriptor, const struct stat& status,
                       const std::string& file, StaticHeader& header) {
    if (status.st_size < static_cast<off_t>(kAreasOffset))
        return "shorter than its header";
    if (pread(descriptor.fd(), &header, sizeof(header), 0) != sizeof(header)) {
        return "header cannot be read";
    }
    std::string defect = defectOf(header, static_cast<std::uint64_t>(status.st_size));
    if (defect.empty() && !isInPlace(header.place, file))
        defect = "made for another place";
    return defect;
}

std::uint64_t holderPidIn(const Descriptor& descriptor) {
    std::uint64_t pid = 0;
    const off_t at = kDynamicOffset + offsetof(DynamicHeader, holderPid);
    return pread(descriptor.fd(), &pid, sizeof(pid), at) == sizeof(pid) ? pid : 0;
}

Descriptor lockedManifest(const Target& target, Manifest& content) {
    const std::string path = target.file + std::string(kManifestSuffix);
    Descriptor manifest(openat(target.folder.fd(),
                               (target.name + std::string(kManifestSuffix)).c_str(),
                               kOpenFlags | O_RDWR | O_CREAT, kFileMode));
    if (!manifest)
        throwErrno(path, "open manifest");
    checkedStatus(manifest, path, false);
    const bool mine = locked(manifest, path);
    content = manifestIn(manifest);
    if (!mine)
        throw DuplicateWriterError(target.file, content.holderPid);
    return manifest;
}

/// So that no store into the mapping meets the end of memory. Throws MountError. A file without
/// holes, as each that was used is, has its memory: to look for one takes the kernel much less than
/// to allocate again. State directories are on file systems that know their holes, as tmpfs does.
void allocate(const Descriptor& descriptor, const std::string& file, std::uint64_t bytes) {
    if (lseek(descriptor.fd(), 0, SEEK_HOLE) >= static_cast<off_t>(bytes))
        return;
    const int error = posix_fallocate(descriptor.fd(), 0, static_cast<off_t>(bytes));
    if (error == 0)
        return;
    errno = error;
    throwErrno(file, "allocate " + std::to_string(bytes) + " bytes");
}

Taken takeExisting(const Target& target) {
    Taken taken;
    Descriptor descriptor(openat(target.folder.fd(), target.name.c_str(), kOpenFlags | O_RDWR));
    if (!descriptor) {
        if (errno != ENOENT)
            throwErrno(target.file, "open for writing");
        taken.reason = "the file is gone";
        return taken;
    }
    taken.wasThere = true;
    const struct stat status = checkedStatus(descriptor, target.file, false);
    if (!locked(descriptor, target.file)) {
        throw DuplicateWriterError(target.file, holderPidIn(descriptor));
    }
    taken.reason = readHeader(descriptor, status, target.file, taken.header);
    if (taken.reason.empty())
        taken.reason = differenceOf(taken.header, target.planned, true);
    if (!taken.reason.empty())
        return taken;
    // A copy that was put back may have holes.
    allocate(descriptor, target.file, taken.header.fileBytes);
    taken.descriptor = std::move(descriptor);
    return taken;
}

/// The first two pages of a fresh file.
struct FreshPages {
    alignas(kPageBytes) std::byte bytes[2 * kPageBytes]{};

    FreshPages(const StaticHeader& header, bool wiped) {
        DynamicHeader dynamic{};
        dynamic.wiped = wiped ? kWiped : kNotWiped;
        const std::uint64_t seed = wordSeed(header.identity);
        VerifiedWordWriter(dynamic.scratchpad, seed).valueIs(0);
        VerifiedWordWriter(dynamic.tail, seed).valueIs(0);
        VerifiedWordWriter(dynamic.pause, seed).valueIs(0);
        dynamic.sleepEpoch = SleepEpoch::encoded(0, SleepEpoch::seedOf(header.identity));
        std::memcpy(bytes, &header, sizeof(header));
        std::memcpy(bytes + kDynamicOffset, &dynamic, sizeof(dynamic));
    }
};

/// Makes the file under another name and gives it its own when it is complete.
Descriptor makeFile(const Target& target, const StaticHeader& header, bool wiped) {
    const std::string unfinished = target.name + ".new";
    if (unlinkat(target.folder.fd(), unfinished.c_str(), 0) != 0 && errno != ENOENT) {
        throwErrno(target.file, "remove unfinished file");
    }
    Descriptor descriptor(openat(target.folder.fd(), unfinished.c_str(),
                                 kOpenFlags | O_RDWR | O_CREAT | O_EXCL, kFileMode));
    if (!descriptor)
        throwErrno(target.file, "make");
    try {
        allocate(descriptor, target.file, header.fileBytes);
    } catch (const MountError&) {
        unlinkat(target.folder.fd(), unfinished.c_str(), 0);
        throw;
    }
    const FreshPages pages(header, wiped);
    if (pwrite(descriptor.fd(), pages.bytes, sizeof(pages.bytes), 0) != sizeof(pages.bytes)) {
        throwErrno(target.file, "write header");
    }
    if (!locked(descriptor, target.file))
        throw DuplicateWriterError(target.file, 0);
    if (renameat(target.folder.fd(), unfinished.c_str(), target.folder.fd(), target.name.c_str()) !=
        0) {
        throwErrno(target.file, "rename into place");
    }
    return descriptor;
}

std::uint64_t randomIdentity() {
    std::random_device device;
    const std::uint64_t high = device();
    return (high << 32U | device()) | 1U;
}

}  // namespace

Descriptor::Descriptor(Descriptor&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}

Descriptor& Descriptor::operator=(Descriptor&& other) noexcept {
    std::swap(fd_, other.fd_);
    return *this;
}

Descriptor::~Descriptor() {
    if (fd_ >= 0)
        close(fd_);
}

MappedFile::MappedFile(std::string file, Descriptor descriptor, const StaticHeader& header,
                       bool writable)
    : file_(std::move(file)), descriptor_(std::move(descriptor)), header_(header) {
    void* mapped = mmap(nullptr, header_.fileBytes, writable ? PROT_READ | PROT_WRITE : PROT_READ,
                        MAP_SHARED, descriptor_.fd(), 0);
    if (mapped == MAP_FAILED)
        throwErrno(file_, "map");
    base_ = static_cast<std::byte*>(mapped);
}

MappedFile::MappedFile(MappedFile&& other) noexcept
    : base_(std::exchange(other.base_, nullptr)),
      file_(std::move(other.file_)),
      descriptor_(std::move(other.descriptor_)),
      header_(other.header_) {}

MappedFile& MappedFile::operator=(MappedFile&& other) noexcept {
    std::swap(base_, other.base_);
    std::swap(file_, other.file_);
    std::swap(descriptor_, other.descriptor_);
    std::swap(header_, other.header_);
    return *this;
}

MappedFile::~MappedFile() {
    if (base_ != nullptr)
        munmap(base_, header_.fileBytes);
}

std::size_t MappedFile::collectionNumber(std::string_view name) const {
    for (std::size_t i = 0; i < header_.collections; ++i) {
        const char* there = header_.collection[i].name;
        if (std::string_view(there, strnlen(there, sizeof(CollectionHeader::name))) == name) {
            return i;
        }
    }
    throw MountError(file_, "find collection", std::string(name) + " is not in the file");
}

bool MappedFile::stale() const {
    struct stat mapped {};
    struct stat named {};
    if (fstat(descriptor_.fd(), &mapped) != 0 || lstat(file_.c_str(), &named) != 0)
        return true;
    return mapped.st_ino != named.st_ino || mapped.st_dev != named.st_dev;
}

WriterFile::WriterFile(std::string file, Descriptor descriptor, Descriptor manifest,
                       const StaticHeader& header)
    : MappedFile(std::move(file), std::move(descriptor), header, true),
      manifest_(std::move(manifest)) {
    word(dynamicHeader().holderPid)
        .store(static_cast<std::uint64_t>(getpid()), std::memory_order_relaxed);
}

/// Mounting, as a table of what is found:
///
///   manifest   file                    what is done
///   new        none                    a first start: made, not wiped
///   existed    none                    lost: made anew, wiped
///   any        whole, as planned       taken as it is, with its wiped mark
///   any        damaged, other layout   lost: kept aside, made anew, wiped
///
/// The manifest says "existed" only after the file has its name, so a process killed before is
/// still at its first start. One killed between keeping aside and making finds the second row.
WriterFile WriterFile::open(const std::string& root, const std::string& relative,
                            std::string_view typeName, const std::vector<CollectionPlan>& plan,
                            Report& report) {
    const std::string file = tableFile(root, relative);
    Target target{file, nameIn(file), folderOf(root, file), plannedHeader(typeName, plan)};
    Manifest content{};
    Descriptor manifest = lockedManifest(target, content);
    const bool existed = content.existed != 0;
    const std::string manifestPath = file + std::string(kManifestSuffix);
    manifestIs(manifest, manifestPath, existed);
    Taken taken = takeExisting(target);
    if (!taken.descriptor) {
        report.created = true;
        report.wiped = existed || taken.wasThere;
        report.reason = taken.reason;
        // Said before the file is moved: a kill in between must not look like a first start.
        if (report.wiped)
            manifestIs(manifest, manifestPath, true);
        if (taken.wasThere)
            report.keptAside = keptAside(target.folder, file);
        taken.header = target.planned;
        taken.header.place = placeOf(std::string_view(file).substr(root.size() + 1));
        taken.header.identity = randomIdentity();
        seal(taken.header);
        taken.descriptor = makeFile(target, taken.header, report.wiped);
    }
    WriterFile result(file, std::move(taken.descriptor), std::move(manifest), taken.header);
    manifestIs(result.manifest_, manifestPath, true);
    const WipedMark mark(loaded(result.dynamic().wiped));
    report.markRotten = mark.isRotten;
    if (mark.isRotten)
        result.markIs(mark.isWiped ? kWiped : kNotWiped);
    return result;
}

std::string rottenMarkIn(const std::string& file) {
    return CorruptionError(file, "wiped mark", 0, "does not verify, the nearer one counts").what();
}

/// The mark may be older than this mount: a process that was killed when it had made the file, and
/// not yet traced the loss, has left it.
MountFindings mountedAndTraced(const std::string& root, const std::string& relative,
                               std::string_view typeName, const std::vector<CollectionPlan>& plan,
                               const Brumo::TraceSource& trace) {
    WriterFile::Report report;
    MountFindings found{WriterFile::open(root, relative, typeName, plan, report)};
    const std::string& file = found.file.file();
    if (report.markRotten) {
        ++found.corruptions;
        trace(1, " {}", rottenMarkIn(file));
    }
    found.lost = found.file.wiped();
    if (found.lost) {
        trace(1, " {}: content lost: {}", file,
              report.wiped ? report.reason : std::string("before this mount"));
        found.file.clearWiped();
    }
    return found;
}

ReaderFile::ReaderFile(std::string file, Descriptor descriptor, const StaticHeader& header)
    : MappedFile(std::move(file), std::move(descriptor), header, false) {}

ReaderFile ReaderFile::open(const std::string& file, std::string_view typeName,
                            const std::vector<CollectionPlan>& plan, bool* missing) {
    if (missing != nullptr)
        *missing = false;
    const auto opened = [&](Descriptor descriptor) {
        if (!descriptor) {
            if (missing != nullptr)
                *missing = errno == ENOENT || errno == ENOTDIR;
            throwErrno(file, "open for reading");
        }
        return descriptor;
    };
    StaticHeader header{};
    std::string reason;
    const auto check = [&](const Descriptor& descriptor) {
        reason = readHeader(descriptor, checkedStatus(descriptor, file, true), file, header);
    };
    Descriptor descriptor = opened(Descriptor(::open(file.c_str(), kOpenFlags | O_RDONLY)));
    check(descriptor);
    if (reason.empty()) {
        // The file says where its root is. On the way from there no link is followed, so what is
        // read is what was opened on that way.
        const Descriptor folder = folderBelow(rootOf(header.place, file), file);
        descriptor =
            opened(Descriptor(openat(folder.fd(), nameIn(file).c_str(), kOpenFlags | O_RDONLY)));
        check(descriptor);
    }
    if (reason.empty()) {
        // A reader takes a collection of any capacity; the file says which.
        reason = differenceOf(header, plannedHeader(typeName, plan), false);
    }
    if (!reason.empty())
        throw MountError(file, "open for reading", reason);
    return ReaderFile(file, std::move(descriptor), header);
}

}  // namespace KivShimo::detail
