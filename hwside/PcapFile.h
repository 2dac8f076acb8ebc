// Packets of a capture file.
//
// One thread an object. Link types: Ethernet, raw IP, Linux "cooked". A file that is no capture, of
// another link type, or broken throws std::runtime_error with its path, the packet's number and the
// reason.
#pragma once

#include <cstddef>
#include <memory>
#include <optional>
#include <string>

#include "hwside/Decode.h"

struct pcap;

namespace HwSide {

class PcapFile {
public:
    explicit PcapFile(const std::string& path);

    /// The next packet; nothing at the end of the file.
    std::optional<Decoded> next();
    /// Packets read so far.
    std::size_t packets() const { return packets_; }

private:
    struct Close {
        void operator()(pcap* handle) const;
    };

    std::string path_;
    std::unique_ptr<pcap, Close> handle_;
    int linkType_ = 0;
    std::size_t packets_ = 0;
};

}  // namespace HwSide
