#include "operator/carrier/resolver.h"

#include "operator/carrier/request_error.h"

#include <cerrno>
#include <cstring>
#include <future>
#include <memory>
#include <netdb.h>
#include <thread>

using boost::asio::ip::tcp;

namespace {

struct FOUND_T {
    int fault = 0;
    int error = 0; // errno, where the fault is EAI_SYSTEM
    std::vector<tcp::endpoint> endpoints;
};

FOUND_T lookUp(const std::string &host, std::uint16_t port)
{
    addrinfo hints{};
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_flags = AI_NUMERICSERV;
    addrinfo *list = nullptr;
    FOUND_T found;
    found.fault = ::getaddrinfo(host.c_str(), std::to_string(port).c_str(), &hints, &list);
    found.error = errno;
    if (found.fault != 0) return found;
    for (const addrinfo *entry = list; entry != nullptr; entry = entry->ai_next) {
        tcp::endpoint endpoint;
        if (entry->ai_addrlen > endpoint.capacity()) continue;
        std::memcpy(endpoint.data(), entry->ai_addr, entry->ai_addrlen);
        endpoint.resize(entry->ai_addrlen);
        found.endpoints.push_back(endpoint);
    }
    ::freeaddrinfo(list);
    return found;
}

std::string faultText(const FOUND_T &found)
{
    return found.fault == EAI_SYSTEM ? std::strerror(found.error) : ::gai_strerror(found.fault);
}

} // namespace

std::vector<tcp::endpoint> resolve(const std::string &host, std::uint16_t port,
                                   std::chrono::steady_clock::time_point end)
{
    // The system's call cannot be given up. Its thread is left alone with what it needs.
    std::packaged_task<FOUND_T()> task([host, port] { return lookUp(host, port); });
    std::future<FOUND_T> answer = task.get_future();
    std::thread(std::move(task)).detach();
    if (answer.wait_until(end) != std::future_status::ready)
        throw RequestError(host + ": its address could not be looked up in time", true);
    FOUND_T found = answer.get();
    if (found.endpoints.empty())
        throw RequestError(host + ": no address is known: " + faultText(found), true);
    return std::move(found.endpoints);
}
