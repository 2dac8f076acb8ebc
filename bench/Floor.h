// The least that a change in shared memory can cost: a checksum, one copy of the value and one of
// the record, and a release store of the version. No index, no journal, no announcement; what a
// process that is killed leaves is worth nothing.
#pragma once

#include <sys/mman.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <system_error>

#include "bench/Keys.h"
#include "platform/kivshimo/detail/Words.h"
#include "types/Records.h"

namespace Bench {

template <class B>
class Floor {
public:
    explicit Floor(std::uint32_t keys) : keys_(keys), memory_(mapped()) {}

    void write(std::uint32_t number) {
        ++version_;
        Value value;
        value.entryKey = keyOf(number);
        value.logEntry.key = value.entryKey;
        value.logEntry.priority = static_cast<std::uint32_t>(version_);
        value.version = {version_};
        Slot& slot = slots()[number];
        slot.checksum = KivShimo::detail::checksumOf(&value, sizeof(value), number);
        std::memcpy(static_cast<void*>(&slot.value), &value, sizeof(value));
        Record record;
        record.version = {version_};
        record.key = value.entryKey;
        std::memcpy(static_cast<void*>(&layout().records[version_ % kRecords]), &record,
                    sizeof(record));
        std::atomic_ref(layout().version).store(version_, std::memory_order_release);
    }

    /// The least that reading all values can cost. Returns how many are whole.
    std::uint32_t readAll() {
        std::uint32_t whole = 0;
        for (std::uint32_t number = 0; number < keys_; ++number) {
            Slot copy;
            std::memcpy(static_cast<void*>(&copy), &slots()[number], sizeof(copy));
            const std::uint64_t sum =
                KivShimo::detail::checksumOf(&copy.value, sizeof(copy.value), number);
            whole += sum == copy.checksum ? 1 : 0;
        }
        return whole;
    }

private:
    using Value = VornPolicyCpu::ConfigShimoEntry<typename B::Key, typename B::LogEntry,
                                                  typename B::ResourceKeys>;
    using Record = VornPolicyCpu::LogShimoEntry<typename B::Key>;
    static constexpr std::size_t kRecords = std::size_t{1} << 20U;
    struct Slot {
        std::uint64_t checksum;
        Value value;
    };
    struct Layout {
        std::uint64_t version;
        Record records[kRecords];
    };

    std::byte* mapped() const {
        const int file = ::memfd_create("floor", MFD_CLOEXEC);
        const std::size_t size = sizeof(Layout) + keys_ * sizeof(Slot);
        if (file < 0 || ::ftruncate(file, static_cast<off_t>(size)) != 0)
            throw std::system_error(errno, std::generic_category(), "memfd");
        void* const memory =
            ::mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_POPULATE, file, 0);
        ::close(file);
        if (memory == MAP_FAILED)
            throw std::system_error(errno, std::generic_category(), "mmap");
        return static_cast<std::byte*>(memory);
    }
    Layout& layout() { return *reinterpret_cast<Layout*>(memory_); }
    Slot* slots() { return reinterpret_cast<Slot*>(memory_ + sizeof(Layout)); }

    std::uint32_t keys_;
    std::byte* memory_;
    std::uint64_t version_ = 0;
};

}  // namespace Bench
