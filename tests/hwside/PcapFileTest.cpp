#include "hwside/PcapFile.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>

#include "tests/hwside/PacketBytes.h"

namespace HwSide::Test {
namespace {

constexpr std::uint32_t kLinkEthernet = 1;
constexpr std::uint32_t kLinkRaw = 101;
constexpr std::uint32_t kLinkCooked = 113;

class PcapFileTest : public testing::Test {
protected:
    ~PcapFileTest() override { std::filesystem::remove(path_); }

    void write32(std::uint32_t value) {
        file_.write(reinterpret_cast<const char*>(&value), sizeof(value));
    }
    void begin(std::uint32_t linkType) {
        file_.open(path_, std::ios::binary | std::ios::trunc);
        for (const std::uint32_t word : {0xA1B2C3D4U, 0x00040002U, 0U, 0U, 65535U, linkType}) {
            write32(word);
        }
    }
    void add(const Bytes& packet, std::uint32_t length) {
        for (const std::uint32_t word :
             {1U, 0U, static_cast<std::uint32_t>(packet.size()), length}) {
            write32(word);
        }
        file_.write(reinterpret_cast<const char*>(packet.data()),
                    static_cast<std::streamsize>(packet.size()));
    }
    void add(const Bytes& packet) { add(packet, static_cast<std::uint32_t>(packet.size())); }
    std::string failure() {
        try {
            PcapFile capture(path_);
            while (capture.next()) {
            }
        } catch (const std::runtime_error& error) {
            return error.what();
        }
        return "none";
    }

    std::string path_ = testing::TempDir() + "capture-" + std::to_string(getpid()) + ".pcap";
    std::ofstream file_;
};

TEST_F(PcapFileTest, ReadsPacketsOfEveryKnownLinkType) {
    const Bytes ip = v4Packet({}, udpHeader(123, 123));
    Bytes cooked(14, 0);
    append16(cooked, 0x0800);
    append(cooked, ip);
    const std::vector<std::pair<std::uint32_t, Bytes>> cases{
        {kLinkEthernet, ethernet(0x0800, ip)}, {kLinkRaw, ip}, {kLinkCooked, cooked}};
    for (const auto& [linkType, bytes] : cases) {
        begin(linkType);
        add(bytes);
        add({});
        file_.close();
        PcapFile capture(path_);
        const std::optional<Decoded> first = capture.next();
        ASSERT_TRUE(first);
        EXPECT_EQ(first->packet.ports, (PacketPorts{123, 123}));
        const std::optional<Decoded> second = capture.next();
        ASSERT_TRUE(second);
        EXPECT_EQ(second->outcome, DecodeOutcome::truncated);
        EXPECT_FALSE(capture.next());
        EXPECT_EQ(capture.packets(), 2U);
    }
}

TEST_F(PcapFileTest, CallsAPacketCutByTheSnapshotLengthTruncated) {
    begin(kLinkRaw);
    const Bytes whole = v4Packet({.protocol = kTcp}, tcpHeader(1, 2, 3));
    add(Bytes(whole.begin(), whole.begin() + 30), static_cast<std::uint32_t>(whole.size()));
    file_.close();
    PcapFile capture(path_);
    EXPECT_EQ(capture.next()->outcome, DecodeOutcome::truncated);
}

TEST_F(PcapFileTest, NamesAMissingFile) {
    EXPECT_NE(failure().find(path_ + ": No such file"), std::string::npos) << failure();
}

TEST_F(PcapFileTest, NamesAFileThatIsNoCapture) {
    file_.open(path_);
    file_ << "control-plane:\n  - nothing to capture here\n";
    file_.close();
    EXPECT_NE(failure().find(path_ + ": unknown file format"), std::string::npos) << failure();
}

TEST_F(PcapFileTest, NamesAnUnknownLinkType) {
    begin(105);
    file_.close();
    EXPECT_NE(failure().find("link type 105 (IEEE802_11) is none of"), std::string::npos)
        << failure();
}

TEST_F(PcapFileTest, NamesThePacketThatAFileBreaksOffIn) {
    begin(kLinkRaw);
    add(v4Packet({}, udpHeader(1, 2)));
    write32(1);
    file_.close();
    EXPECT_NE(failure().find(path_ + ": packet 2: truncated dump file"), std::string::npos)
        << failure();
}

}  // namespace
}  // namespace HwSide::Test
