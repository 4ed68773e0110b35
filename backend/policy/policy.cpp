#include "backend/policy/policy.h"

namespace backend {

DECISION_T decide(const PRINCIPAL_T &who, RIGHT right, const DEVICE_KEY_T * /*device*/,
                  std::string_view /*service*/)
{
    if (who.door == DOOR::FORWARDED_PORT && right != RIGHT::CONNECT)
        return {false, "a forwarded port is for connecting only"};
    return {true, {}};
}

} // namespace backend
