#include "tests/torture/Stepper.h"

#include <fcntl.h>
#include <sched.h>
#include <sys/mman.h>
#include <sys/ptrace.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
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

std::vector<std::unique_ptr<Watched>> watchedBelow(const std::string& folder) {
    std::vector<std::unique_ptr<Watched>> files;
    for (const auto& file : fs::recursive_directory_iterator(folder)) {
        if (file.is_regular_file() && file.path().extension() == KivShimo::kTableSuffix) {
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

}  // namespace

Image imageOf(const std::string& folder) {
    Image image;
    for (const auto& file : fs::recursive_directory_iterator(folder)) {
        if (!file.is_regular_file())
            continue;
        std::ifstream stream(file.path(), std::ios::binary);
        image[file.path().lexically_relative(folder).string()] =
            std::string(std::istreambuf_iterator<char>(stream), {});
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
    const pid_t child = fork();
    if (child == 0)
        steppedChild(prepare, action);
    const Killed killed(child);
    if (stopOf(child) != SIGSTOP)
        throw std::runtime_error("the child did not come to its start");
    Steps steps;
    Image current = imageOf(folder);
    steps.images.push_back(current);
    std::set<std::uint64_t> known{hashOf(current)};
    auto files = watchedBelow(folder);
    for (;;) {
        if (ptrace(PTRACE_SINGLESTEP, child, nullptr, nullptr) != 0)
            throw std::runtime_error("cannot step");
        const int signal = stopOf(child);
        if (signal == SIGSTOP)
            break;
        if (signal != SIGTRAP)
            throw std::runtime_error("the child met signal " + std::to_string(signal));
        ++steps.instructions;
        bool changed = false;
        for (const auto& file : files) {
            if (file->lookAgain()) {
                current[file->name()] = file->seen();
                changed = true;
            }
        }
        if (changed && known.insert(hashOf(current)).second)
            steps.images.push_back(current);
    }
    steps.after = std::move(current);
    return steps;
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
