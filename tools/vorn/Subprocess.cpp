// Running other programs.
#include "tools/vorn/Subprocess.h"

#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <filesystem>
#include <system_error>
#include <thread>

extern char** environ;

namespace Vorn {

namespace {

using Deadline = std::chrono::steady_clock::time_point;

/// The reading end of a pipe that a program writes into; closes itself.
class Pipe {
public:
    Pipe() {
        if (pipe2(ends_.data(), O_CLOEXEC) != 0)
            throw std::system_error(errno, std::system_category(), "pipe");
    }
    Pipe(const Pipe&) = delete;
    Pipe& operator=(const Pipe&) = delete;
    ~Pipe() {
        close(ends_[0]);
        closeWriter();
    }

    int reader() const { return ends_[0]; }
    int writer() const { return ends_[1]; }
    void closeWriter() {
        if (ends_[1] >= 0)
            close(ends_[1]);
        ends_[1] = -1;
    }

private:
    std::array<int, 2> ends_{-1, -1};
};

class SpawnActions {
public:
    SpawnActions() { posix_spawn_file_actions_init(&actions_); }
    SpawnActions(const SpawnActions&) = delete;
    SpawnActions& operator=(const SpawnActions&) = delete;
    ~SpawnActions() { posix_spawn_file_actions_destroy(&actions_); }

    posix_spawn_file_actions_t* get() { return &actions_; }

private:
    posix_spawn_file_actions_t actions_{};
};

pid_t spawned(const std::vector<std::string>& command, const Pipe& out, const Pipe& err) {
    SpawnActions actions;
    posix_spawn_file_actions_addopen(actions.get(), STDIN_FILENO, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_adddup2(actions.get(), out.writer(), STDOUT_FILENO);
    posix_spawn_file_actions_adddup2(actions.get(), err.writer(), STDERR_FILENO);
    std::vector<std::string> words = command;
    std::vector<char*> arguments;
    arguments.reserve(words.size() + 1);
    for (std::string& word : words)
        arguments.push_back(word.data());
    arguments.push_back(nullptr);
    pid_t pid = 0;
    const int error =
        posix_spawnp(&pid, arguments[0], actions.get(), nullptr, arguments.data(), environ);
    if (error != 0)
        throw std::system_error(error, std::system_category(), command.front());
    return pid;
}

/// Takes what is there; false when the pipe has ended.
bool taken(int reader, std::string& text) {
    std::array<char, 65536> buffer{};
    const ssize_t count = read(reader, buffer.data(), buffer.size());
    if (count < 0 && errno == EINTR)
        return true;
    if (count <= 0)
        return false;
    text.append(buffer.data(), static_cast<std::size_t>(count));
    return true;
}

/// Reads both until they end; false where that takes too long.
bool readAll(const Pipe& out, const Pipe& err, Ended& ended, Deadline deadline) {
    std::array<pollfd, 2> polled{{{out.reader(), POLLIN, 0}, {err.reader(), POLLIN, 0}}};
    while (polled[0].fd >= 0 || polled[1].fd >= 0) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
            deadline - std::chrono::steady_clock::now());
        if (left.count() <= 0)
            return false;
        if (poll(polled.data(), polled.size(), static_cast<int>(left.count())) < 0 &&
            errno != EINTR) {
            throw std::system_error(errno, std::system_category(), "poll");
        }
        if (polled[0].revents != 0 && !taken(polled[0].fd, ended.out))
            polled[0].fd = -1;
        if (polled[1].revents != 0 && !taken(polled[1].fd, ended.err))
            polled[1].fd = -1;
    }
    return true;
}

/// Its status when it has ended; one that lives past the deadline is killed.
int statusOf(pid_t pid, Deadline deadline, Ended& ended) {
    constexpr std::chrono::milliseconds kPause{5};
    int status = 0;
    pid_t gone = 0;
    while (!ended.isTimedOut && gone == 0) {
        gone = waitpid(pid, &status, WNOHANG);
        if (gone < 0 && errno == EINTR)
            gone = 0;
        else if (gone == 0)
            std::this_thread::sleep_for(kPause);
        ended.isTimedOut = gone == 0 && std::chrono::steady_clock::now() >= deadline;
    }
    if (!ended.isTimedOut)
        return status;
    kill(pid, SIGKILL);
    while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    return status;
}

}  // namespace

Ended runProgram(const std::vector<std::string>& command, std::chrono::seconds most) {
    constexpr int kSignalled = 128;
    Pipe out;
    Pipe err;
    const pid_t pid = spawned(command, out, err);
    out.closeWriter();
    err.closeWriter();
    Ended ended;
    const Deadline deadline = std::chrono::steady_clock::now() + most;
    ended.isTimedOut = !readAll(out, err, ended, deadline);
    const int status = statusOf(pid, deadline, ended);
    ended.code = WIFEXITED(status) ? WEXITSTATUS(status) : kSignalled + WTERMSIG(status);
    return ended;
}

std::string ownProgram() {
    std::error_code error;
    const auto path = std::filesystem::read_symlink("/proc/self/exe", error);
    return error ? "vorn" : path.string();
}

std::string siblingProgram(const std::string& name) {
    const auto beside = std::filesystem::path(ownProgram()).parent_path() / name;
    return access(beside.c_str(), X_OK) == 0 ? beside.string() : name;
}

}  // namespace Vorn
