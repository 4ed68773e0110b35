// What the back end allows its peers, and for how long it waits for them. Tests lower the values.
#pragma once

#include <chrono>
#include <cstddef>

namespace backend {

struct LIMITS_T {
    // Bytes from the device that wait for a session's client, and for all clients. A session whose
    // client falls that far behind is cut off: the protocol has no flow control for a single
    // session, and a channel that is not read makes the device drop the bytes of all others. The
    // storage may be up to three times as much while a buffer grows. An ssh
    // or sftp session has 2 MiB under way at most, so a stopped terminal never gets there.
    std::size_t session_buffer = std::size_t{16} * 1024 * 1024;
    std::size_t all_buffers = std::size_t{256} * 1024 * 1024;
    // Data bytes queued for a device above which no client is read: a keystroke waits behind them.
    // A message per session may come on top.
    std::size_t data_queue = std::size_t{64} * 1024;
    // Answers queued for a device (pongs, releases) above which it is taken for one that only
    // sends: it is dropped.
    std::size_t control_queue = std::size_t{256} * 1024;
    // Connections whose handshake is not accepted yet. One that has sent nothing costs a descriptor
    // and 1 KiB, one in the middle of TLS about 75 KiB.
    std::size_t places = 4096;
    std::size_t clients_per_device =
        64; // local connections, those that wait for the device's answer included

    // From the TCP connection to the accepted handshake: TLS and the upgrade count in.
    std::chrono::milliseconds handshake_time{10000};
    // The time that a connection waits for its turn does not count, neither here nor below.
    std::chrono::milliseconds first_byte_time{2000};
    std::chrono::milliseconds progress_time{5000}; // between bytes, until the handshake is accepted
    std::chrono::milliseconds refusal_time{
        500}; // between a refused handshake's answer and the close
    std::chrono::milliseconds open_time{
        45000}; // a device connects for up to 1 s for each request before ours
    std::chrono::milliseconds account_time{45000};

    // A device that is there answers a WebSocket ping. One is sent beside a request when nothing
    // was heard for request_silence, and on a channel that was silent for idle_silence. Without an
    // answer the device counts as not answering after answering_time, and its channel is closed
    // after silence_time.
    std::chrono::milliseconds request_silence{5000};
    std::chrono::milliseconds idle_silence{300000};
    std::chrono::milliseconds answering_time{10000};
    std::chrono::milliseconds silence_time{120000};

    std::chrono::milliseconds request_time{
        10000}; // for the header of an operator's request, and for its body
    std::chrono::milliseconds keep_alive_time{60000}; // between an operator's requests
    // Requests that an operator may make in a second, for good, over the interface; at once four
    // times as many.
    double operator_rate = 50;

    std::chrono::milliseconds answer_time{30000}; // for an operator's program to take an answer
    std::chrono::milliseconds linger_time{
        30000}; // without data from the device, after the client has ended its sending
    std::chrono::milliseconds stall_time{
        30000}; // of a session that has ended, with bytes of which the client takes nothing
    std::chrono::milliseconds drain_time{
        5000}; // for the client to close, after everything was sent to it
};

constexpr std::size_t DEVICE_SESSIONS_MAX = 32; // a device refuses more

} // namespace backend
