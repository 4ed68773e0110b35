#include "backend/store/token_records.h"

#include "backend/policy/token_text.h"

#include <algorithm>
#include <set>

#include <openssl/crypto.h>

namespace backend {

static constexpr char LOAD_SQL[] =
    "SELECT id, operator, label, sha256, made_ms, expires, made_with FROM token";
static constexpr char ADD_SQL[] = "INSERT INTO token VALUES (?, ?, ?, ?, ?, ?, ?)";
static constexpr char EXPIRE_SQL[] = "DELETE FROM token WHERE expires <= ?";
// The tokens that were made with it hang on it.
static constexpr char REVOKE_SQL[] =
    "WITH RECURSIVE gone(id) AS (SELECT ? UNION SELECT token.id FROM token, gone"
    " WHERE token.made_with = gone.id) DELETE FROM token WHERE id IN gone";

TOKEN_RECORDS_T loadTokens(STORE_T *store, std::int64_t now)
{
    TOKEN_RECORDS_T tokens{store, {}};
    if (store == nullptr) return tokens;
    for (const STORE_ROW_T &row : readStore(*store, LOAD_SQL)) {
        const auto text = [&row](std::size_t i) { return std::get<std::string>(row[i]); };
        const auto number = [&row](std::size_t i) { return std::get<std::int64_t>(row[i]); };
        const auto hash = parseHex(text(3));
        if (hash && number(5) > now)
            tokens.records.push_back(
                {text(0), text(1), text(2), *hash, number(4), number(5), text(6)});
    }
    return tokens;
}

const TOKEN_RECORD_T *findToken(const TOKEN_RECORDS_T &tokens, const SHA256_T &hash,
                                std::int64_t now)
{
    const TOKEN_RECORD_T *found = nullptr;
    for (const TOKEN_RECORD_T &token : tokens.records)
        if (CRYPTO_memcmp(token.hash.data(), hash.data(), hash.size()) == 0) found = &token;
    return found != nullptr && found->expires > now ? found : nullptr;
}

const TOKEN_RECORD_T *findTokenById(const TOKEN_RECORDS_T &tokens, std::string_view id)
{
    const auto found = std::find_if(tokens.records.begin(), tokens.records.end(),
                                    [id](const auto &token) { return token.id == id; });
    return found == tokens.records.end() ? nullptr : &*found;
}

std::string whyNoMore(TOKEN_RECORDS_T &tokens, std::string_view operator_name, std::int64_t now)
{
    if (tokens.store == nullptr) return "this back end has no --store to keep tokens in";
    if (std::erase_if(tokens.records, [now](const auto &token) { return token.expires <= now; }) >
        0)
        writeStore(*tokens.store, {EXPIRE_SQL, {now}}, [](bool) {});
    if (tokens.records.size() >= TOKENS_MAX) return "there are too many tokens";
    const auto own =
        std::count_if(tokens.records.begin(), tokens.records.end(),
                      [&](const auto &token) { return token.operator_name == operator_name; });
    if (static_cast<std::size_t>(own) < TOKENS_PER_OPERATOR) return {};
    return "an operator has at most " + std::to_string(TOKENS_PER_OPERATOR) + " tokens";
}

void addToken(TOKEN_RECORDS_T &tokens, TOKEN_RECORD_T token, const StoreCallback &answered)
{
    STORE_WRITE_T write{ADD_SQL,
                        {token.id, token.operator_name, token.label, hexText(token.hash),
                         token.made_ms, token.expires, token.made_with}};
    writeStore(*tokens.store, std::move(write),
               [&tokens, token = std::move(token), answered](bool is_durable) {
                   const bool is_orphan = !token.made_with.empty() &&
                                          token.made_with.find(':') == std::string::npos &&
                                          findTokenById(tokens, token.made_with) == nullptr;
                   if (is_durable && !is_orphan) tokens.records.push_back(token);
                   answered(is_durable && !is_orphan);
               });
}

std::vector<std::string> revokeToken(TOKEN_RECORDS_T &tokens, std::string_view id,
                                     StoreCallback answered)
{
    std::set<std::string, std::less<>> gone{std::string(id)};
    for (std::size_t before = 0; before != gone.size();) {
        before = gone.size();
        for (const TOKEN_RECORD_T &token : tokens.records)
            if (gone.contains(token.made_with)) gone.insert(token.id);
    }
    std::erase_if(tokens.records, [&gone](const auto &token) { return gone.contains(token.id); });
    if (tokens.store != nullptr)
        writeStore(*tokens.store, {REVOKE_SQL, {std::string(id)}}, std::move(answered));
    return {gone.begin(), gone.end()};
}

} // namespace backend
