// The gateway's list of services, as the keeper needs it: which there are, and where the keeper's
// own entry has it listen.
// Source   the same JSON file as the daemon's (src/service_catalogue.h), without the built-in list
//          in its place: who wants sessions kept has a list that announces the keeper.
// Failure  std::runtime_error: the file cannot be read, is too large or is no JSON array.
// Threads  none of it keeps state.
#pragma once

#include "keep/opening.h"

#include <optional>
#include <string>
#include <vector>

namespace keeper {

using keep::KEPT_SERVICE_T;

constexpr std::size_t SERVICE_FILE_MAX = 65536;

// Entries that the daemon would leave out are left out here, too.
std::vector<KEPT_SERVICE_T> parseServices(const std::string &text);
std::vector<KEPT_SERVICE_T> readServices(const std::string &path);

// The first of type KEEPER.
std::optional<KEPT_SERVICE_T> ownEntry(const std::vector<KEPT_SERVICE_T> &services);

// Whether the list has it. The daemon may announce a service of the machine that hosts the gateway
// with that machine's address in place of the list's: `host` is this address.
bool isListed(const std::vector<KEPT_SERVICE_T> &services, const KEPT_SERVICE_T &wanted,
              const std::string &host);

} // namespace keeper
