#include "backend/admin/token_command.h"

#include "backend/admin/file_edit.h"
#include "backend/admin/json_text.h"
#include "backend/admin/reload_request.h"
#include "backend/policy/token_text.h"
#include "backend/utc_time.h"

#include <algorithm>
#include <cstdio>
#include <ctime>
#include <stdexcept>

namespace backend {

using nlohmann::ordered_json;

constexpr std::int64_t DAY_S = 86400;

ordered_json tokenEntry(const std::string &token, const std::string &label, int days)
{
    return {{"label", label},
            {"sha256", hexText(*hashToken(token))},
            {"expires", utcTimeText(time(nullptr) + days * DAY_S)}};
}

static ordered_json &operatorOf(ordered_json &root, const std::string &name)
{
    for (ordered_json &entry : root["operators"])
        if (entry["name"] == name) return entry;
    throw std::runtime_error("no operator is named " + name);
}

static ordered_json::iterator findLabel(ordered_json &tokens, const std::string &label)
{
    return std::find_if(tokens.begin(), tokens.end(), [&label](const ordered_json &token) {
        return token.value("label", "") == label;
    });
}

static void addToken(ordered_json &entry, const TOKEN_T &wanted, const std::string &token)
{
    ordered_json &tokens = entry["tokens"];
    if (tokens.is_null()) tokens = ordered_json::array();
    if (findLabel(tokens, wanted.label) != tokens.end())
        throw std::runtime_error(wanted.operator_name + " has a token with the label " +
                                 wanted.label + " already");
    tokens.push_back(tokenEntry(token, wanted.label, wanted.days));
}

static void removeToken(ordered_json &entry, const TOKEN_T &wanted)
{
    ordered_json &tokens = entry["tokens"];
    const auto found = findLabel(tokens, wanted.removed);
    if (found == tokens.end())
        throw std::runtime_error(wanted.operator_name + " has no token with the label " +
                                 wanted.removed);
    tokens.erase(found);
}

void changeTokens(const INSTALLATION_T &installation, const TOKEN_T &wanted)
{
    const std::string &path = installation.operators;
    if (path.empty()) throw std::invalid_argument("--operators FILE or --config FILE is required");
    if (wanted.label.empty() == wanted.removed.empty())
        throw std::invalid_argument("either --label or --remove is required");
    const std::string token = wanted.removed.empty() ? makeToken() : std::string();
    editFile(path, [&](const std::string &before) {
        try {
            (void)parsePolicy(before);
        } catch (const std::runtime_error &fault) {
            throw std::runtime_error(path + ": " + fault.what());
        }
        JSON_TEXT_T json = parseJsonText(before);
        ordered_json &entry = operatorOf(json.root, wanted.operator_name);
        token.empty() ? removeToken(entry, wanted) : addToken(entry, wanted, token);
        std::string after = jsonText(json);
        try {
            (void)parsePolicy(after);
        } catch (const std::runtime_error &fault) {
            throw std::runtime_error(path + " would not be usable: " + fault.what());
        }
        return after;
    });
    if (!token.empty()) (void)printf("%s\n", token.c_str());
    (void)fflush(stdout);
    (void)fprintf(stderr, "%s\n", requestReload(installation.control).c_str());
}

} // namespace backend
