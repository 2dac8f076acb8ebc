// Bytes as a capture file: packets, or one error that ends it.

#include <fstream>
#include <stdexcept>

#include "fuzz/support/TableFiles.h"
#include "hwside/Json.h"
#include "hwside/PcapFile.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const Fuzz::Folder folder;
    static const std::string path = folder.path() + "/capture";
    Fuzz::Input input(data, size);
    std::ofstream(path, std::ios::binary | std::ios::trunc) << input.takeRest();
    try {
        HwSide::PcapFile file(path);
        while (const auto decoded = file.next()) {
            if (decoded->outcome != HwSide::DecodeOutcome::ok)
                continue;
            // What can be decoded can be asked for, in the words of the control socket.
            const HwSide::Packet again =
                HwSide::packetFromJson(HwSide::packetToJson(decoded->packet));
            Brumo::require(again == decoded->packet, "text says all of a packet",
                           decoded->packet.toText());
        }
    } catch (const HwSide::RequestError&) {
        throw;
    } catch (const std::runtime_error&) {
        return 0;
    }
    return 0;
}
