#include "backend/api/gate.h"

#include "backend/net/admission.h"
#include "backend/observe/audit.h"
#include "backend/observe/log.h"

namespace backend {

static constinit LINE_LIMIT_T g_refused{"refused sign-ins"};

Seat::Seat(CountsPtr counts, std::string name) : counts_(std::move(counts)), name_(std::move(name))
{
    counts_->of[name_]++;
    counts_->all++;
}

Seat::~Seat()
{
    counts_->all--;
    const auto found = counts_->of.find(name_);
    if (--found->second == 0) counts_->of.erase(found);
}

SeatPtr takeSeat(const CountsPtr &counts, const std::string &name, std::size_t of_one,
                 std::size_t of_all)
{
    const auto found = counts->of.find(name);
    if (counts->all >= of_all || (found != counts->of.end() && found->second >= of_one))
        return nullptr;
    return std::make_unique<Seat>(counts, name);
}

static REPLY_T tooMany(const std::string &detail, unsigned seconds)
{
    REPLY_T reply = problemReply(FAULT::TOO_MANY, detail);
    reply.fields.emplace_back("Retry-After", std::to_string(seconds));
    return reply;
}

static std::string addressName(const boost::asio::ip::tcp::endpoint &peer)
{
    const ADDRESS_KEY_T key = addressKey(peer.address());
    return std::to_string(key.version) + ":" + std::to_string(key.prefix);
}

static void recordRefusal(const CREDENTIALS_T &credentials, const char *reason)
{
    logLimited(g_refused, LOG_LEVEL::WARNING, "sign-in refused from %s: %s",
               credentials.from.c_str(), reason);
    auditRecord(AUDIT_EVENT::SIGN_IN_REFUSED, {{"from", credentials.from}, {"reason", reason}});
}

std::variant<PRINCIPAL_T, REPLY_T> authenticate(GATE_T &gate, const OPERATIONS_T &operations,
                                                const CREDENTIALS_T &credentials,
                                                const boost::asio::ip::tcp::endpoint &peer)
{
    if (auto who = signIn(operations, credentials)) return std::move(*who);
    if (!gate.failures.take(addressName(peer)))
        return tooMany("too many failed sign-ins from this address", gate.failures.waitSeconds());
    const bool has_token = !credentials.token.empty();
    const char *reason = "neither a token nor a certificate came";
    if (has_token)
        reason = "the token is not valid";
    else if (!credentials.certificate_names.empty())
        reason = "the certificate is no operator's";
    if (has_token || !credentials.certificate_names.empty()) recordRefusal(credentials, reason);
    REPLY_T reply = problemReply(FAULT::UNAUTHENTICATED, reason);
    reply.fields.emplace_back("WWW-Authenticate",
                              has_token ? "Bearer realm=\"remote-access\", error=\"invalid_token\""
                                        : "Bearer realm=\"remote-access\"");
    return reply;
}

std::optional<REPLY_T> overRate(GATE_T &gate, const std::string &name)
{
    if (gate.requests.take(name)) return std::nullopt;
    return tooMany("too many requests of this operator", gate.requests.waitSeconds());
}

} // namespace backend
