// Sockets and epoch words; the reasoning about lost wake-ups is in the header.
#include "platform/kivshimo/Doorbell.h"

#include <linux/membarrier.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <optional>
#include <random>
#include <utility>

#include "platform/kivshimo/Errors.h"
#include "platform/kivshimo/detail/Files.h"
#include "platform/kivshimo/detail/Words.h"

namespace KivShimo {
namespace {

using detail::SleepEpoch;

/// -1 where the kernel does not know it, or does not let this process.
long membarrier(int command) {
    return syscall(SYS_membarrier, command, 0U, 0);
}

bool makesWakersPassBarriers() {
    const long known = membarrier(MEMBARRIER_CMD_QUERY);
    return known > 0 && (known & MEMBARRIER_CMD_GLOBAL_EXPEDITED) != 0;
}

constexpr mode_t kSocketMode = 0660;

/// Empty when the path is too long for a socket.
std::optional<sockaddr_un> addressOf(const std::string& path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof(address.sun_path))
        return std::nullopt;
    std::memcpy(address.sun_path, path.c_str(), path.size());
    return address;
}

/// Empty when nobody is there.
detail::Descriptor connectedTo(const std::string& path) {
    const std::optional<sockaddr_un> address = addressOf(path);
    detail::Descriptor peer(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (!address || !peer ||
        connect(peer.fd(), reinterpret_cast<const sockaddr*>(&*address), sizeof(*address)) != 0) {
        return {};
    }
    return peer;
}

bool sendRing(const detail::Descriptor& peer) {
    const char ring = 1;
    return send(peer.fd(), &ring, sizeof(ring), MSG_DONTWAIT | MSG_NOSIGNAL) == sizeof(ring);
}

/// Whether the bell at the path was rung; `peer` is connected to it then.
bool ringAt(const std::string& path, detail::Descriptor& peer) {
    peer = connectedTo(path);
    // A full socket is as good as a ring: its owner has something to wake up for.
    return peer && (sendRing(peer) || errno == EAGAIN || errno == ENOBUFS);
}

}  // namespace

Doorbell::Doorbell(std::string path)
    : path_(std::move(path)),
      socket_(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0)) {
    if (!socket_)
        detail::throwErrno(path_, "make doorbell");
    const std::optional<sockaddr_un> address = addressOf(path_);
    if (!address)
        throw MountError(path_, "make doorbell", "path too long for a socket");
    removeDeadSocket(path_);
    if (bind(socket_.fd(), reinterpret_cast<const sockaddr*>(&*address), sizeof(*address)) != 0) {
        detail::throwErrno(path_, "bind doorbell");
    }
    if (chmod(path_.c_str(), kSocketMode) != 0)
        detail::throwErrno(path_, "set mode of doorbell");
}

Doorbell::~Doorbell() {
    unlink(path_.c_str());
}

unsigned Doorbell::drain() {
    unsigned rings = 0;
    char ignored[8];
    while (recv(socket_.fd(), ignored, sizeof(ignored), MSG_DONTWAIT) >= 0)
        ++rings;
    return rings;
}

void removeDeadSocket(const std::string& path) {
    struct stat there {};
    if (lstat(path.c_str(), &there) != 0)
        return;
    if (!S_ISSOCK(there.st_mode))
        throw MountError(path, "make socket", "no socket there");
    unlink(path.c_str());
}

bool ring(const std::string& path) {
    detail::Descriptor peer;
    return ringAt(path, peer);
}

Sleeper::Sleeper(detail::SleepWord word)
    : word_(word),
      epoch_(detail::SleepEpoch::decoded(detail::loaded(word.place), word.seed)
                 .value_or(std::random_device()())) {
    epoch_ &= ~SleepEpoch::kOrdersBoth;
    if (makesWakersPassBarriers())
        epoch_ |= SleepEpoch::kOrdersBoth;
    awake();
}

void Sleeper::asleep() {
    epoch_ |= SleepEpoch::kAsleep;
    store();
    if ((epoch_ & SleepEpoch::kOrdersBoth) == 0) {
        std::atomic_thread_fence(std::memory_order_seq_cst);
    } else if (membarrier(MEMBARRIER_CMD_GLOBAL_EXPEDITED) != 0) {
        // Wakers rely on it by now: sleeping without it could miss what one of them publishes.
        throw std::system_error(errno, std::generic_category(), "membarrier before sleeping");
    }
}

void Sleeper::awake() {
    if ((epoch_ & SleepEpoch::kAsleep) != 0)
        epoch_ += SleepEpoch::kStep - SleepEpoch::kAsleep;
    store();
}

/// Also where nothing has changed: what has rotted meanwhile is right again.
void Sleeper::store() {
    detail::word(word_.place)
        .store(detail::SleepEpoch::encoded(epoch_, word_.seed), std::memory_order_relaxed);
}

Waker::Waker(detail::SleepWord word, std::string path)
    : word_(word),
      path_(std::move(path)),
      isOrdered_(membarrier(MEMBARRIER_CMD_REGISTER_GLOBAL_EXPEDITED) == 0) {}

bool Waker::maybeRing() {
    std::atomic_thread_fence(std::memory_order_seq_cst);
    const std::uint64_t stored = detail::loaded(word_.place);
    const auto epoch = SleepEpoch::decoded(stored, word_.seed);
    if (epoch && (*epoch & SleepEpoch::kAsleep) == 0) {
        if (isOrdered_ && (*epoch & SleepEpoch::kOrdersBoth) != 0)
            awake_ = stored;
        return false;
    }
    if (epoch && *epoch == rungFor_)
        return false;
    rungFor_ = epoch.value_or(0);
    return ringPeer();
}

/// Stays connected, so that the kernel need not look the path up for each ring. Whoever has gone,
/// or begun anew, refuses, and one that takes no more may not be the one who sleeps: then the path
/// says who is there.
bool Waker::ringPeer() {
    return (peer_ && sendRing(peer_)) || ringAt(path_, peer_);
}

}  // namespace KivShimo
