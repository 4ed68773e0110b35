// What every carrier throws when a request fails.
#pragma once

#include <chrono>
#include <stdexcept>
#include <string>
#include <utility>

struct RequestError : std::runtime_error {
    RequestError(const std::string &text, bool unreachable, bool not_built = false,
                 std::chrono::seconds retry = std::chrono::seconds(0), std::string of = {})
        : std::runtime_error(text), retry_after(retry), is_unreachable(unreachable),
          is_not_built(not_built), kind(std::move(of))
    {
    }
    std::chrono::seconds retry_after; // of a refusal that time heals; 0: of any other
    bool is_unreachable; // no back end has answered; else it has refused, with these words
    bool is_not_built;   // this back end does not do it for anybody
    std::string kind;    // of a refusal, as backend/operations/fault.h names it; may be empty
};
