// Bytes on a connection to the hardware side's control socket: it lives on, and answers each line
// that it takes with one line of JSON.

#include <asio/io_context.hpp>
#include <asio/local/stream_protocol.hpp>
#include <asio/read.hpp>
#include <asio/write.hpp>

#include "fuzz/support/TableFiles.h"
#include "hwside/Daemon.h"
#include "platform/brumo/Trace.h"

namespace {

class Server {
public:
    Server() : daemon_(io_, folder_.path()) {
        Brumo::traceFilterIs("");
        daemon_.start();
    }

    /// Everything that comes back when a client sends the bytes and no more.
    std::string answerTo(const std::string& bytes) {
        asio::io_context clientLoop;
        asio::local::stream_protocol::socket client(clientLoop);
        client.connect({folder_.path() + "/hwd.sock"});
        client.non_blocking(true);
        asio::error_code error;
        std::string answer;
        std::size_t sent = 0;
        for (bool isOver = false; !isOver;) {
            if (sent < bytes.size())
                sent += client.write_some(asio::buffer(bytes.data() + sent, bytes.size() - sent),
                                          error);
            if (sent == bytes.size() || (error && error != asio::error::would_block)) {
                sent = bytes.size();
                client.shutdown(asio::socket_base::shutdown_send, error);
            }
            io_.poll();
            std::array<char, 4096> part{};
            const std::size_t got = client.read_some(asio::buffer(part), error);
            answer.append(part.data(), got);
            isOver = error && error != asio::error::would_block;
        }
        return answer;
    }

private:
    Fuzz::Folder folder_;
    asio::io_context io_;
    HwSide::Daemon daemon_;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static Server server;
    Fuzz::Input input(data, size);
    const std::string bytes = input.takeRest();
    std::string answers = server.answerTo(bytes);
    const auto requests = std::ranges::count(bytes, '\n');
    Brumo::require(std::ranges::count(answers, '\n') == requests, "an answer for each line");
    for (std::size_t end = answers.find('\n'); end != std::string::npos; end = answers.find('\n')) {
        const auto answer = HwSide::Json::parse(answers.substr(0, end));
        Brumo::require(answer.at("ok").is_boolean(), "an answer says whether it was done");
        answers.erase(0, end + 1);
    }
    return 0;
}
