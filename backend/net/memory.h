// What the process does when memory runs out, and with memory that it no longer needs.
// Out of memory  an allocation that fails throws std::bad_alloc and costs the connection that asked.
//                A reserve is released at that moment, so that this connection can be closed and
//                the others told; the reserve is taken anew afterwards.
// Idle           what a burst of connections has left is given back to the system.
// Threads        prepareMemory before there are others; MemoryTidy in the thread of the io_context.
#pragma once

#include <boost/asio/io_context.hpp>
#include <boost/asio/steady_timer.hpp>

namespace backend {

void prepareMemory();

// Looks every TIDY_PERIOD until it is destroyed or stopped.
class MemoryTidy {
public:
    explicit MemoryTidy(boost::asio::io_context &io);
    void stop();

private:
    void wait();

    boost::asio::steady_timer timer_;
};

// Runs the io_context until it has no more work. A handler that throws has cost its connection, and
// is logged.
void runHandlers(boost::asio::io_context &io);

} // namespace backend
