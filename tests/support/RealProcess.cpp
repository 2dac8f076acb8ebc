#include "tests/support/RealProcess.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <sstream>
#include <system_error>
#include <thread>

namespace TestSupport {

namespace {

std::string contentOf(const std::string& path) {
    std::ifstream file(path);
    std::stringstream content;
    content << file.rdbuf();
    return content.str();
}

}  // namespace

bool until(const std::function<bool()>& condition) {
    const auto deadline = std::chrono::steady_clock::now() + kDeadline;
    while (!condition()) {
        if (std::chrono::steady_clock::now() > deadline)
            return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

RealProcess::RealProcess(const std::vector<std::string>& words) {
    std::vector<char*> argv;
    std::vector<std::string> copies = words;
    for (std::string& word : copies)
        argv.push_back(word.data());
    argv.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    constexpr int kFlags = O_WRONLY | O_CREAT | O_APPEND;
    posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_addopen(&actions, 1, directory_.file("out").c_str(), kFlags, 0600);
    posix_spawn_file_actions_addopen(&actions, 2, directory_.file("err").c_str(), kFlags, 0600);
    const int error =
        ::posix_spawn(&pid_, words.front().c_str(), &actions, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    if (error != 0)
        throw std::system_error(error, std::generic_category(), words.front());
}

RealProcess::~RealProcess() {
    if (running()) {
        signal(SIGKILL);
        wait();
    }
}

void RealProcess::signal(int number) const {
    if (!status_)
        ::kill(pid_, number);
}

bool RealProcess::running() {
    if (status_)
        return false;
    int status = 0;
    if (::waitpid(pid_, &status, WNOHANG) != pid_)
        return true;
    status_ = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    return false;
}

int RealProcess::wait() {
    return until([this] { return !running(); }) ? status_.value_or(-1) : -1;
}

std::string RealProcess::standardOutput() const {
    return contentOf(directory_.file("out"));
}

std::string RealProcess::standardError() const {
    return contentOf(directory_.file("err"));
}

std::vector<std::string> RealProcess::errorLines() const {
    std::istringstream text(standardError());
    std::vector<std::string> lines;
    for (std::string line; std::getline(text, line);)
        lines.push_back(line);
    return lines;
}

Ended runToEnd(const std::vector<std::string>& words) {
    RealProcess process(words);
    const int status = process.wait();
    return {status, process.standardOutput(), process.errorLines()};
}

}  // namespace TestSupport
