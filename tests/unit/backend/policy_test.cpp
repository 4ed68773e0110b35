#include "backend/policy/policy.h"

#include "tests/support/plain_policy.h"

#include <filesystem>
#include <fstream>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <random>
#include <sstream>
#include <sys/stat.h>

using namespace backend;
using nlohmann::json;
using testing::ElementsAre;
using testing::HasSubstr;

namespace {

struct DEVICE_T {
    DEVICE_KEY_T key;
    Labels labels;
};

PRINCIPAL_T personNamed(std::string name, DOOR door = DOOR::API)
{
    PRINCIPAL_T who;
    who.door = door;
    who.name = std::move(name);
    return who;
}

// The file that docs/policy.md explains.
std::string exampleText()
{
    std::ifstream file(RA_SOURCE_DIR "/docs/policy.md");
    const std::string text{std::istreambuf_iterator<char>(file), {}};
    const std::size_t start = text.find("```json\n") + 8;
    return text.substr(start, text.find("\n```\n", start) - start);
}

std::string faultOf(std::string_view text)
{
    try {
        (void)parsePolicy(text);
    } catch (const std::runtime_error &fault) {
        return fault.what();
    }
    return "accepted";
}

// In one word: the grant and its longest session, or the verdict and the grant that denies.
std::string summaryOf(const DECISION_T &decision)
{
    std::string text = decision.grant;
    if (decision.max_session) text += ":" + std::to_string(decision.max_session->count());
    if (decision.verdict == VERDICT::DENIED) return "denied" + (text.empty() ? "" : ":" + text);
    return decision.verdict == VERDICT::UNKNOWN ? "unknown" + text : text;
}

SHA256_T hashFrom(std::string_view hex)
{
    SHA256_T hash{};
    for (std::size_t i = 0; i < hash.size(); i++)
        hash.at(i) =
            static_cast<std::uint8_t>(std::stoi(std::string(hex.substr(2 * i, 2)), nullptr, 16));
    return hash;
}

} // namespace

TEST(Policy, DecidesByTheGrantsOfTheExample)
{
    const std::map<std::string, DEVICE_T> devices{
        {"gw-b-1", {{"PK1", "gw-b-1"}, {}}},
        {"gw-b-2", {{"PK1", "gw-b-2"}, {{"customer", "mill"}}}},
        {"gw-m-1", {{"PK1", "gw-m-1"}, {{"customer", "mill"}, {"zone", "vault"}}}},
        {"gw-o-1", {{"PK1", "gw-o-1"}, {{"customer", "windmill"}}}},
        {"safe-1", {{"PK-SAFE", "safe-1"}, {{"zone", "vault"}}}},
        {"safe-2", {{"PK-SAFE", "safe-2"}, {}}},
    };
    // who, device (* is every device), service (- is the device as such), verb, answer
    std::istringstream table(R"(
        anna  gw-b-1 -    list    support-shell:28800
        anna  gw-b-1 ssh_localhost list    support-shell:28800
        anna  gw-b-1 ssh_localhost connect support-shell:28800
        ben   gw-b-1 http_80       connect support-shell:28800
        anna  gw-b-1 telnet        connect unknown
        anna  gw-b-1 -    verify  support-shell:28800
        anna  gw-b-1 -    close   denied
        anna  gw-b-1 ssh_localhost close   denied
        anna  gw-b-1 -    manage  denied
        anna  gw-m-1 -    list    unknown
        anna  gw-m-1 ssh_localhost connect unknown
        anna  safe-1 -    list    vault-recorded
        anna  safe-1 ssh_localhost connect denied:vault-recorded
        anna  safe-1 http_80       connect unknown
        anna  safe-2 -    list    unknown
        anna  *      -    manage  denied
        carl  gw-o-1 telnet        connect on-call:7200
        carl  gw-o-1 -    open    on-call:7200
        carl  gw-o-1 -    manage  denied
        carl  *      -    open    on-call:7200
        carl  *      -    manage  denied
        carl  safe-1 ssh_localhost connect denied:vault-recorded
        carl  safe-1 ssh_localhost close   on-call:7200
        carl  safe-1 http_80       connect on-call:7200
        carl  safe-2 ssh_localhost connect on-call:7200
        mill  gw-m-1 http_80       connect own-devices
        mill  gw-m-1 http_80       close   own-devices
        mill  gw-m-1 ssh_localhost connect unknown
        mill  gw-m-1 -    verify  denied
        mill  gw-b-2 -    list    own-devices
        mill  gw-b-1 -    list    unknown
        mill  gw-o-1 http_80       connect unknown
        audit gw-b-1 -    list    see-all
        audit safe-1 ssh_localhost list    see-all
        audit safe-1 ssh_localhost connect denied
        audit gw-m-1 -    open    denied
        eve   gw-b-1 -    list    unknown
        eve   *      -    list    denied
    )");
    const PolicyPtr policy = parsePolicy(exampleText());
    std::string who;
    std::string name;
    std::string service;
    std::string verb;
    std::string answer;
    while (table >> who >> name >> service >> verb >> answer) {
        TARGET_T target;
        if (name != "*") target = {&devices.at(name).key, &devices.at(name).labels, {}};
        if (service != "-") target.service = service;
        const DECISION_T decision =
            decide(policy.get(), personNamed(who), findRight(verb).value(), target);
        const std::string row = who + " " + name + " " + service + " " + verb;
        EXPECT_EQ(summaryOf(decision), answer) << row;
        EXPECT_EQ(decision.reason.empty(), decision.isAllowed()) << row;
    }
}

TEST(Policy, GivesTheReasonOfADenial)
{
    const PolicyPtr policy = parsePolicy(exampleText());
    const DEVICE_T safe{{"PK-SAFE", "safe-1"}, {{"zone", "vault"}}};
    const auto reasonOf = [&](const PRINCIPAL_T &who, RIGHT right, const TARGET_T &target) {
        return decide(policy.get(), who, right, target).reason;
    };
    const TARGET_T shell{&safe.key, &safe.labels, "ssh_1"};
    EXPECT_EQ(reasonOf(personNamed("anna"), RIGHT::CONNECT, shell),
              "safe-1/ssh_1 is recorded: it is reached through the console only");
    EXPECT_EQ(reasonOf(personNamed("audit"), RIGHT::CONNECT, shell),
              "no grant allows connect to safe-1/ssh_1");
    EXPECT_EQ(reasonOf(personNamed("audit"), RIGHT::MANAGE, {}),
              "no grant allows manage of every device");
    EXPECT_EQ(reasonOf(personNamed("eve"), RIGHT::LIST, shell), "no operator is named \"eve\"");
    EXPECT_EQ(reasonOf(personNamed("carl"), RIGHT::CONNECT,
                       {&safe.key, &safe.labels, std::string_view("http\0x", 6)}),
              std::string("no grant allows connect to safe-1/http\0x", 40));
    const PRINCIPAL_T port = personNamed("carl", DOOR::FORWARDED_PORT);
    EXPECT_EQ(reasonOf(port, RIGHT::CLOSE, shell), "a forwarded port is for connecting only");
}

TEST(Policy, WithoutAFileEverythingIsAllowedButForwardedPortsOnlyConnect)
{
    const DEVICE_KEY_T device{"PK1", "gw-1"};
    for (std::size_t i = 0; i < RIGHT_COUNT; i++) {
        const auto right = static_cast<RIGHT>(i);
        EXPECT_TRUE(decide(nullptr, {}, right, {&device, nullptr, {}}).isAllowed());
        EXPECT_EQ(
            decide(nullptr, personNamed("", DOOR::FORWARDED_PORT), right, {&device, nullptr, {}})
                .isAllowed(),
            right == RIGHT::CONNECT);
        EXPECT_EQ(findRight(rightName(right)), right);
    }
}

TEST(Policy, FindsTheOperatorBehindAProof)
{
    const PolicyPtr policy = parsePolicy(exampleText());
    const auto nameOf = [](const std::optional<PROVED_T> &proved) {
        return proved ? proved->operator_name + "/" + proved->token : "nobody";
    };
    EXPECT_EQ(nameOf(operatorOfAccount(*policy, "carl")), "carl/");
    EXPECT_EQ(nameOf(operatorOfAccount(*policy, "ben")), "nobody");
    EXPECT_EQ(nameOf(operatorOfAccount(*policy, "")), "nobody");

    const std::string email = "anna@example.com";
    EXPECT_EQ(nameOf(operatorOfCertificate(*policy, {"other", email, email})), "anna/");
    EXPECT_EQ(nameOf(operatorOfCertificate(*policy, {email, "audit.example.com"})), "nobody");
    EXPECT_EQ(nameOf(operatorOfCertificate(*policy, {"Anna@example.com", "anna"})), "nobody");

    const FILE_TOKEN_T token = fileTokens(*policy).at(0);
    EXPECT_EQ(token.expires, 2145916800); // date -d 2038-01-01T00:00:00Z +%s
    const json entry = json::parse(exampleText())["operators"][1]["tokens"][0];
    SHA256_T hash = hashFrom(entry["sha256"].get<std::string>());
    EXPECT_EQ(nameOf(operatorOfToken(*policy, hash, token.expires - 1)),
              "ben/operators.json:88d4266fd4e6338d");
    EXPECT_EQ(nameOf(operatorOfToken(*policy, hash, token.expires)), "nobody");
    hash.back() ^= 1;
    EXPECT_EQ(nameOf(operatorOfToken(*policy, hash, 0)), "nobody");
}

TEST(Policy, CollectsTheSshAccountsOfTheGrantsThatAllowTheConnection)
{
    const PolicyPtr policy = parsePolicy(R"({"operators": [{"name": "a"}],
        "device_groups": {"safe": {"names": ["safe-*"]}}, "grants": [
        {"name": "1", "who": ["a"], "devices": ["*"], "services": ["ssh_*"], "verbs": ["connect"],
         "ssh_accounts": ["support", "www-data"]},
        {"name": "2", "who": ["a"], "devices": ["*"], "services": ["ssh_2"], "verbs": ["connect"],
         "ssh_accounts": ["root", "support"]},
        {"name": "3", "who": ["a"], "devices": ["safe"], "services": ["*"], "verbs": ["connect"],
         "record": true}]})");
    const DEVICE_KEY_T open{"PK1", "gw-1"};
    const DEVICE_KEY_T safe{"PK1", "safe-1"};
    const auto accounts = [&policy](const DEVICE_KEY_T &device, std::string_view service) {
        return sshAccounts(*policy, personNamed("a"), {&device, nullptr, service});
    };
    EXPECT_THAT(accounts(open, "ssh_1"), ElementsAre("support", "www-data"));
    EXPECT_THAT(accounts(open, "ssh_2"), ElementsAre("support", "www-data", "root"));
    EXPECT_THAT(accounts(open, "http"), ElementsAre());
    EXPECT_THAT(accounts(safe, "ssh_2"), ElementsAre());
}

TEST(Policy, NamesThePlaceOfAFault)
{
    struct ROW_T {
        const char *place; // what of the example is replaced
        std::string value;
        const char *fault;
    };
    const std::string longest(64, 'n');
    const std::vector<ROW_T> rows{
        {"/operatorz", "[]", "no member is named \"operatorz\""},
        {"/operators", "{}", "operators: must be an array"},
        {"/operators/0", "3", "operators[0]: must be an object"},
        {"/operators/0/token", "[]", "operators[0]: no member is named \"token\""},
        {"/operators/0/name", "7", "operators[0].name: must be a text"},
        {"/operators/0/name", R"("")", "operators[0].name: must have 1 to 64 bytes"},
        {"/operators/0/name", '"' + longest + "n\"", "operators[0].name: must have 1 to 64 bytes"},
        {"/operators/0/name", R"("a\nb")", "operators[0].name: holds a control character"},
        {"/operators/0/name", R"("a\"b")",
         "operators[0].name: holds a quote, backslash or control character"},
        {"/operators/0/name", R"("anna ")", "operators[0].name: begins or ends with a space"},
        {"/operators/1/name", R"("anna")", "operators[1].name: another operator is named \"anna\""},
        {"/operators/1/accounts", R"(["ben", "anna"])",
         "operators[1].accounts[1]: is of \"anna\" already"},
        {"/operators/1/certificates", R"(["anna@example.com"])",
         "operators[1].certificates[0]: is of \"anna\" already"},
        {"/operators/1/tokens/0/expires", R"("2027-02-29T00:00:00Z")",
         R"(operators[1].tokens[0].expires: must be a time in UTC, as "2027-03-01T00:00:00Z")"},
        {"/operators/1/tokens/0/expires", R"("2027-03-01T24:00:00Z")", "must be a time in UTC"},
        {"/operators/1/tokens/0/expires", R"("2027-03-01T00:00:00+01:00")", "must be a time in"},
        {"/operators/1/tokens/0/expires", R"("2027-03-01 00:00:00Z")", "must be a time in UTC"},
        {"/operators/1/tokens/0/expires", "1800000000", "expires: must be a text"},
        {"/operators/1/tokens/0", R"({"label": "x", "sha256": ")" + std::string(64, '0') + "\"}",
         "operators[1].tokens[0].expires: is missing"},
        {"/operators/1/tokens/0/sha256", '"' + std::string(63, '0') + '"',
         "sha256: must be 64 hexadecimal digits"},
        {"/operators/1/tokens/0/sha256", '"' + std::string(63, '0') + "x\"", "must be 64 hexadec"},
        {"/operators/1/tokens/0/sha256", '"' + std::string(62, '0') + "-1\"", "must be 64 hexade"},
        {"/operators/1/tokens/0/sha256",
         R"("5c0e3a1fbf2c7b6a8f1d9e4b3a2c1d0e9f8a7b6c5d4e3f2a1b0c9d8e7f6a5b4c")",
         "operators[3].tokens[0].sha256: is of \"ben\" already"},
        {"/operator_groups/anna", "[]", "operator_groups[\"anna\"]: an operator has this name"},
        {"/operator_groups/support", R"(["anna", "on-call"])",
         "operator_groups[\"support\"][1]: no operator is named \"on-call\""},
        {"/device_groups/*", "{}", "device_groups[\"*\"]: \"*\" means every device"},
        {"/device_groups/mill/name", "[]", "device_groups[\"mill\"]: no member is named \"name\""},
        {"/device_groups/mill/names", "[]",
         "device_groups[\"mill\"].names: must have 1 to 1000 entries"},
        {"/device_groups/mill/names", '"' + longest + '"', ".names: must be an array"},
        {"/device_groups/mill/labels", "{}", ".labels: must have at least one member"},
        {"/device_groups/mill/labels/zone", "[]", ".labels[\"zone\"]: must be a text"},
        {"/grants/2/who/0", R"("x")", "grants[2].who[0]: no operator or group is named \"x\""},
        {"/grants/2/devices/0", R"("gw-1")",
         "grants[2].devices[0]: no device group is named \"gw-1\""},
        {"/grants/2/services", R"([")" + std::string(256, '*') + "\"]",
         "grants[2].services[0]: must have 1 to 255 bytes"},
        {"/grants/2/verbs/0", R"("shell")", "grants[2].verbs[0]: no verb is named \"shell\""},
        {"/grants/2/verbs", "[]", "grants[2].verbs: must have 1 to 6 entries"},
        {"/grants/2/name", R"("see-all")", "grants[4].name: another grant is named \"see-all\""},
        {"/grants/2/max_sesion", R"("1h")", "grants[2]: no member is named \"max_sesion\""},
        {"/grants/2/max_session", R"("0s")", "grants[2].max_session: must be 1s to 366d"},
        {"/grants/2/max_session", R"("367d")", "grants[2].max_session: must be 1s to 366d"},
        {"/grants/2/max_session", R"("9223372036854775807d")", ".max_session: must be 1s to 366d"},
        {"/grants/2/max_session", R"("-1h")", ".max_session: must be a number with s, m, h or d"},
        {"/grants/2/max_session", R"("8")", ".max_session: must be a number with s, m, h or d"},
        {"/grants/2/max_session", R"("h")", ".max_session: must be a number with s, m, h or d"},
        {"/grants/2/max_session", R"("8 h")", ".max_session: must be a number with s, m, h or d"},
        {"/grants/2/record", R"("true")", "grants[2].record: must be true or false"},
        {"/grants/4/record", "true", "grants[4].record: has no effect without the verb"},
        {"/grants/4/max_session", R"("1h")", "grants[4].max_session: has no effect without"},
        {"/grants/4/ssh_accounts", R"(["root"])", "grants[4].ssh_accounts: has no effect without"},
        {"/grants/0/ssh_accounts", R"(["a", "root@gw-2,b"])", "grants[0].ssh_accounts[1]: must be"},
        {"/grants/0/ssh_accounts", R"(["-l"])", "grants[0].ssh_accounts[0]: must be letters"},
        {"/grants/0/ssh_accounts", R"(["../x"])", "grants[0].ssh_accounts[0]: must be letters"},
    };
    const json example = json::parse(exampleText());
    ASSERT_EQ(faultOf(example.dump()), "accepted");
    for (const ROW_T &row : rows) {
        json file = example;
        file[json::json_pointer(row.place)] = json::parse(row.value);
        EXPECT_THAT(faultOf(file.dump()), HasSubstr(row.fault)) << row.place << " " << row.value;
    }
}

TEST(Policy, RefusesWhatIsNoJsonObjectOrNamesAMemberTwice)
{
    EXPECT_THAT(faultOf(""), HasSubstr("parse error"));
    EXPECT_THAT(faultOf("{\"operators\": ["), HasSubstr("parse error"));
    EXPECT_THAT(faultOf("{\"operators\": [\"\xff\"]}"), HasSubstr("invalid string"));
    EXPECT_THAT(faultOf("[1e999]"), HasSubstr("number overflow"));
    EXPECT_EQ(faultOf("[]"), "must be an object");
    EXPECT_EQ(faultOf(R"({"operators": []})"), "grants: is missing");
    EXPECT_EQ(faultOf(R"({"operators": [], "grants": [], "grants": []})"),
              "grants: stands there twice");
    EXPECT_EQ(faultOf(R"({"operators": [{}, {"name": "a", "accounts": ["b"], "name": "c"}]})"),
              "operators[1].name: stands there twice");
    EXPECT_THAT(faultOf(std::string(1000000, '[')), HasSubstr(": is nested too deep"));
}

// What one decision looks at is bounded, since it is made for each device of a list.
TEST(Policy, BoundsTheGrantsOfAnOperator)
{
    json file = {{"operators", {{{"name", "a"}}}}, {"grants", json::array()}};
    for (int i = 0; i < 1000; i++) {
        file["grants"].push_back({{"name", std::to_string(i)},
                                  {"who", {"a", "a"}},
                                  {"devices", {"*"}},
                                  {"services", json::array()},
                                  {"verbs", {"list"}}});
    }
    EXPECT_EQ(faultOf(file.dump()), "accepted");
    file["grants"].push_back(file["grants"][0]);
    file["grants"].back()["name"] = "1000";
    EXPECT_EQ(faultOf(file.dump()), "grants[1000].who[0]: more than 1000 grants are for \"a\"");
}

// ---- the file itself

class PolicyFile : public testing::Test {
protected:
    PolicyFile()
    {
        std::string folder = testing::TempDir() + "policyXXXXXX";
        folder_ = mkdtemp(folder.data());
        path = folder_ + "/operators.json";
    }
    ~PolicyFile() override
    {
        std::filesystem::remove_all(folder_);
    }

    // What the administrator is told, or why it is refused.
    std::string load(const std::string &text, mode_t mode)
    {
        std::ofstream(path) << text;
        EXPECT_EQ(chmod(path.c_str(), mode), 0);
        return loadAsItIs();
    }

    std::string loadAsItIs() const
    {
        std::vector<std::string> warnings;
        try {
            (void)loadPolicy(path, warnings);
        } catch (const std::runtime_error &fault) {
            return std::string("refused: ") + fault.what();
        }
        std::string all;
        for (const std::string &warning : warnings)
            all += warning.substr(path.size()) + "\n";
        return all;
    }

    std::string path;

private:
    std::string folder_;
};

TEST_F(PolicyFile, WarnsOfWhatIsProbablyAMistake)
{
    EXPECT_EQ(load(exampleText(), 0640), "");
    EXPECT_EQ(load(exampleText(), 0644), ": says who may do what, and can be read by everybody\n");
    EXPECT_EQ(load(R"({"operators": [], "grants": []})", 0600),
              ": names no operator, so nobody may do anything\n");
    json file = json::parse(exampleText());
    file["operators"][1]["tokens"][0]["expires"] = "2020-01-01T00:00:00Z";
    file["operators"][2].erase("accounts");
    file["operator_groups"]["on-call"] = json::array();
    file["grants"][4]["devices"] = json::array();
    EXPECT_EQ(load(file.dump(), 0600), ": token \"laptop\" of \"ben\" has expired\n"
                                       ": \"carl\" has no account, certificate or token\n"
                                       ": grant \"on-call\" is for nobody\n"
                                       ": grant \"see-all\" covers no device\n");
    for (int i = 0; i < 30; i++)
        file["operators"].push_back({{"name", "n" + std::to_string(i)}});
    EXPECT_THAT(load(file.dump(), 0600), HasSubstr("\n: 14 more of this kind\n"));
}

TEST_F(PolicyFile, IsRefusedWhenItCannotBeTrustedOrRead)
{
    EXPECT_EQ(loadAsItIs(), "refused: " + path + ": No such file or directory");
    EXPECT_EQ(load(exampleText(), 0602), "refused: " + path + ": can be written by everybody");
    EXPECT_EQ(load("{}", 0600), "refused: " + path + ": operators: is missing");
    std::filesystem::resize_file(path, (16U << 20) + 1);
    EXPECT_EQ(loadAsItIs(), "refused: " + path + ": is larger than 16 MiB");
    std::filesystem::remove(path);
    ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
    EXPECT_EQ(loadAsItIs(), "refused: " + path + ": is no regular file");
}

// ---- against the plain evaluator

namespace {

// Random policies, made of so few names and patterns that grants often meet.
class DICE_T {
public:
    explicit DICE_T(unsigned seed) : engine_(seed) {}

    bool isOneIn(std::size_t n)
    {
        return below(n) == 0;
    }

    std::size_t below(std::size_t n)
    {
        return std::uniform_int_distribution<std::size_t>(0, n - 1)(engine_);
    }

    template <std::size_t N> std::string pick(const std::array<const char *, N> &from)
    {
        return from.at(below(N));
    }

    // Between least and 3 of them.
    template <std::size_t N> json some(const std::array<const char *, N> &from, std::size_t least)
    {
        json list = json::array();
        for (std::size_t count = least + below(4 - least); count > 0; count--)
            list.push_back(pick(from));
        return list;
    }

private:
    std::mt19937 engine_;
};

constexpr std::array PEOPLE{"a", "b", "c"};
constexpr std::array WHO{"a", "b", "c", "g1", "g2"};
constexpr std::array DEVICE_GROUPS{"d1", "d2", "d3", "*"};
constexpr std::array PRODUCT_PATTERNS{"P1", "P*", "P2", "?2", "*"};
constexpr std::array NAME_PATTERNS{"x1", "x*", "*1", "[xy]2", "\\x1",
                                   "y?", "*",  "[",  "x[!1]", "*y*"};
constexpr std::array SERVICE_PATTERNS{"ssh", "s*", "http", "*", "???", "*s*h*"};
constexpr std::array DURATIONS{"1s", "90s", "2m", "1h", "2d"};
constexpr std::array PRODUCTS{"P1", "P2"};
constexpr std::array DEVICES{"x1", "x2", "y1", "y2", "xy2", "["};
constexpr std::array SERVICES{"", "ssh", "http", "shh"};
constexpr std::array LABEL_NAMES{"k", "l"};
constexpr std::array LABEL_VALUES{"u", "v"};
constexpr std::array LABEL_PATTERNS{"u", "*", "v", "?"};
constexpr std::array VERBS{"list", "connect", "verify", "close", "open", "manage"};
constexpr std::array SSH_ACCOUNTS{"root", "support", "www"};

json randomGroup(DICE_T &dice)
{
    json group = json::object();
    if (dice.isOneIn(3)) group["products"] = dice.some(PRODUCT_PATTERNS, 1);
    if (dice.isOneIn(2)) group["names"] = dice.some(NAME_PATTERNS, 1);
    if (dice.isOneIn(4)) group["labels"][dice.pick(LABEL_NAMES)] = dice.pick(LABEL_PATTERNS);
    return group;
}

json randomPolicy(DICE_T &dice)
{
    json file = {{"operators", json::array()}, {"grants", json::array()}};
    for (const char *name : PEOPLE)
        file["operators"].push_back({{"name", name}});
    for (const char *name : {"g1", "g2"})
        file["operator_groups"][name] = dice.some(PEOPLE, 0);
    for (const char *name : {"d1", "d2", "d3"})
        file["device_groups"][name] = randomGroup(dice);
    for (std::size_t i = dice.below(6); i > 0; i--) {
        json grant = {{"name", "grant" + std::to_string(i)},
                      {"who", dice.some(WHO, 0)},
                      {"devices", dice.some(DEVICE_GROUPS, 0)},
                      {"services", dice.some(SERVICE_PATTERNS, 0)},
                      {"verbs", dice.some(VERBS, 1)}};
        if (grant["verbs"].dump().find("connect") != std::string::npos) {
            if (dice.isOneIn(2)) grant["max_session"] = dice.pick(DURATIONS);
            if (dice.isOneIn(4)) grant["record"] = !dice.isOneIn(4);
            grant["ssh_accounts"] = dice.some(SSH_ACCOUNTS, 0);
        }
        file["grants"].push_back(grant);
    }
    return file;
}

std::string labelsText(const Labels &labels)
{
    std::string text;
    for (const auto &[name, value] : labels)
        text.append(name).append("=").append(value).append(" ");
    return text;
}

} // namespace

TEST(Policy, AgreesWithThePlainEvaluator)
{
    constexpr unsigned SEED = 20261123;
    DICE_T dice(SEED);
    std::map<VERDICT, int> verdicts;
    for (int round = 0; round < 400; round++) {
        const json file = randomPolicy(dice);
        const PolicyPtr policy = parsePolicy(file.dump());
        for (int i = 0; i < 30; i++) {
            const DEVICE_KEY_T device{dice.pick(PRODUCTS), dice.pick(DEVICES)};
            Labels labels;
            if (dice.isOneIn(2)) labels.add(dice.pick(LABEL_NAMES), dice.pick(LABEL_VALUES));
            const std::string service = dice.pick(SERVICES);
            const TARGET_T target{dice.isOneIn(10) ? nullptr : &device,
                                  dice.isOneIn(4) ? nullptr : &labels, service};
            const PRINCIPAL_T who = personNamed(dice.isOneIn(20) ? "nobody" : dice.pick(PEOPLE),
                                                dice.isOneIn(9) ? DOOR::FORWARDED_PORT : DOOR::API);
            const RIGHT right =
                dice.isOneIn(2) ? RIGHT::CONNECT : findRight(dice.pick(VERBS)).value();
            const DECISION_T decision = decide(policy.get(), who, right, target);
            verdicts[decision.verdict]++;
            const std::string plain = summaryOf(plainDecision(file, who, right, target));
            ASSERT_EQ(summaryOf(decision), plain)
                << "seed " << SEED << ", round " << round << ": " << who.name << " "
                << rightName(right) << " " << device.product_key << ":" << device.device_name << "/"
                << service << " " << labelsText(labels) << " in " << file.dump(1);
            ASSERT_EQ(sshAccounts(*policy, who, target), plainSshAccounts(file, who, target))
                << "seed " << SEED << ", round " << round << ": " << file.dump(1);
        }
    }
    for (const auto &[verdict, count] : verdicts)
        EXPECT_GT(count, 500) << static_cast<int>(verdict);
}
