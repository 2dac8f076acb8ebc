// The hardware side: follows the agent in a state directory and programs a TCAM model.

#include <csignal>
#include <optional>
#include <string>
#include <system_error>

#include <fmt/format.h>
#include <CLI/CLI.hpp>
#include <asio/signal_set.hpp>

#include "hwside/Daemon.h"
#include "platform/brumo/StandardError.h"
#include "process/StateDirectory.h"

namespace {

constexpr int kOk = 0;
constexpr int kUsage = 2;
constexpr int kStateDirectory = 3;
constexpr int kOther = 4;

constexpr const char* kFooter =
    "May be started before the agent, after it, and again; a second one on the same directory is "
    "refused. Ends on SIGTERM and SIGINT. Requests: JSON lines at DIR/hwd.sock. Traces: "
    "VORN_TRACE, "
    "as in \"HwSide*/1-3,8\".\n"
    "Exit codes: 0 ended by a signal, 2 wrong options, 3 the state directory cannot be used, 4 "
    "anything else.";

int failed(int code, std::string_view reason) {
    Brumo::writeToStandardError(Brumo::Priority::error, fmt::format("vorn-hwd: {}", reason));
    return code;
}

int serve(const std::string& stateDirectory) {
    asio::io_context io(1);
    std::optional<HwSide::Daemon> daemon;
    asio::signal_set signals(io, SIGTERM, SIGINT);
    signals.async_wait([&](const asio::error_code& error, int /*signal*/) {
        if (error)
            return;
        daemon->stopping();
        io.stop();
    });
    try {
        daemon.emplace(io, stateDirectory);
    } catch (const Process::StateDirectoryError& error) {
        return failed(kStateDirectory, error.what());
    } catch (const KivShimo::MountError& error) {
        return failed(kStateDirectory, error.what());
    } catch (const std::system_error& error) {
        return failed(kStateDirectory, error.what());
    }
    daemon->start();
    Brumo::writeToStandardError(Brumo::Priority::notice,
                                fmt::format("vorn-hwd: follows {}", stateDirectory));
    io.run();
    return kOk;
}

}  // namespace

int main(int argc, char** argv) {
    try {
        std::string stateDirectory;
        CLI::App app("Follows the agent in a state directory and programs a model of the hardware.",
                     "vorn-hwd");
        app.add_option("--state-dir", stateDirectory, "directory that the agent has too")
            ->required();
        app.footer(kFooter);
        try {
            app.parse(argc, argv);
        } catch (const CLI::Success& asked) {
            return app.exit(asked);
        } catch (const CLI::ParseError& error) {
            return failed(kUsage, fmt::format("{}; see --help", error.what()));
        }
        std::signal(SIGPIPE, SIG_IGN);
        return serve(stateDirectory);
    } catch (const std::exception& error) {
        return failed(kOther, error.what());
    }
}
