#include "platform/watch/PreContentGroup.h"
#include "service/serve/ControlSocket.h"
#include "service/serve/SocketMessage.h"

#include <cstdint>
#include <cstdlib>
#include <nlohmann/json.hpp>
#include <sys/socket.h>

/// A client sends messages; each is a byte for the number of descriptors that go with it, one for its length,
/// and its text. Words of ours are answered; whoever says anything else is not listened to any more.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static PreContentGroup group;
    static RecallService service(group, ServeRules{});
    ControlSocket control(service, {"/srv/\xff", std::string(data, data + std::min<size_t>(size, 16))});
    int ends[2];
    if (::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_NONBLOCK, 0, ends) < 0)
        std::abort();
    const UniqueFd client(ends[0]);
    const int server = ends[1];
    control.takeOver(UniqueFd(server));
    while (size >= 2) {
        const size_t count = data[0] < kFilesInMessage ? data[0] % 4 : kFilesInMessage;
        const std::vector<int> files(count, client.get());
        const size_t length = std::min<size_t>(data[1], size - 2);
        const std::string request(reinterpret_cast<const char*>(data) + 2, length);
        data += 2 + length;
        size -= 2 + length;
        if (sendMessage(client.get(), request, files) != 0)
            std::abort();
        control.serve(server);
        std::string answer;
        std::vector<UniqueFd> none;
        if (receiveMessage(client.get(), answer, none, kLongMessage) != 0 || !none.empty())
            std::abort();
        const bool isKnown =
            request == "status" || request == "metrics" || request == "exempt" || request == "heed";
        if (answer.empty() == isKnown)
            std::abort();
        if (!isKnown)
            break;
        if (request == "status" && nlohmann::json::parse(answer)["serving"].size() != 2)
            std::abort();
    }
    std::vector<int> fds;
    control.addTo(fds);
    for (const int fd : fds)
        control.serve(fd);
    return 0;
}
