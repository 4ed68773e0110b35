// The texts of the command line, read into records.
// Failure  std::invalid_argument, whose text says what was expected.
#pragma once

#include <string>
#include <string_view>

#include <boost/asio/ip/tcp.hpp>

namespace backend {

struct FORWARD_OPTION_T {
    boost::asio::ip::tcp::endpoint listen;
    std::string device;  // DEVICE_NAME, or PRODUCT_KEY:DEVICE_NAME
    std::string service; // as the device announces it
};

// "LOCAL_PORT=DEVICE/SERVICE_NAME", where LOCAL_PORT may be "ADDRESS:PORT" (else 127.0.0.1). The
// device's name ends at the first slash.
FORWARD_OPTION_T parseForward(std::string_view text);

} // namespace backend
