// Makes events of what the tables tell, in their order.
//
// Event thread only. Installed while it lives; one a process.
#pragma once

#include <vector>

#include "platform/asic/GroupInterface.h"
#include "platform/asic/Recorder.h"
#include "platform/kiv/EventLoop.h"
#include "platform/kivshimo/AckMap.h"
#include "recording/Sink.h"

namespace Recording {

class Recorder : public Asic::Recorder {
public:
    /// Both outlive the recorder.
    Recorder(const Kiv::EventLoop& loop, Sink& sink);
    Recorder(const Recorder&) = delete;
    Recorder& operator=(const Recorder&) = delete;
    ~Recorder() override;

    /// Of a process, which only it knows: a start, its files, where its logs stand, its end.
    template <class Kind>
    void tell(const Kind& event) {
        if (!silent_.empty()) [[unlikely]]
            tellOfHandlers();
        put(event);
    }

    void changeStaged(const Asic::Recorder::Change& change) override;
    void resourceOperation(Asic::SwTableId table, Asic::Recorder::ResourceOperation operation,
                           std::uint64_t key) override;
    void turnBegins() override { tell(Turn{}); }
    /// The tables stand.
    void mounted(const Mounted& mounted) {
        isStarting_ = false;
        tell(mounted);
    }
    void mapWillBeRead() override { ++calls_; }
    void mapRead(const Asic::AckMapReading& reading, bool takesUp) override;
    void stateIs(const Asic::DependencyEntryHandle& handle) override;
    void handlerIs(const Asic::DependencyEntryHandle& handle, bool runs) override;
    void resourceStateIs(const Asic::Recorder::ResourceState& state) override;

protected:
    /// Looks since the recorder was made.
    std::uint32_t calls() const { return calls_; }

private:
    template <class Kind>
    void put(const Kind& event) {
        sink_.tell(event, loop_.turnTime());
    }
    void tellOfHandlers();
    void tellOfOwn(const Asic::DependencyEntryHandle& handle);

    const Kiv::EventLoop& loop_;
    Sink& sink_;
    std::uint64_t lastNumber_ = 0;
    std::uint64_t mapIdentity_ = 0;
    std::uint32_t calls_ = 0;
    bool isStarting_ = true;
    Look look_;                                     ///< the last that was told
    std::vector<KivShimo::Acknowledged> versions_;  ///< all that stood in the map then
    std::vector<std::uint64_t> silent_;  ///< handlers at work that have not done anything yet
};

}  // namespace Recording
