#include "recording/File.h"

#define XXH_INLINE_ALL
#include <xxhash.h>

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <system_error>

#include <fmt/format.h>

#include "recording/FileAccess.h"
#include "recording/Text.h"

namespace Recording {

namespace {

constexpr std::array<char, 16> kHead{'V', 'o', 'r', 'n', 'R', 'e', 'c', '1'};
constexpr std::size_t kWindow = std::size_t{1} << 20U;
constexpr std::size_t kCheckSize = 4;
/// Of an event since its process began: some hundred years.
constexpr std::chrono::nanoseconds kMostTime = std::chrono::hours(1'000'000);

std::uint32_t checkOf(const std::byte* middle, std::size_t size, std::size_t offset) {
    return static_cast<std::uint32_t>(XXH3_64bits_withSeed(middle, size, offset));
}

bool hasHead(Bytes bytes) {
    return bytes.size() >= kHead.size() && std::memcmp(bytes.data(), kHead.data(), 8) == 0;
}

/// Calls `visit` for the middle of each frame that verifies, up to the end or to what does not;
/// `visit` may refuse one by FormatError. Returns where that is, and why.
template <class Visit>
std::size_t forEachFrame(Bytes all, std::string& damage, Visit&& visit) {
    std::size_t at = kHead.size();
    for (std::size_t number = 1; at < all.size() && all[at] != std::byte{0}; ++number) {
        try {
            const Bytes rest = all.subspan(at);
            Decoder frame(rest);
            const std::uint64_t length = frame.number();
            const std::size_t head = numberSize(length);
            if (length > rest.size() || head + length + kCheckSize > rest.size())
                throw FormatError("the frame is cut off");
            const Bytes middle = rest.subspan(head, length);
            std::uint32_t check = 0;
            std::memcpy(&check, rest.data() + head + length, kCheckSize);
            if (check != checkOf(middle.data(), middle.size(), at))
                throw FormatError("the frame does not verify");
            visit(middle);
            at += head + length + kCheckSize;
        } catch (const FormatError& error) {
            damage = fmt::format("event {} at byte {}: {}", number, at, error.what());
            break;
        }
    }
    return at;
}

/// Where its writer goes on; 0 for an empty file. Nothing of it is taken into this process's
/// memory.
std::size_t endOfRecording(const Descriptor& opened, const std::string& file, std::string& damage) {
    struct stat status {};
    if (::fstat(opened.fd(), &status) != 0)
        throwErrno(file, "look at");
    if (!S_ISREG(status.st_mode))
        throw FormatError(file + ": go on with recording: is no regular file");
    const auto size = static_cast<std::size_t>(status.st_size);
    if (size == 0)
        return 0;
    void* const mapped = ::mmap(nullptr, size, PROT_READ, MAP_PRIVATE, opened.fd(), 0);
    if (mapped == MAP_FAILED)
        throwErrno(file, "map recording");
    const auto unmap = [size](void* base) { ::munmap(base, size); };
    const std::unique_ptr<void, decltype(unmap)> mapping(mapped, unmap);
    const Bytes all(static_cast<const std::byte*>(mapped), size);
    if (!hasHead(all))
        throw FormatError(file + ": go on with recording: is none");
    return forEachFrame(all, damage, [](Bytes) {});
}

/// Only one process writes: the lock ends with its last descriptor of the file.
void lock(int fd, const std::string& file) {
    struct flock wanted {};
    wanted.l_type = F_WRLCK;
    wanted.l_whence = SEEK_SET;
    if (::fcntl(fd, F_OFD_SETLK, &wanted) == 0)
        return;
    if (errno == EAGAIN || errno == EACCES)
        throw BusyError(file + ": lock recording: another process writes it");
    throwErrno(file, "lock recording");
}

Descriptor openedForWriting(const std::string& file) {
    Descriptor opened(
        ::open(file.c_str(), O_RDWR | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC, 0640));
    if (opened.fd() < 0)
        throwErrno(file, "open recording");
    lock(opened.fd(), file);
    return opened;
}

}  // namespace

FileWriter::FileWriter(std::string file) : file_(std::move(file)) {
    Descriptor opened = openedForWriting(file_);
    std::string damage;
    used_ = endOfRecording(opened, file_, damage);
    if (!damage.empty()) {
        // What can be read of it stays, and a rotten file keeps no agent from its work.
        setAside_ = file_ + ".damaged";
        if (::rename(file_.c_str(), setAside_.c_str()) != 0)
            throwErrno(file_, "set damaged recording aside");
        opened = openedForWriting(file_);
        used_ = 0;
    }
    if (used_ == 0) {
        // At once: a kill leaves it with a head, or empty.
        if (::pwrite(opened.fd(), kHead.data(), kHead.size(), 0) !=
            static_cast<ssize_t>(kHead.size()))
            throwErrno(file_, "write recording");
        used_ = kHead.size();
    }
    if (::ftruncate(opened.fd(), static_cast<off_t>(used_)) != 0)
        throwErrno(file_, "cut recording");
    fd_ = opened.release();
}

FileWriter::~FileWriter() {
    unmap();
    static_cast<void>(::ftruncate(fd_, static_cast<off_t>(used_)));  // zeros stay, which do no harm
    ::close(fd_);
}

void FileWriter::unmap() {
    if (window_ != nullptr)
        ::munmap(std::exchange(window_, nullptr), windowSize_);
}

/// Maps the next part of the file, which is allocated: no store into it can fail.
void FileWriter::makeRoom(std::size_t bytes) {
    if (window_ != nullptr && used_ + bytes <= windowStart_ + windowSize_)
        return;
    unmap();
    const auto page = static_cast<std::size_t>(::sysconf(_SC_PAGESIZE));
    windowStart_ = used_ / page * page;
    windowSize_ = std::max(kWindow, (used_ - windowStart_ + bytes + page - 1) / page * page);
    errno =
        ::posix_fallocate(fd_, static_cast<off_t>(windowStart_), static_cast<off_t>(windowSize_));
    if (errno != 0)
        throwErrno(file_, "extend recording");
    void* const mapped = ::mmap(nullptr, windowSize_, PROT_READ | PROT_WRITE,
                                MAP_SHARED | MAP_POPULATE, fd_, static_cast<off_t>(windowStart_));
    if (mapped == MAP_FAILED)
        throwErrno(file_, "map recording");
    window_ = static_cast<std::byte*>(mapped);
}

void FileWriter::eventIs(Bytes event, std::chrono::nanoseconds time) {
    if (!failure_.empty())
        return;
    const auto passed = last_.count() < 0 ? 0 : std::max<std::int64_t>((time - last_).count(), 0);
    const auto delta = static_cast<std::uint64_t>(passed);
    const std::size_t middle = numberSize(delta) + event.size();
    const std::size_t length = numberSize(middle);
    const std::size_t whole = length + middle + kCheckSize;
    try {
        makeRoom(whole + 1);  // with the zero behind it
    } catch (const std::system_error& error) {
        failure_ = error.what();
        return;
    }
    last_ = time;
    std::byte* const frame = window_ + (used_ - windowStart_);
    std::byte* const begin = frame + length;
    std::memcpy(putNumber(begin, delta), event.data(), event.size());
    const std::uint32_t check = checkOf(begin, middle, used_);
    std::memcpy(begin + middle, &check, kCheckSize);
    std::array<std::byte, kMostNumberSize> number{};
    putNumber(number.data(), middle);
    for (std::size_t i = 1; i < length; ++i)
        frame[i] = number.at(i);
    std::atomic_ref<std::byte>(*frame).store(number[0], std::memory_order_release);
    used_ += whole;
}

Contents::Contents(std::vector<std::byte> bytes) {
    if (!hasHead(bytes))
        throw FormatError("no recording: its head is of another kind of file");
    storage_.push_back(std::move(bytes));
    std::chrono::nanoseconds time{0};
    size_ = forEachFrame(storage_.back(), damage_, [&](Bytes middle) {
        Decoder passed(middle);
        const std::uint64_t delta = passed.number();
        if (delta > static_cast<std::uint64_t>(kMostTime.count()) -
                        static_cast<std::uint64_t>(time.count()))
            throw FormatError("a time is too late");
        const Bytes event = middle.subspan(numberSize(delta));
        const bool begins = is<Start>(decode(event));
        time = begins ? std::chrono::nanoseconds{0}
                      : time + std::chrono::nanoseconds(static_cast<std::int64_t>(delta));
        events_.push_back({time, event});
    });
}

Contents Contents::ofFile(const std::string& file) {
    const Descriptor opened(::open(file.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
    if (opened.fd() < 0)
        throwErrno(file, "open recording");
    std::vector<std::byte> bytes = allOf(opened, file);
    if (hasHead(bytes))
        return Contents(std::move(bytes));
    try {
        return contentsOfText({reinterpret_cast<const char*>(bytes.data()), bytes.size()});
    } catch (const FormatError& error) {
        throw FormatError(fmt::format("{}: {}", file, error.what()));
    }
}

void Contents::add(Bytes event, std::chrono::nanoseconds time) {
    storage_.emplace_back(event.begin(), event.end());
    events_.push_back({time, storage_.back()});
}

}  // namespace Recording
