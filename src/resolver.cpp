#include "src/resolver.h"

#include <cerrno>
#include <netinet/in.h>
#include <resolv.h>

namespace {

// The default waits 5 s for each of up to three servers, twice.
constexpr int QUERY_TIMEOUT_S = 2;
constexpr int QUERY_TRIES = 1;

} // namespace

int refreshResolver() noexcept
{
    errno = 0;
    const int result = ::res_init();
    const int saved_errno = errno;
    _res.retrans = QUERY_TIMEOUT_S;
    _res.retry = QUERY_TRIES;
    _res.options |= RES_NORELOAD; // else the library puts its own values back, though not always
    errno = saved_errno;
    return result;
}
