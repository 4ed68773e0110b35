#include "backend/policy/policy.h"

namespace backend {

DECISION_T decide(const POLICY_T * /*policy*/, const PRINCIPAL_T &who, RIGHT right,
                  const TARGET_T & /*target*/)
{
    if (who.door == DOOR::FORWARDED_PORT && right != RIGHT::CONNECT)
        return {VERDICT::DENIED, "a forwarded port is for connecting only", {}, {}};
    return {VERDICT::ALLOWED, {}, {}, {}};
}

} // namespace backend
