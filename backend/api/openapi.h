// docs/openapi.json, as it was at build time.
#pragma once

#include <string>

namespace backend {

std::string openapiDocument();

} // namespace backend
