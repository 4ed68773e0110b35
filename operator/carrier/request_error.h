// What every carrier throws when a request fails.
#pragma once

#include <stdexcept>
#include <string>

struct RequestError : std::runtime_error {
    RequestError(const std::string &text, bool unreachable)
        : std::runtime_error(text), is_unreachable(unreachable)
    {
    }
    bool is_unreachable; // no back end has answered; else it has refused, with these words
};
