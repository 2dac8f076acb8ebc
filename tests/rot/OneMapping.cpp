// With the thread sanitizer, mappings of one file are one mapping: it tells accesses apart by their
// addresses, and would see no race between a writer and a reader that have mapped the file each for
// itself.
#if defined(__SANITIZE_THREAD__)

#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <array>
#include <mutex>

namespace {

struct Mapping {
    dev_t device;
    ino_t file;
    std::size_t length;
    void* address;
    unsigned users;
};

std::mutex lock;
std::array<Mapping, 64> mappings{};

/// Mappings in use. No std::atomic: its functions are the sanitizer's.
unsigned shared = 0;

/// By the kernel at once: these functions are called before the sanitizer is ready, which is also
/// why they are not its own.
__attribute__((no_sanitize("thread"))) void* make(void* wanted, std::size_t length, int protection,
                                                  int flags, int file, off_t offset) {
    return reinterpret_cast<void*>(
        syscall(SYS_mmap, wanted, length, protection, flags, file, offset));
}

}  // namespace

/// The mapping of the writer, who comes first, serves for readers as well.
extern "C" __attribute__((no_sanitize("thread"))) void* mmap(void* wanted, std::size_t length,
                                                             int protection, int flags, int file,
                                                             off_t offset) noexcept {
    struct stat status {};
    if ((flags & MAP_SHARED) == 0 || file < 0 || offset != 0 || fstat(file, &status) != 0)
        return make(wanted, length, protection, flags, file, offset);
    const std::lock_guard guard(lock);
    for (Mapping& each : mappings) {
        if (each.users != 0 && each.device == status.st_dev && each.file == status.st_ino &&
            each.length == length) {
            ++each.users;
            return each.address;
        }
    }
    void* const made = make(wanted, length, protection, flags, file, offset);
    for (Mapping& each : mappings) {
        if (made != MAP_FAILED && each.users == 0 && (protection & PROT_WRITE) != 0) {
            each = {status.st_dev, status.st_ino, length, made, 1};
            __atomic_add_fetch(&shared, 1, __ATOMIC_RELAXED);
            break;
        }
    }
    return made;
}

extern "C" __attribute__((no_sanitize("thread"))) int munmap(void* address,
                                                             std::size_t length) noexcept {
    if (__atomic_load_n(&shared, __ATOMIC_RELAXED) != 0) {
        const std::lock_guard guard(lock);
        for (Mapping& each : mappings) {
            if (each.users == 0 || each.address != address)
                continue;
            if (--each.users != 0)
                return 0;
            __atomic_sub_fetch(&shared, 1, __ATOMIC_RELAXED);
        }
    }
    return static_cast<int>(syscall(SYS_munmap, address, length));
}

#endif
