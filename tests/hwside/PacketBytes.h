// Packets made by hand, byte by byte, for decoding.
#pragma once

#include <cstdint>
#include <initializer_list>
#include <span>
#include <string>
#include <vector>

#include "hwside/Packet.h"

namespace HwSide::Test {

using Bytes = std::vector<std::uint8_t>;

inline void append16(Bytes& bytes, std::size_t value) {
    bytes.push_back(static_cast<std::uint8_t>(value >> 8U));
    bytes.push_back(static_cast<std::uint8_t>(value));
}

inline void append(Bytes& bytes, const Bytes& more) {
    bytes.insert(bytes.end(), more.begin(), more.end());
}

inline Bytes joined(std::initializer_list<Bytes> parts) {
    Bytes bytes;
    for (const Bytes& part : parts)
        append(bytes, part);
    return bytes;
}

inline Bytes udpHeader(std::uint16_t source, std::uint16_t destination) {
    Bytes bytes;
    append16(bytes, source);
    append16(bytes, destination);
    append16(bytes, 8);
    append16(bytes, 0);
    return bytes;
}

inline Bytes tcpHeader(std::uint16_t source, std::uint16_t destination, std::uint8_t flags) {
    Bytes bytes;
    append16(bytes, source);
    append16(bytes, destination);
    append(bytes, {0, 0, 0, 1, 0, 0, 0, 0, 0x50, flags, 0x10, 0, 0, 0, 0, 0});
    return bytes;
}

struct V4Fields {
    std::string source = "192.0.2.1";
    std::string destination = "198.51.100.7";
    std::uint8_t protocol = kUdp;
    std::uint8_t tos = 0;
    std::uint8_t ttl = 64;
    std::uint16_t fragment = 0;  ///< flags and offset as they stand in the header
    Bytes options{};             ///< a multiple of 4 bytes
};

inline void appendV4(Bytes& bytes, const std::string& address) {
    const std::uint32_t value = v4FromText(address).value();
    append16(bytes, value >> 16U);
    append16(bytes, value & 0xFFFFU);
}

inline Bytes v4Packet(const V4Fields& fields, const Bytes& payload) {
    const std::size_t header_bytes = 20 + fields.options.size();
    Bytes bytes{static_cast<std::uint8_t>(0x40U | header_bytes / 4), fields.tos};
    append16(bytes, header_bytes + payload.size());
    append16(bytes, 0x1234);
    append16(bytes, fields.fragment);
    append(bytes, {fields.ttl, fields.protocol, 0, 0});
    appendV4(bytes, fields.source);
    appendV4(bytes, fields.destination);
    append(bytes, fields.options);
    append(bytes, payload);
    return bytes;
}

struct V6Fields {
    std::string source = "2001:db8::1";
    std::string destination = "2001:db8:7::2";
    std::uint8_t nextHeader = kUdp;
    std::uint8_t trafficClass = 0;
    std::uint8_t hopLimit = 64;
};

inline Bytes v6Packet(const V6Fields& fields, const Bytes& payload) {
    Bytes bytes{static_cast<std::uint8_t>(0x60U | fields.trafficClass >> 4U),
                static_cast<std::uint8_t>(fields.trafficClass << 4U), 0, 0};
    append16(bytes, payload.size());
    append(bytes, {fields.nextHeader, fields.hopLimit});
    const V6Address source = v6FromText(fields.source).value();
    const V6Address destination = v6FromText(fields.destination).value();
    bytes.insert(bytes.end(), source.begin(), source.end());
    bytes.insert(bytes.end(), destination.begin(), destination.end());
    append(bytes, payload);
    return bytes;
}

/// An extension header of `units` times 8 bytes.
inline Bytes extensionHeader(std::uint8_t nextHeader, std::uint8_t units = 1) {
    Bytes bytes(units * std::size_t{8}, 0);
    bytes[0] = nextHeader;
    bytes[1] = static_cast<std::uint8_t>(units - 1);
    return bytes;
}

/// `offsetAndMore` as it stands in the header: offset in the upper 13 bits, bit 0 "more follow".
inline Bytes fragmentHeader(std::uint8_t nextHeader, std::uint16_t offsetAndMore) {
    Bytes bytes{nextHeader, 0};
    append16(bytes, offsetAndMore);
    append(bytes, {0, 0, 0, 9});
    return bytes;
}

inline Bytes ethernet(std::uint16_t type, const Bytes& payload, std::size_t tags = 0) {
    Bytes bytes(12, 0x02);
    for (std::size_t i = 0; i < tags; ++i)
        append(bytes, {0x81, 0x00, 0x00, 0x0A});
    append16(bytes, type);
    append(bytes, payload);
    return bytes;
}

}  // namespace HwSide::Test
