// Pages made ahead of their use.
#include "platform/kivshimo/detail/Memory.h"

#include <sys/mman.h>

#include <cerrno>
#include <cstdint>

namespace KivShimo::detail {

void makePages(const void* place, std::size_t bytes) {
    constexpr std::uintptr_t kPageMask = 4095;
    const auto first = reinterpret_cast<std::uintptr_t>(place) & ~kPageMask;
    const auto end = reinterpret_cast<std::uintptr_t>(place) + bytes;
    const int error = errno;
    madvise(reinterpret_cast<void*>(first), end - first, MADV_POPULATE_WRITE);
    errno = error;
}

}  // namespace KivShimo::detail
