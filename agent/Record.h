// The record that an agent keeps of itself: what went into its tables and what came out.
//
// Event thread only. Kept from before the tables are made until right before they go.
#pragma once

#include "agent/Options.h"
#include "agent/Tables.h"
#include "recording/File.h"
#include "recording/Recorder.h"

namespace Agent {

class Record {
public:
    /// Goes on with the file that the options name: with the options, and the files of the state
    /// directory as they are. Throws as Recording::FileWriter.
    Record(const Options& options, const Kiv::EventLoop& loop);
    Record(const Record&) = delete;
    Record& operator=(const Record&) = delete;
    /// The process ends in good order.
    ~Record();

    /// The tables stand.
    void mounted(const Tables& tables) { recorder_.mounted(mountedOf(tables)); }
    /// As Recording::FileWriter.
    void makeRoom() { file_.makeRoom(); }
    /// Why no more is recorded; empty while all is well.
    const std::string& failure() const { return file_.failure(); }
    /// As Recording::FileWriter.
    const std::string& setAside() const { return file_.setAside(); }

    static Recording::Start startOf(const Options& options);
    static Recording::Mounted mountedOf(const Tables& tables);

private:
    Recording::FileWriter file_;
    Recording::Recorder recorder_;
};

}  // namespace Agent
