// Doorbells: how one process wakes another that sleeps, and only then.
//
// Each side owns one Doorbell to sleep on and a Sleeper for its own epoch word, and has a Waker for
// the other side's. Event thread of each process.
//
// How a wake-up is never lost. The sleeper makes its epoch odd, then looks for work once more, then
// blocks. The waker publishes work, then reads the epoch. Between the two steps each has a full
// barrier. If the waker's comes first, the sleeper's second look sees the work; if the sleeper's
// comes first, the waker sees the odd epoch and rings. Both may happen; a ring too many wakes a
// process that finds nothing to do.
//
// Who pays. A barrier waits for all stores before it, on the path of every change; and sleeping is
// rare. So the sleeper has the kernel make every waker's processor pass a barrier (membarrier(2),
// MEMBARRIER_CMD_GLOBAL_EXPEDITED): one that was between publishing and reading has published then.
// The epoch says that its owner does so. A waker that cannot take part, or meets an epoch that does
// not say so, has its own barrier.
//
// What always holds:
//  1. An epoch word is written by its owner only; the waker reads it from a mapping.
//  2. A waker rings at most once for an epoch, so a burst costs one system call. A word that does
//     not verify may be that of a sleeper: it rings each time, until the owner, which goes by its
//     own memory, has stored the word anew.
//  3. Ringing never blocks. A peer that is not there, or whose socket is full, needs no ring: a
//     full socket wakes it, and a process that starts looks for work before it sleeps.
#pragma once

#include <atomic>
#include <cstdint>
#include <string>

#include "platform/kivshimo/detail/MappedFile.h"
#include "platform/kivshimo/detail/Words.h"

namespace KivShimo {

/// The receiving end: a datagram socket in the state directory, mode 0660. Removes the socket file
/// when it ends.
class Doorbell {
public:
    /// Replaces a socket file that a dead process left. Throws MountError.
    explicit Doorbell(std::string path);
    Doorbell(const Doorbell&) = delete;
    Doorbell& operator=(const Doorbell&) = delete;
    ~Doorbell();

    /// Becomes readable when somebody rings.
    int fd() const { return socket_.fd(); }
    /// Takes all rings off; returns how many there were.
    unsigned drain();
    const std::string& path() const { return path_; }

private:
    std::string path_;
    detail::Descriptor socket_;
};

/// Removes the socket file that a dead process left at the path, if it did. Throws MountError when
/// something else is there, a link included.
void removeDeadSocket(const std::string& path);

/// Rings the bell at the path. False when nobody is there.
bool ring(const std::string& path);

/// The sleeping half.
class Sleeper {
public:
    /// `word`: of a file that this process writes, in a mapping that outlives this object. A
    /// process that was killed asleep left its epoch odd; it is awake now. Where it has rotted, any
    /// epoch is taken: none that a waker has rung for may come again.
    explicit Sleeper(detail::SleepWord word);

    /// Says that this process is about to block. Look for work once more afterwards, then block.
    void asleep();
    /// Says that it works again.
    void awake();

private:
    void store();

    detail::SleepWord word_;
    std::uint32_t epoch_;
};

/// The waking half.
class Waker {
public:
    /// `word`: the other side's, in a mapping that outlives this object.
    Waker(detail::SleepWord word, std::string path);

    /// Call after publishing work. True when the bell was rung.
    bool published() {
        // The compiler keeps the order; that of the processor is the sleeper's to make up for.
        std::atomic_signal_fence(std::memory_order_seq_cst);
        return detail::loaded(word_.place) != awake_ && maybeRing();
    }

private:
    bool maybeRing();
    bool ringPeer();

    detail::SleepWord word_;
    std::string path_;
    detail::Descriptor peer_;  ///< connected to the bell that was rung last
    bool isOrdered_;           ///< the kernel makes this process pass barriers for sleepers
    /// The word of a sleeper that is awake and orders for both; empty: none met yet.
    std::optional<std::uint64_t> awake_;
    std::uint32_t rungFor_ = 0;  ///< 0: for none, as it is even
};

}  // namespace KivShimo
