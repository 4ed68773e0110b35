#include "bench/load/flows.h"

#include <cerrno>
#include <sys/socket.h>

namespace {

constexpr int NAP_MS = 100; // how late a stalled flow is noticed
constexpr std::size_t CHUNK = 65536;
// Pages sent by reference (sendfile) would save a copy here, and cost the gateway a fifth more: it
// would get them 4 KB at a time.
constexpr int CHEAP_LOW_WATER = 1 << 20;

void setLowWater(int fd, int bytes)
{
    (void)::setsockopt(fd, SOL_SOCKET, SO_RCVLOWAT, &bytes, sizeof bytes);
}

// The last byte follows the mark: it wakes a receiver that already has everything else.
void sendFlow(FLOW_T &flow, bool cheap)
{
    const std::vector<char> chunk(CHUNK, 'x');
    while (!flow.stopping) {
        const ssize_t count = ::send(flow.from, chunk.data(), chunk.size(), MSG_NOSIGNAL);
        require(count > 0, "bulk send");
        flow.sent += static_cast<std::uint64_t>(count);
    }
    ++flow.sent;
    flow.ended = true;
    if (cheap) setLowWater(flow.to, 1);
    require(::send(flow.from, "x", 1, MSG_NOSIGNAL) == 1, "bulk send");
}

void receiveFlow(FLOW_T &flow)
{
    int naps = 0;
    while (!flow.ended || flow.received < flow.sent) {
        // cppcheck-suppress nullPointer ; MSG_TRUNC: the kernel throws the bytes away
        const ssize_t count = ::recv(flow.to, nullptr, 1 << 20, MSG_TRUNC);
        require(count > 0 || (count < 0 && errno == EAGAIN), "bulk receive");
        naps = count > 0 ? 0 : naps + 1;
        if (count > 0) flow.received += static_cast<std::uint64_t>(count);
        if (naps * NAP_MS > PROGRESS_MS) return; // what is missing now is lost
    }
}

} // namespace

Flows startFlows(const std::vector<SESSION_T> &sessions, bool down, bool cheap)
{
    Flows flows;
    for (const SESSION_T &session : sessions) {
        const int service = session.service.get();
        const int client = session.client.get();
        FLOW_T &flow = *flows.emplace_back(std::make_unique<FLOW_T>());
        flow.from = down ? service : client;
        flow.to = down ? client : service;
        setReadTimeout(flow.to, NAP_MS);
        if (cheap) setLowWater(flow.to, CHEAP_LOW_WATER);
        flow.receiver = std::thread(receiveFlow, std::ref(flow));
        flow.sender = std::thread(sendFlow, std::ref(flow), cheap);
    }
    return flows;
}

std::vector<std::uint64_t> receivedBy(const Flows &flows)
{
    std::vector<std::uint64_t> counts;
    for (const auto &flow : flows)
        counts.push_back(flow->received);
    return counts;
}

std::uint64_t endFlows(Flows &flows)
{
    std::uint64_t lost = 0;
    for (const auto &flow : flows)
        flow->stopping = true;
    for (const auto &flow : flows) {
        flow->sender.join();
        flow->receiver.join();
        lost += flow->sent - flow->received;
    }
    return lost;
}
