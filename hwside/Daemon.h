// The hardware side as a process: what follows the announcements, and the control socket.
//
// Event thread only. Woken by its doorbell (DIR/hwd.bell) and by requests (DIR/hwd.sock); it polls
// nothing. The one exception is a store of the agent that is seen half done: it is looked at again
// after kAgainAfter, then after twice as long each time: an agent that was killed there leaves it
// so until the next one starts.
#pragma once

#include <chrono>
#include <string>

#include <asio/io_context.hpp>
#include <asio/posix/stream_descriptor.hpp>
#include <asio/steady_timer.hpp>

#include "hwside/Json.h"
#include "hwside/LogReader.h"
#include "hwside/Tcam.h"
#include "platform/kivshimo/Doorbell.h"
#include "process/ControlServer.h"
#include "process/ServiceManager.h"

namespace HwSide {

class Daemon {
public:
    static constexpr std::chrono::milliseconds kAgainAfter{10};
    static constexpr std::chrono::milliseconds kAgainAfterAtMost{1000};

    /// Takes the directory; a second one on it is refused. Throws Process::StateDirectoryError,
    /// KivShimo::MountError, std::system_error.
    Daemon(asio::io_context& io, const std::string& stateDirectory);

    /// Begins to follow the agent; the service manager learns of it when the loop runs.
    void start();
    /// The process has been told to end.
    void stopping() { service_.stopping(); }

private:
    /// What it does, in a line.
    std::string statusText() const;
    void work();
    void waitForBell();
    Json answer(const Json& request);
    Json status() const;
    Json programmed(const Json& request) const;
    Json held(const Json& request) const;
    Json classified(const Json& request) const;
    Json pauseRequested(bool requested);
    /// The answer comes before the work, which is posted.
    Json resync();

    asio::io_context& io_;
    Group group_;
    KivShimo::AckMapWriter acks_;
    KivShimo::Doorbell bell_;
    KivShimo::Sleeper sleeper_;
    Tcam tcam_;
    LogReader reader_;
    Process::ControlServer control_;
    asio::posix::stream_descriptor rings_;
    bool waitsForBell_ = false;  ///< one wait at a time
    asio::steady_timer again_;
    Process::ServiceManager service_;
    bool followed_ = false;  ///< as the service manager knows it
    std::chrono::milliseconds againAfter_ = kAgainAfter;
};

}  // namespace HwSide
