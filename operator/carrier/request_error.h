// What every carrier throws when a request fails.
#pragma once

#include <stdexcept>
#include <string>

struct RequestError : std::runtime_error {
    RequestError(const std::string &text, bool unreachable, bool not_built = false)
        : std::runtime_error(text), is_unreachable(unreachable), is_not_built(not_built)
    {
    }
    bool is_unreachable; // no back end has answered; else it has refused, with these words
    bool is_not_built;   // this back end does not do it for anybody
};
