// Takes the devices out of the text of their file, member by member: a tree of the whole text would
// need many times what is kept.
// Failure  std::runtime_error, whose text names the place.
#pragma once

#include "backend/devices/device_registry.h"

#include <deque>
#include <string_view>

namespace backend {

// In the order of the text; one that stands there twice is not noticed here.
std::deque<REGISTERED_T> readRegistered(std::string_view text);

} // namespace backend
