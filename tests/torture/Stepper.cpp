#include "tests/torture/Stepper.h"

#include <fcntl.h>
#include <sched.h>
#include <sys/mman.h>
#include <sys/ptrace.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/user.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <set>
#include <stdexcept>

#include "platform/brumo/Trace.h"
#include "platform/kivshimo/Paths.h"
#include "platform/kivshimo/detail/MappedFile.h"
#include "platform/kivshimo/detail/Words.h"

namespace Torture {

namespace {

namespace fs = std::filesystem;
using KivShimo::detail::Descriptor;

/// A file as the child maps it, and what it held when it was looked at last.
class Watched {
public:
    Watched(std::string name, const std::string& path) : name_(std::move(name)) {
        const Descriptor descriptor(open(path.c_str(), O_RDONLY | O_CLOEXEC));
        size_ = fs::file_size(path);
        void* mapped = mmap(nullptr, size_, PROT_READ, MAP_SHARED, descriptor.fd(), 0);
        if (mapped == MAP_FAILED)
            throw std::runtime_error("cannot map " + path);
        mapped_ = static_cast<const char*>(mapped);
        seen_.assign(mapped_, size_);
    }
    Watched(const Watched&) = delete;
    Watched& operator=(const Watched&) = delete;
    ~Watched() { munmap(const_cast<char*>(mapped_), size_); }

    const std::string& name() const { return name_; }
    const std::string& seen() const { return seen_; }
    bool lookAgain() {
        if (std::memcmp(mapped_, seen_.data(), size_) == 0)
            return false;
        seen_.assign(mapped_, size_);
        return true;
    }

private:
    std::string name_;
    std::size_t size_ = 0;
    const char* mapped_ = nullptr;
    std::string seen_;
};

using WatchedFiles = std::vector<std::unique_ptr<Watched>>;

WatchedFiles watchedBelow(const std::string& folder) {
    WatchedFiles files;
    for (const auto& file : fs::recursive_directory_iterator(folder)) {
        if (file.is_regular_file() && file.path().extension() == KivShimo::kTableSuffix &&
            file.file_size() != 0) {
            files.push_back(std::make_unique<Watched>(
                file.path().lexically_relative(folder).string(), file.path().string()));
        }
    }
    return files;
}

/// Parent and child take turns; on one processor that costs a third.
void stayOnOneProcessor() {
    cpu_set_t one;
    CPU_ZERO(&one);
    CPU_SET(static_cast<unsigned>(sched_getcpu()), &one);
    sched_setaffinity(0, sizeof(one), &one);
}

/// Waits for the child to stop and returns the signal; throws when it has ended instead.
int stopOf(pid_t child) {
    int status = 0;
    if (waitpid(child, &status, 0) != child)
        throw std::runtime_error("lost the child");
    if (WIFEXITED(status))
        throw std::runtime_error("the child ended with " + std::to_string(WEXITSTATUS(status)));
    if (WIFSIGNALED(status))
        throw std::runtime_error("the child was killed by " + std::to_string(WTERMSIG(status)));
    return WSTOPSIG(status);
}

[[noreturn]] void steppedChild(const std::function<void()>& prepare,
                               const std::function<void()>& action) {
    Brumo::traceFilterIs("*/0");
    try {
        prepare();
        ptrace(PTRACE_TRACEME, 0, nullptr, nullptr);
        raise(SIGSTOP);
        action();
        raise(SIGSTOP);
    } catch (const std::exception& error) {
        std::fprintf(stderr, "in the stepped child: %s\n", error.what());
    }
    _exit(3);
}

/// Ends a stopped or running child for good.
class Killed {
public:
    explicit Killed(pid_t child) : child_(child) {}
    Killed(const Killed&) = delete;
    Killed& operator=(const Killed&) = delete;
    ~Killed() {
        kill(child_, SIGKILL);
        while (waitpid(child_, nullptr, 0) == child_) {
        }
    }

private:
    pid_t child_;
};

/// A child that is stopped between `prepare` and `action`.
pid_t started(const std::function<void()>& prepare, const std::function<void()>& action) {
    const pid_t child = fork();
    if (child == 0)
        steppedChild(prepare, action);
    if (stopOf(child) != SIGSTOP)
        throw std::runtime_error("the child did not come to its start");
    return child;
}

/// Lets the child go on, without the signal that stopped it, and returns the next one.
int resumed(pid_t child, __ptrace_request how) {
    if (ptrace(how, child, nullptr, nullptr) != 0)
        throw std::runtime_error("cannot step");
    return stopOf(child);
}

constexpr int kOfSystemCall = 0x80;  ///< ptrace(2), PTRACE_O_TRACESYSGOOD

/// What the files below a folder have held.
class Seen {
public:
    explicit Seen(const std::string& folder)
        : folder_(folder), files_(watchedBelow(folder)), current_(imageOf(folder)) {
        keep();
    }
    /// An instruction was carried out, which may have stored into files.
    void stepped() {
        ++steps_.instructions;
        bool changed = false;
        for (const auto& file : files_) {
            if (file->lookAgain()) {
                current_[file->name()] = file->seen();
                changed = true;
            }
        }
        if (changed)
            keep();
    }
    /// Files may have come, gone, or got another length.
    void filesChanged() {
        Image now = imageOf(folder_);
        if (now == current_)
            return;
        current_ = std::move(now);
        files_ = watchedBelow(folder_);
        keep();
    }
    Steps steps() {
        steps_.after = std::move(current_);
        return std::move(steps_);
    }

private:
    void keep() {
        if (known_.insert(hashOf(current_)).second)
            steps_.images.push_back(current_);
    }

    std::string folder_;
    WatchedFiles files_;
    Image current_;
    std::set<std::uint64_t> known_;
    Steps steps_;
};

/// Keeps what a stopped child has mapped of the files below a folder from being written, but for
/// the one store that is stepped.
class ReadOnlyMappings {
public:
    /// The child has stopped itself, so it stands behind a system call.
    ReadOnlyMappings(pid_t child, std::string folder)
        : child_(child), folder_(std::move(folder)), systemCallAt_(registers().rip - 2) {
        protectNew();
    }
    void protectNew() {
        std::ifstream maps("/proc/" + std::to_string(child_) + "/maps");
        for (std::string line; std::getline(maps, line);) {
            if (line.find(" rw-s ") == std::string::npos ||
                line.find(" " + folder_ + "/") == std::string::npos) {
                continue;
            }
            Range range{};
            if (std::sscanf(line.c_str(), "%lx-%lx", &range.begin, &range.end) != 2)
                throw std::runtime_error("cannot read the child's mappings: " + line);
            protectionIs(range, PROT_READ);
            ranges_.push_back(range);
        }
    }
    /// REQUIRES: the child has stopped at a fault. Throws when it is none of a store into files.
    void stepStore() {
        siginfo_t fault{};
        if (ptrace(PTRACE_GETSIGINFO, child_, nullptr, &fault) != 0)
            throw std::runtime_error("cannot read the signal");
        const auto address = reinterpret_cast<std::uintptr_t>(fault.si_addr);
        const auto range = std::ranges::find_if(ranges_, [&](const Range& each) {
            return each.begin <= address && address < each.end;
        });
        if (range == ranges_.end())
            throw std::runtime_error("the child met a fault of its own");
        protectionIs(*range, PROT_READ | PROT_WRITE);
        if (resumed(child_, PTRACE_SINGLESTEP) != SIGTRAP)
            throw std::runtime_error("cannot step a store");
        protectionIs(*range, PROT_READ);
    }

private:
    struct Range {
        std::uintptr_t begin;
        std::uintptr_t end;
    };

    user_regs_struct registers() const {
        user_regs_struct result{};
        if (ptrace(PTRACE_GETREGS, child_, nullptr, &result) != 0)
            throw std::runtime_error("cannot read registers");
        return result;
    }
    void registersAre(user_regs_struct wanted) const {
        if (ptrace(PTRACE_SETREGS, child_, nullptr, &wanted) != 0)
            throw std::runtime_error("cannot set registers");
    }
    /// Lets the child call mprotect(2) and brings it back to where it was.
    void protectionIs(const Range& range, int protection) const {
        const user_regs_struct before = registers();
        user_regs_struct call = before;
        call.rip = systemCallAt_;
        call.rax = SYS_mprotect;
        call.orig_rax = ~0ULL;  // no system call is to be restarted
        call.rdi = range.begin;
        call.rsi = range.end - range.begin;
        call.rdx = static_cast<unsigned long long>(protection);
        registersAre(call);
        if (resumed(child_, PTRACE_SINGLESTEP) != SIGTRAP || registers().rax != 0)
            throw std::runtime_error("cannot protect the child's mappings");
        registersAre(before);
    }

    pid_t child_;
    std::string folder_;
    std::uintptr_t systemCallAt_;
    std::vector<Range> ranges_;
};

}  // namespace

Image imageOf(const std::string& folder) {
    Image image;
    for (const auto& file : fs::recursive_directory_iterator(folder)) {
        if (!file.is_regular_file())
            continue;
        std::string content(file.file_size(), '\0');
        std::ifstream(file.path(), std::ios::binary)
            .read(content.data(), static_cast<std::streamsize>(content.size()));
        image[file.path().lexically_relative(folder).string()] = std::move(content);
    }
    return image;
}

void imageIs(const std::string& folder, const Image& image) {
    for (const auto& entry : fs::directory_iterator(folder))
        fs::remove_all(entry.path());
    for (const auto& [name, content] : image) {
        const fs::path path = fs::path(folder) / name;
        fs::create_directories(path.parent_path());
        std::ofstream(path, std::ios::binary) << content;
        fs::permissions(path, fs::perms(0640));
    }
}

std::uint64_t hashOf(const Image& image) {
    std::uint64_t hash = 0;
    for (const auto& [name, content] : image) {
        hash = KivShimo::detail::checksumOf(name.data(), name.size(), hash);
        hash = KivShimo::detail::checksumOf(content.data(), content.size(), hash);
    }
    return hash;
}

Steps stepped(const std::string& folder, const std::function<void()>& prepare,
              const std::function<void()>& action) {
    stayOnOneProcessor();
    const pid_t child = started(prepare, action);
    const Killed killed(child);
    Seen seen(folder);
    for (;;) {
        const int signal = resumed(child, PTRACE_SINGLESTEP);
        if (signal == SIGSTOP)
            break;
        if (signal != SIGTRAP)
            throw std::runtime_error("the child met signal " + std::to_string(signal));
        seen.stepped();
    }
    return seen.steps();
}

Steps steppedByStores(const std::string& folder, const std::function<void()>& prepare,
                      const std::function<void()>& action) {
    stayOnOneProcessor();
    const pid_t child = started(prepare, action);
    const Killed killed(child);
    ReadOnlyMappings mappings(child, folder);
    Seen seen(folder);
    if (ptrace(PTRACE_SETOPTIONS, child, nullptr, PTRACE_O_TRACESYSGOOD) != 0)
        throw std::runtime_error("cannot trace system calls");
    for (bool isInSystemCall = false;;) {
        const int signal = resumed(child, PTRACE_SYSCALL);
        if (signal == SIGSTOP)
            break;
        if (signal == SIGSEGV) {
            mappings.stepStore();
            seen.stepped();
        } else if (signal == (SIGTRAP | kOfSystemCall)) {
            isInSystemCall = !isInSystemCall;
            if (isInSystemCall)
                continue;
            seen.filesChanged();
            mappings.protectNew();
        } else {
            throw std::runtime_error("the child met signal " + std::to_string(signal));
        }
    }
    return seen.steps();
}

std::string inChild(const std::function<std::string()>& function) {
    int ends[2];
    if (pipe(ends) != 0)
        throw std::runtime_error("no pipe");
    const pid_t child = fork();
    if (child == 0) {
        Brumo::traceFilterIs("*/0");
        std::string text;
        try {
            text = function();
        } catch (const std::exception& error) {
            text = std::string("exception: ") + error.what();
        }
        const bool written =
            write(ends[1], text.data(), text.size()) == static_cast<ssize_t>(text.size());
        _exit(written ? 0 : 4);
    }
    close(ends[1]);
    std::string text;
    char buffer[4096];
    for (ssize_t got = 0; (got = read(ends[0], buffer, sizeof(buffer))) > 0;)
        text.append(buffer, static_cast<std::size_t>(got));
    close(ends[0]);
    int status = 0;
    waitpid(child, &status, 0);
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0)
        throw std::runtime_error("the recovering child died, status " + std::to_string(status));
    return text;
}

}  // namespace Torture
