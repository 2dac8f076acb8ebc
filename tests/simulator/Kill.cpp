#include "tests/simulator/Kill.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <stdexcept>

#include <fmt/format.h>

#include "platform/kivshimo/Paths.h"

namespace Simulator {

namespace {

constexpr int kKilled = 77;
constexpr std::size_t kPage = 4096;

struct Mapping {
    std::uintptr_t begin = 0;
    std::uintptr_t end = 0;
};

/// This process's shared mappings of the files that can be stored to.
std::vector<Mapping> mappingsOf(const Files& files) {
    std::vector<Mapping> found;
    std::ifstream maps("/proc/self/maps");
    for (std::string line; std::getline(maps, line);) {
        const std::size_t slash = line.find('/');
        if (slash == std::string::npos || line.find(" rw-s ") == std::string::npos)
            continue;
        Mapping mapping;
        if (std::sscanf(line.c_str(), "%lx-%lx", &mapping.begin, &mapping.end) == 2 &&
            files.include(line.substr(slash)))
            found.push_back(mapping);
    }
    return found;
}

/// What the handlers of faults know; they may not allocate.
struct Counting {
    struct Range {
        std::uintptr_t begin;
        std::uintptr_t end;
    };
    std::array<Range, 64> ranges{};
    std::size_t used = 0;
    bool addsNew = false;  ///< mappings made from now on count
    std::uint64_t left = 0;
    std::array<std::uintptr_t, 8> open{};  ///< pages that the store under way goes to
    std::size_t opened = 0;

    bool has(std::uintptr_t address) const {
        return std::any_of(
            ranges.begin(), ranges.begin() + static_cast<std::ptrdiff_t>(used),
            [&](const Range& range) { return range.begin <= address && address < range.end; });
    }
    void add(std::uintptr_t begin, std::uintptr_t end) {
        if (used == ranges.size())
            _exit(3);
        ranges[used++] = {begin, end};
    }
    void remove(std::uintptr_t begin) {
        for (std::size_t i = 0; i < used; ++i) {
            if (ranges[i].begin == begin)
                ranges[i] = ranges[--used];
        }
    }
};
Counting counting;

#if defined(__x86_64__)
constexpr bool kCounted = true;
constexpr greg_t kTrapFlag = 0x100;

extern "C" void storeMet(int, siginfo_t* info, void* context) {
    const auto address = reinterpret_cast<std::uintptr_t>(info->si_addr);
    if (!counting.has(address)) {
        std::signal(SIGSEGV, SIG_DFL);  // a fault of another kind: met again, and deadly
        return;
    }
    // The second page of one store is no store of its own.
    if (counting.opened == 0 && --counting.left == 0)
        _exit(kKilled);
    const std::uintptr_t page = address & ~(kPage - 1);
    counting.open[counting.opened++] = page;
    mprotect(reinterpret_cast<void*>(page), kPage, PROT_READ | PROT_WRITE);
    static_cast<ucontext_t*>(context)->uc_mcontext.gregs[REG_EFL] |= kTrapFlag;
}

extern "C" void storeDone(int, siginfo_t*, void* context) {
    while (counting.opened > 0)
        mprotect(reinterpret_cast<void*>(counting.open[--counting.opened]), kPage, PROT_READ);
    static_cast<ucontext_t*>(context)->uc_mcontext.gregs[REG_EFL] &= ~kTrapFlag;
}

void countStores(std::uint64_t stores, const Files& files) {
    struct sigaction action {};
    action.sa_flags = SA_SIGINFO;
    action.sa_sigaction = storeMet;
    sigaction(SIGSEGV, &action, nullptr);
    action.sa_sigaction = storeDone;
    sigaction(SIGTRAP, &action, nullptr);
    counting.left = stores;
    for (const Mapping& mapping : mappingsOf(files)) {
        counting.add(mapping.begin, mapping.end);
        mprotect(reinterpret_cast<void*>(mapping.begin), mapping.end - mapping.begin, PROT_READ);
    }
    counting.addsNew = true;
}
#else
constexpr bool kCounted = false;
void countStores(std::uint64_t, const Files&) {}
#endif

[[noreturn]] void child(std::uint64_t stores, const Files& files, Told& told,
                        const std::function<std::string()>& operation) {
    std::string failure;
    try {
        countStores(stores, files);
        failure = operation();
    } catch (const std::exception& error) {
        failure = fmt::format("thrown: {}", error.what());
    }
    told.failureIs(failure);
    _exit(failure.empty() ? 0 : 1);
}

}  // namespace

bool Files::include(const std::string& path) const {
    return path.starts_with(folder + "/") && path.ends_with(KivShimo::kTableSuffix) &&
           (path == acknowledgements) == isHardwareSide;
}

Mapped::Mapped(const Files& files) {
    for (const Mapping& mapping : mappingsOf(files)) {
        const auto* const begin = reinterpret_cast<const std::byte*>(mapping.begin);
        pieces_.push_back({mapping.begin, {begin, begin + (mapping.end - mapping.begin)}});
    }
}

void Mapped::letGo() const {
    for (const Piece& piece : pieces_) {
        void* const at = reinterpret_cast<void*>(piece.begin);
        void* const made = ::mmap(at, piece.content.size(), PROT_READ | PROT_WRITE,
                                  MAP_PRIVATE | MAP_ANONYMOUS | MAP_FIXED, -1, 0);
        if (made != at)
            throw std::runtime_error("cannot let go of a file");
        std::memcpy(at, piece.content.data(), piece.content.size());
    }
}

struct Told::Shared {
    std::array<char, 4096> failure;
    std::size_t used;
    std::array<std::byte, 1U << 20U> notes;
};

Told::Told() : shared_(nullptr) {
    void* const made =
        ::mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (made == MAP_FAILED)
        throw std::runtime_error("no shared memory");
    shared_ = static_cast<Shared*>(made);
}

Told::~Told() {
    munmap(shared_, sizeof(Shared));
}

void Told::clear() {
    shared_->used = 0;
    shared_->failure[0] = '\0';
}

void Told::failureIs(const std::string& text) {
    const std::size_t size = std::min(text.size(), shared_->failure.size() - 1);
    std::memcpy(shared_->failure.data(), text.data(), size);
    shared_->failure[size] = '\0';
}

std::string Told::failure() const {
    return shared_->failure.data();
}

void Told::add(std::uint32_t table, std::span<const std::byte> bytes) {
    const std::array<std::uint64_t, 2> head{table, bytes.size()};
    if (shared_->used + sizeof(head) + bytes.size() > shared_->notes.size())
        throw std::runtime_error("a child tells too much");
    std::byte* const at = shared_->notes.data() + shared_->used;
    std::memcpy(at, head.data(), sizeof(head));
    std::memcpy(at + sizeof(head), bytes.data(), bytes.size());
    shared_->used += sizeof(head) + bytes.size();
}

std::vector<Told::Note> Told::notes() const {
    std::vector<Note> found;
    for (std::size_t at = 0; at < shared_->used;) {
        std::array<std::uint64_t, 2> head{};
        std::memcpy(head.data(), shared_->notes.data() + at, sizeof(head));
        at += sizeof(head);
        found.push_back(
            {static_cast<std::uint32_t>(head[0]), {shared_->notes.data() + at, head[1]}});
        at += head[1];
    }
    return found;
}

bool storesAreCounted() {
    return kCounted;
}

std::string killedAt(std::uint64_t stores, const Files& files, Told& told,
                     const std::function<std::string()>& operation) {
    std::fflush(nullptr);
    const pid_t process = fork();
    if (process < 0)
        throw std::runtime_error("cannot fork");
    if (process == 0)
        child(stores, files, told, operation);
    int status = 0;
    if (waitpid(process, &status, 0) != process)
        throw std::runtime_error("lost the child");
    if (WIFEXITED(status) && (WEXITSTATUS(status) == 0 || WEXITSTATUS(status) == kKilled))
        return {};
    if (WIFEXITED(status) && !told.failure().empty())
        return "in a process that is killed: " + told.failure();
    return fmt::format("a process that was to be killed ended with status {:#x}", status);
}

}  // namespace Simulator

/// Meets the mappings that a child makes while it counts.
extern "C" void* mmap(void* address, std::size_t length, int protection, int flags, int descriptor,
                      off_t offset) noexcept {
    const bool counts = Simulator::counting.addsNew && (protection & PROT_WRITE) != 0 &&
                        (flags & MAP_SHARED) != 0 && descriptor >= 0;
    const int granted = counts ? protection & ~PROT_WRITE : protection;
    const long made = syscall(SYS_mmap, address, length, granted, flags, descriptor, offset);
    if (counts && made != -1) {
        const auto begin = static_cast<std::uintptr_t>(made);
        Simulator::counting.add(begin, begin + length);
    }
    return reinterpret_cast<void*>(made);
}

extern "C" int munmap(void* address, std::size_t length) noexcept {
    if (Simulator::counting.addsNew)
        Simulator::counting.remove(reinterpret_cast<std::uintptr_t>(address));
    return static_cast<int>(syscall(SYS_munmap, address, length));
}
