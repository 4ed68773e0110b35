// What the process does when memory runs out, and with memory that it no longer needs.
// Out of memory  a reserve is released, so that what is under way can end in good order: libraries
//                allocate in destructors, where nothing may be thrown. The connection that was
//                served is given up then, and the reserve taken anew. Without a reserve an
//                allocation that fails throws std::bad_alloc, and no connection is accepted.
// Idle           what a burst of connections has left is given back to the system.
// Threads        prepareMemory before there are others; MemoryTidy in the thread of the io_context.
#pragma once

#include <boost/asio/io_context.hpp>
#include <boost/asio/steady_timer.hpp>

namespace backend {

void prepareMemory();

// True once after the reserve was released.
bool wasMemoryShort() noexcept;
// Takes the reserve again where it was released. False when there is no memory for it.
bool takeReserve() noexcept;

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
