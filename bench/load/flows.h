// Bulk flows: one direction of some sessions, as fast as it goes, until they are ended.
#pragma once

#include "bench/load/sessions.h"

#include <atomic>
#include <cstdint>
#include <memory>
#include <thread>

struct FLOW_T {
    int from = -1; // borrowed
    int to = -1;   // borrowed
    std::atomic<std::uint64_t> sent{0};
    std::atomic<std::uint64_t> received{0};
    std::atomic<bool> stopping{false};
    std::atomic<bool> ended{false};
    std::thread sender;
    std::thread receiver;
};
using Flows = std::vector<std::unique_ptr<FLOW_T>>;

// Two threads for each session. cheap: the receivers wake up rarely, for large reads.
Flows startFlows(const std::vector<SESSION_T> &sessions, bool down, bool cheap);
// What each has received so far.
std::vector<std::uint64_t> receivedBy(const Flows &flows);
// Waits until everything has arrived; returns the bytes that never did.
std::uint64_t endFlows(Flows &flows);
