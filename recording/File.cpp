#include "recording/File.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <cstddef>
#include <cstring>
#include <limits>
#include <memory>
#include <optional>
#include <system_error>
#include <utility>

#include <fmt/format.h>

#include "recording/FileAccess.h"
#include "recording/Frames.h"
#include "recording/Text.h"

namespace Recording {

namespace {

constexpr std::array<char, 8> kMagic{'V', 'o', 'r', 'n', 'R', 'e', 'c', '3'};
constexpr const char* kExtend = "extend recording";
constexpr std::size_t kMovedAt = kMagic.size();
constexpr std::size_t kFrontAt = kMovedAt + kWordSize;
constexpr std::size_t kBodyAt = std::size_t{1} << 20U;
constexpr std::size_t kFrontSize = kBodyAt - kFrontAt;
/// What is worth a system call at rest.
constexpr std::size_t kWorthMoving = 32'768;
/// Of an event since its process began: some hundred years.
constexpr std::chrono::nanoseconds kMostTime = std::chrono::hours(1'000'000);

bool hasHead(Bytes bytes) {
    return bytes.size() >= kFrontAt && std::memcmp(bytes.data(), kMagic.data(), kMagic.size()) == 0;
}

std::uint64_t movedIn(Bytes bytes) {
    std::uint64_t moved = 0;
    std::memcpy(&moved, bytes.data() + kMovedAt, sizeof(moved));
    return moved;
}

/// The frames of a file, of the body and then of the front.
template <class Visit>
class Walk {
public:
    /// `visit` is called for each frame that verifies, and may refuse it by FormatError.
    Walk(Bytes file, Visit visit) : visit_(std::move(visit)) {
        const std::uint64_t moved = movedIn(file);
        through(file, std::min(kBodyAt, file.size()), file.size());
        inBody_ = end_;
        if (moved > end_) {
            if (damage_.empty())
                damage_ = placed(kBodyAt + end_, "the file is cut off");
            return;
        }
        const std::size_t inFront = end_ - moved;
        if (inFront >= kFrontSize)
            return;  // the front was read long before the body: nothing in it follows
        // A kill may have kept what stands in the front from being moved whole.
        std::string damageOfBody = std::exchange(damage_, {});
        through(file, kFrontAt + inFront, std::min(kBodyAt, file.size()));
        if (end_ == inBody_ && !damageOfBody.empty())
            damage_ = std::move(damageOfBody);
    }

    /// Bytes of whole frames: in the body, and with those that follow in the front.
    std::size_t inBody() const { return inBody_; }
    std::size_t end() const { return end_; }
    /// Why there are no more; empty where there are not.
    const std::string& damage() const { return damage_; }

private:
    std::string placed(std::size_t at, std::string_view what) const {
        return fmt::format("event {} at byte {}: {}", events_ + 1, at, what);
    }
    void through(Bytes file, std::size_t at, std::size_t last) {
        try {
            while (const auto frame = frameIn(file.subspan(at, last - std::min(at, last)), end_)) {
                visit_(*frame);
                at += frame->size;
                end_ += frame->size;
                ++events_;
            }
        } catch (const FormatError& error) {
            damage_ = placed(at, error.what());
        }
    }

    Visit visit_;
    std::size_t inBody_ = 0;
    std::size_t end_ = 0;
    std::size_t events_ = 0;
    std::string damage_;
};

/// What a writer finds.
struct Left {
    std::size_t inBody = 0;
    std::vector<std::byte> inFront;  ///< frames that have not been moved
    std::string damage;
};

/// Nothing for an empty file. Nothing of the body is taken into this process's memory.
std::optional<Left> leftIn(const Descriptor& opened, const std::string& file) {
    struct stat status {};
    if (::fstat(opened.fd(), &status) != 0)
        throwErrno(file, "look at");
    if (!S_ISREG(status.st_mode))
        throw FormatError(file + ": go on with recording: is no regular file");
    const auto size = static_cast<std::size_t>(status.st_size);
    if (size == 0)
        return std::nullopt;
    void* const mapped = ::mmap(nullptr, size, PROT_READ, MAP_PRIVATE, opened.fd(), 0);
    if (mapped == MAP_FAILED)
        throwErrno(file, "map recording");
    const auto unmap = [size](void* base) { ::munmap(base, size); };
    const std::unique_ptr<void, decltype(unmap)> mapping(mapped, unmap);
    const Bytes all(static_cast<const std::byte*>(mapped), size);
    if (!hasHead(all))
        throw FormatError(file + ": go on with recording: is none");
    const Walk walk(all, [](const Framed&) {});
    Left left{walk.inBody(), {}, walk.damage()};
    if (walk.end() > walk.inBody()) {
        const Bytes front =
            all.subspan(kFrontAt + walk.inBody() - movedIn(all), walk.end() - walk.inBody());
        left.inFront.assign(front.begin(), front.end());
    }
    return left;
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

FrameStore store(const Buffer& event, FrameStore frame) {
    for (const std::uint64_t word : event.words())
        frame(word);
    return frame;
}

}  // namespace

/// What is mapped.
struct FileWriter::Head {
    std::array<char, kMagic.size()> magic;
    std::uint64_t moved;
    std::array<std::uint64_t, kFrontSize / kWordSize> front;
};

FileWriter::FileWriter(std::string file)
    : file_(std::move(file)), opened_(openedForWriting(file_)) {
    static_assert(sizeof(Head) == kBodyAt && offsetof(Head, front) == kFrontAt);
    std::optional<Left> left = leftIn(opened_, file_);
    if (left && !left->damage.empty()) {
        // What can be read of it stays, and a rotten file keeps no agent from its work.
        setAside_ = file_ + ".damaged";
        if (::rename(file_.c_str(), setAside_.c_str()) != 0)
            throwErrno(file_, "set damaged recording aside");
        opened_ = openedForWriting(file_);
        left.reset();
    }
    if (!left) {
        // At once: a kill leaves it with a head, or empty.
        std::array<char, kFrontAt> head{};
        std::ranges::copy(kMagic, head.begin());
        writeAt(opened_, file_, "write recording", std::as_bytes(std::span(head)), 0);
        left.emplace();
    }
    try {
        writeAt(opened_, file_, kExtend, left->inFront, kBodyAt + left->inBody);
        moved_ = left->inBody + left->inFront.size();
        if (::ftruncate(opened_.fd(), static_cast<off_t>(kBodyAt + moved_)) != 0)
            throwErrno(file_, "cut recording");
        mapHead();
    } catch (const std::system_error& error) {
        failure_ = error.what();  // what the file has stays
        return;
    }
    clearFront();
}

FileWriter::~FileWriter() {
    try {
        if (failure_.empty())
            moveToBody();
    } catch (const std::system_error&) {
        // All of it stays in the front, from where it is read as well.
    }
    if (head_ != nullptr)
        ::munmap(head_, sizeof(Head));
}

/// Allocated: no store into it can fail. Counts as full, so that all that was left in it is
/// cleared.
void FileWriter::mapHead() {
    errno = ::posix_fallocate(opened_.fd(), 0, sizeof(Head));
    if (errno != 0)
        throwErrno(file_, kExtend);
    void* const mapped = ::mmap(nullptr, sizeof(Head), PROT_READ | PROT_WRITE,
                                MAP_SHARED | MAP_POPULATE, opened_.fd(), 0);
    if (mapped == MAP_FAILED)
        throwErrno(file_, "map recording");
    head_ = static_cast<Head*>(mapped);
    window_.next = window_.end = head_->front.data() + head_->front.size();
}

/// Behind what was used are zeros already. REQUIRES: all that it holds stands in the body. Killed
/// before `moved` is stored, what is told by zeros in its place is read there.
void FileWriter::clearFront() {
    std::fill(head_->front.data(), window_.next, 0);
    window_.offset = moved_;
    window_.next = head_->front.data();
    std::atomic_ref<std::uint64_t>(head_->moved).store(moved_, std::memory_order_release);
    std::atomic_signal_fence(std::memory_order_seq_cst);  // no frame is stored before
}

void FileWriter::moveToBody() {
    writeAt(opened_, file_, kExtend, std::as_bytes(std::span(head_->front)).first(inFront()),
            kBodyAt + moved_);
    moved_ = window_.offset;
    clearFront();
}

/// REQUIRES: the front is empty.
void FileWriter::storeInBody(const Buffer& event, std::chrono::nanoseconds passed) {
    std::vector<std::uint64_t> words(frameWords(event.bytes().size(), passed));
    store(event, {words.data(), event.bytes().size(), passed, moved_}).finish();
    const Bytes bytes = std::as_bytes(std::span(words));
    const std::size_t place = kBodyAt + moved_;
    writeAt(opened_, file_, kExtend, bytes.subspan(kWordSize), place + kWordSize);
    writeAt(opened_, file_, kExtend, bytes.first(kWordSize), place);
    moved_ += bytes.size();
    clearFront();
}

/// For an event that has no place in the front as it is: empties the front, and stores the event in
/// the body where it is too large for any front. False: it has a place in the front now.
bool FileWriter::settleElsewhere(const Buffer& event, std::chrono::nanoseconds passed) {
    try {
        moveToBody();
        if (window_.hasRoom(event.bytes().size(), passed))
            return false;
        if (event.bytes().size() >= kPassedFollows)
            throw std::system_error(std::make_error_code(std::errc::file_too_large),
                                    file_ + ": store event");
        storeInBody(event, passed);
    } catch (const std::system_error& error) {
        failure_ = error.what();
        window_ = {};
    }
    return true;
}

void FileWriter::makeRoom() {
    if (!failure_.empty() || inFront() < kWorthMoving)
        return;
    try {
        moveToBody();
    } catch (const std::system_error&) {
        // Nothing is lost yet. The next rest tries again; when the front is full, it is told of.
    }
}

void FileWriter::eventIs(const Buffer& event, std::chrono::nanoseconds time) {
    if (!failure_.empty())
        return;
    const std::chrono::nanoseconds passed = window_.passedUntil(time);
    window_.last = time;
    const std::size_t size = event.bytes().size();
    if (!window_.hasRoom(size, passed) && settleElsewhere(event, passed))
        return;
    window_.take(store(event, window_.frame(size, passed)));
}

namespace {

/// The front is read before the body, and again where it was being moved.
std::vector<std::byte> bytesOf(const Descriptor& opened, const std::string& file) {
    std::vector<std::byte> bytes;
    std::vector<std::byte> head;
    do {
        bytes.clear();
        head.clear();
        readOn(opened, file, bytes, kBodyAt);
        readOn(opened, file, head, kFrontAt);
    } while (hasHead(bytes) && hasHead(head) && movedIn(bytes) != movedIn(head));
    if (hasHead(bytes))
        bytes.resize(kBodyAt);  // its writer has only begun
    readOn(opened, file, bytes, std::numeric_limits<std::size_t>::max());
    return bytes;
}

}  // namespace

Contents::Contents(std::vector<std::byte> bytes) : isBinary_(true) {
    if (!hasHead(bytes))
        throw FormatError("no recording: its head is of another kind of file");
    storage_.push_back(std::move(bytes));
    std::chrono::nanoseconds time{0};
    const Walk walk(storage_.back(), [&](const Framed& frame) {
        if (frame.passed.count() < 0 || frame.passed > kMostTime - time)
            throw FormatError("a time is too late");
        const bool begins = is<Start>(decode(frame.event));
        time = begins ? std::chrono::nanoseconds{0} : time + frame.passed;
        events_.push_back({time, frame.event});
    });
    damage_ = walk.damage();
}

Contents Contents::ofFile(const std::string& file) {
    const Descriptor opened(::open(file.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
    if (opened.fd() < 0)
        throwErrno(file, "open recording");
    std::vector<std::byte> bytes = bytesOf(opened, file);
    if (hasHead(bytes)) {
        // What a writer is moving is cut off in one place now and in another then; what has rotted
        // stays where it is.
        Contents contents(std::move(bytes));
        while (!contents.damage().empty()) {
            Contents again(bytesOf(opened, file));
            const bool isDamaged = again.damage() == contents.damage();
            contents = std::move(again);
            if (isDamaged)
                break;
        }
        return contents;
    }
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
