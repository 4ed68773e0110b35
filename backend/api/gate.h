// Who gets in at the interface, and how much of it an operator may have at once.
// Limits   failed sign-ins of an address (IPv6: a /64): 10 at once, 1 a second; beyond that they
//          are answered with 429 and leave no line. What proves an operator always gets in, so
//          that nobody locks out others behind the same address. Requests of an operator:
//          LIMITS_T::operator_rate. Connections: 256 of an operator, 4096 of all; event streams:
//          16 of an operator.
// Threads  the thread of the io_context.
// Secrets  none is in any line.
#pragma once

#include "backend/api/rate.h"
#include "backend/api/reply.h"
#include "backend/operations/sign_in.h"

#include <map>
#include <memory>
#include <optional>
#include <string>
#include <variant>

#include <boost/asio/ip/tcp.hpp>

namespace backend {

struct COUNTS_T {
    std::map<std::string, std::size_t> of; // by operator
    std::size_t all = 0;
};
using CountsPtr = std::shared_ptr<COUNTS_T>;

// One of an operator's connections or streams, counted for as long as it lives.
class Seat {
public:
    Seat(CountsPtr counts, std::string name);
    Seat(const Seat &) = delete;
    Seat &operator=(const Seat &) = delete;
    ~Seat();
    [[nodiscard]] const std::string &name() const
    {
        return name_;
    }

private:
    CountsPtr counts_;
    std::string name_;
};
using SeatPtr = std::unique_ptr<Seat>;

constexpr std::size_t OPERATOR_CONNECTIONS_MAX = 256;
constexpr std::size_t CONNECTIONS_MAX = 4096;
constexpr std::size_t OPERATOR_STREAMS_MAX = 16;

struct GATE_T {
    explicit GATE_T(double operator_rate) : requests(4 * operator_rate, operator_rate) {}
    RateTable failures{10, 1};
    RateTable requests;
    CountsPtr connections = std::make_shared<COUNTS_T>();
    CountsPtr streams = std::make_shared<COUNTS_T>();
};

// What came proves an operator, or the answer to give.
std::variant<PRINCIPAL_T, REPLY_T> authenticate(GATE_T &gate, const OPERATIONS_T &operations,
                                                const CREDENTIALS_T &credentials,
                                                const boost::asio::ip::tcp::endpoint &peer);

// The answer to a request that is one too many.
std::optional<REPLY_T> overRate(GATE_T &gate, const std::string &name);

// Null when there are too many.
SeatPtr takeSeat(const CountsPtr &counts, const std::string &name, std::size_t of_one,
                 std::size_t of_all);

} // namespace backend
