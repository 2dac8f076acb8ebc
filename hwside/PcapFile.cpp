#include "hwside/PcapFile.h"

#include <pcap/pcap.h>

#include <array>
#include <stdexcept>

#include <fmt/format.h>

namespace HwSide {

void PcapFile::Close::operator()(pcap* handle) const {
    pcap_close(handle);
}

PcapFile::PcapFile(const std::string& path) : path_(path) {
    std::array<char, PCAP_ERRBUF_SIZE> reason{};
    handle_.reset(pcap_open_offline(path.c_str(), reason.data()));
    if (handle_ == nullptr) {
        // The library puts the path before some of its reasons, not before all.
        std::string text = reason.data();
        if (!text.starts_with(path))
            text = path + ": " + text;
        throw std::runtime_error(text);
    }
    linkType_ = pcap_datalink(handle_.get());
    if (linkType_ != DLT_EN10MB && linkType_ != DLT_RAW && linkType_ != DLT_LINUX_SLL) {
        const char* name = pcap_datalink_val_to_name(linkType_);
        throw std::runtime_error(
            fmt::format("{}: link type {} ({}) is none of Ethernet, raw IP and Linux cooked", path,
                        linkType_, name != nullptr ? name : "unknown"));
    }
}

std::optional<Decoded> PcapFile::next() {
    pcap_pkthdr* header = nullptr;
    const u_char* data = nullptr;
    const int answer = pcap_next_ex(handle_.get(), &header, &data);
    if (answer == PCAP_ERROR_BREAK)
        return std::nullopt;
    if (answer != 1) {
        throw std::runtime_error(
            fmt::format("{}: packet {}: {}", path_, packets_ + 1, pcap_geterr(handle_.get())));
    }
    ++packets_;
    const std::span<const std::uint8_t> bytes(data, header->caplen);
    if (linkType_ == DLT_EN10MB)
        return decodeEthernet(bytes);
    if (linkType_ == DLT_LINUX_SLL)
        return decodeLinuxCooked(bytes);
    return decodeIp(bytes);
}

}  // namespace HwSide
