#include "backend/config_file.h"
#include "backend/policy/policy.h"
#include "backend/policy/policy_data.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <ctime>
#include <span>
#include <stdexcept>

#include <nlohmann/json.hpp>

namespace backend {

using nlohmann::json;

namespace {

constexpr std::size_t NAME_MAX_BYTES = 64;
constexpr std::size_t TEXT_MAX_BYTES = 255;       // of a pattern, and of a certificate's name
constexpr std::size_t SSH_ACCOUNT_MAX_BYTES = 32; // a Unix account has no more
constexpr std::size_t OPERATORS_MAX = 10000;
constexpr std::size_t GROUPS_MAX = 10000;
constexpr std::size_t GRANTS_MAX = 10000;
constexpr std::size_t MEMBERS_MAX = 10000; // of a group of operators
constexpr std::size_t LIST_MAX = 1000;     // entries of any other list
constexpr std::size_t TOKENS_MAX = 64;     // of an operator
constexpr std::size_t LABELS_MAX = 64;     // of a group of devices
// A decision looks at each of them, and a list of devices is a decision for each device.
constexpr std::size_t GRANTS_EACH_MAX = 1000;
constexpr std::int64_t SESSION_MAX_S = std::int64_t{366} * 86400;
constexpr std::size_t WARNINGS_MAX = 20;

// A value, and where it stands, as "grants[2].who[0]".
struct NODE_T {
    const json *value = nullptr;
    std::string place;
};

using MemberNames = std::span<const std::string_view>;
constexpr std::array<std::string_view, 4> ROOT_MEMBERS{"operators", "operator_groups",
                                                       "device_groups", "grants"};
constexpr std::array<std::string_view, 4> OPERATOR_MEMBERS{"name", "accounts", "certificates",
                                                           "tokens"};
constexpr std::array<std::string_view, 3> TOKEN_MEMBERS{"label", "sha256", "expires"};
constexpr std::array<std::string_view, 3> DEVICE_GROUP_MEMBERS{"products", "names", "labels"};
constexpr std::array<std::string_view, 8> GRANT_MEMBERS{
    "name", "who", "devices", "services", "verbs", "max_session", "record", "ssh_accounts"};

// What is being built, and the names that are needed only until it is.
struct BUILDER_T {
    POLICY_T policy;
    std::unordered_map<std::string, std::vector<std::uint32_t>> operator_groups;
    std::unordered_map<std::string, std::uint32_t> device_groups;
    std::unordered_map<std::string, std::size_t> grant_names;
    std::unordered_map<std::string, std::uint32_t> token_owners; // by the hash's bytes
};

} // namespace

// ---- values

[[noreturn]] static void refuse(const std::string &place, const std::string &words)
{
    throw std::runtime_error(place.empty() ? words : place + ": " + words);
}

// A text of the file in a message: on one line, and not too long.
static std::string inQuotes(std::string_view text)
{
    return json(text.substr(0, NAME_MAX_BYTES)).dump(-1, ' ', true, json::error_handler_t::replace);
}

static std::string rangeText(std::size_t least, std::size_t most)
{
    return "must have " + std::to_string(least) + " to " + std::to_string(most);
}

static void requireObject(const NODE_T &node, MemberNames known)
{
    if (!node.value->is_object()) refuse(node.place, "must be an object");
    for (const auto &[name, value] : node.value->items()) {
        if (std::find(known.begin(), known.end(), name) == known.end())
            refuse(node.place, "no member is named " + inQuotes(name));
    }
}

// Its value is null when there is none.
static NODE_T findMember(const NODE_T &object, const char *name)
{
    const auto found = object.value->find(name);
    return {found == object.value->end() ? nullptr : &*found,
            object.place.empty() ? name : object.place + "." + name};
}

static NODE_T memberOf(const NODE_T &object, const char *name)
{
    NODE_T member = findMember(object, name);
    if (member.value == nullptr) refuse(member.place, "is missing");
    return member;
}

static std::vector<NODE_T> entriesOf(const NODE_T &list, std::size_t least, std::size_t most)
{
    if (!list.value->is_array()) refuse(list.place, "must be an array");
    if (list.value->size() < least || list.value->size() > most)
        refuse(list.place, rangeText(least, most) + " entries");
    std::vector<NODE_T> entries;
    entries.reserve(list.value->size());
    for (const json &value : *list.value)
        entries.push_back({&value, list.place + "[" + std::to_string(entries.size()) + "]"});
    return entries;
}

static std::vector<NODE_T> entriesIfAny(const NODE_T &object, const char *name, std::size_t least,
                                        std::size_t most)
{
    const NODE_T list = findMember(object, name);
    return list.value == nullptr ? std::vector<NODE_T>{} : entriesOf(list, least, most);
}

static bool isControl(char byte)
{
    return static_cast<unsigned char>(byte) < ' ' || byte == '\x7f';
}

static const std::string &textOf(const NODE_T &node, std::size_t most)
{
    if (!node.value->is_string()) refuse(node.place, "must be a text");
    const std::string &text = node.value->get_ref<const std::string &>();
    if (text.empty() || text.size() > most) refuse(node.place, rangeText(1, most) + " bytes");
    if (std::any_of(text.begin(), text.end(), isControl))
        refuse(node.place, "holds a control character");
    return text;
}

// A name is compared as a whole: a space at its end would be a name that nobody sees.
static void requireName(const std::string &name, const std::string &place)
{
    if (name.empty() || name.size() > NAME_MAX_BYTES)
        refuse(place, rangeText(1, NAME_MAX_BYTES) + " bytes");
    const bool is_plain = std::none_of(name.begin(), name.end(), [](char byte) {
        return isControl(byte) || byte == '"' || byte == '\\';
    });
    if (!is_plain) refuse(place, "holds a quote, backslash or control character");
    if (name.front() == ' ' || name.back() == ' ') refuse(place, "begins or ends with a space");
}

static const std::string &nameOf(const NODE_T &node)
{
    const std::string &name = textOf(node, NAME_MAX_BYTES);
    requireName(name, node.place);
    return name;
}

static std::vector<PATTERN_T> patternsOf(const std::vector<NODE_T> &entries)
{
    std::vector<PATTERN_T> patterns;
    patterns.reserve(entries.size());
    for (const NODE_T &entry : entries)
        patterns.push_back(makePattern(textOf(entry, TEXT_MAX_BYTES)));
    return patterns;
}

static std::optional<std::int64_t> numberOf(std::string_view digits)
{
    std::int64_t number = 0;
    const auto [end, fault] = std::from_chars(digits.data(), digits.data() + digits.size(), number);
    if (fault != std::errc{} || end != digits.data() + digits.size() || number < 0)
        return std::nullopt;
    return number;
}

static std::chrono::seconds durationOf(const NODE_T &node)
{
    struct UNIT_T {
        char letter;
        std::int64_t seconds;
    };
    constexpr std::array<UNIT_T, 4> UNITS{{{'s', 1}, {'m', 60}, {'h', 3600}, {'d', 86400}}};
    const std::string_view text = textOf(node, NAME_MAX_BYTES);
    const auto count = numberOf(text.substr(0, text.size() - 1));
    const auto *unit = std::find_if(UNITS.begin(), UNITS.end(), [text](const UNIT_T &row) {
        return row.letter == text.back();
    });
    if (!count || unit == UNITS.end())
        refuse(node.place, R"(must be a number with s, m, h or d behind it, as "8h")");
    if (*count < 1 || *count > SESSION_MAX_S / unit->seconds)
        refuse(node.place, "must be 1s to 366d");
    return std::chrono::seconds{*count * unit->seconds};
}

// RFC 3339 in UTC, without fractions.
static std::optional<std::int64_t> parseTime(std::string_view text)
{
    constexpr std::string_view FORM = "0000-00-00T00:00:00Z";
    if (text.size() != FORM.size()) return std::nullopt;
    for (std::size_t i = 0; i < FORM.size(); i++) {
        const bool is_digit = text[i] >= '0' && text[i] <= '9';
        if (FORM[i] == '0' ? !is_digit : text[i] != FORM[i]) return std::nullopt;
    }
    const auto part = [text](std::size_t start, std::size_t size) {
        return static_cast<int>(numberOf(text.substr(start, size)).value_or(0));
    };
    const std::chrono::year_month_day day{std::chrono::year{part(0, 4)},
                                          std::chrono::month{static_cast<unsigned>(part(5, 2))},
                                          std::chrono::day{static_cast<unsigned>(part(8, 2))}};
    const int hour = part(11, 2);
    const int minute = part(14, 2);
    const int second = part(17, 2);
    if (!day.ok() || hour > 23 || minute > 59 || second > 59) return std::nullopt;
    const auto days = std::chrono::sys_days{day}.time_since_epoch().count();
    return std::int64_t{days} * 86400 + (hour * 60 + minute) * std::int64_t{60} + second;
}

static std::int64_t timeOf(const NODE_T &node)
{
    const auto time = parseTime(textOf(node, NAME_MAX_BYTES));
    if (!time) refuse(node.place, R"(must be a time in UTC, as "2027-03-01T00:00:00Z")");
    return *time;
}

static SHA256_T hashOf(const NODE_T &node)
{
    const std::string &text = textOf(node, TEXT_MAX_BYTES);
    SHA256_T hash{};
    bool is_whole = text.size() == 2 * hash.size();
    for (std::size_t i = 0; is_whole && i < hash.size(); i++) {
        const char *start = text.data() + 2 * i;
        const auto [end, fault] = std::from_chars(start, start + 2, hash[i], 16);
        is_whole = fault == std::errc{} && end == start + 2;
    }
    if (!is_whole) refuse(node.place, "must be 64 hexadecimal digits");
    return hash;
}

// ---- operators

// A proof of two operators would prove neither.
static void addProof(BUILDER_T &builder, OPERATOR_INDEX_T &index, std::string text,
                     const std::string &place)
{
    const auto self = static_cast<std::uint32_t>(builder.policy.operators.size() - 1);
    const auto [entry, is_new] = index.emplace(std::move(text), self);
    if (!is_new)
        refuse(place,
               "is of " + inQuotes(builder.policy.operators[entry->second].name) + " already");
    builder.policy.operators.back().has_proof = true;
}

static void addToken(BUILDER_T &builder, const NODE_T &node)
{
    requireObject(node, TOKEN_MEMBERS);
    const auto owner = static_cast<std::uint32_t>(builder.policy.operators.size() - 1);
    const NODE_T label = memberOf(node, "label");
    const NODE_T sha256 = memberOf(node, "sha256");
    TOKEN_T token{hashOf(sha256), owner, nameOf(label), timeOf(memberOf(node, "expires"))};
    const auto &tokens = builder.policy.tokens;
    for (auto other = tokens.rbegin(); other != tokens.rend() && other->owner == owner; ++other) {
        if (other->label == token.label)
            refuse(label.place, "another token of this operator has this label");
    }
    const auto [entry, is_new] =
        builder.token_owners.emplace(std::string(token.hash.begin(), token.hash.end()), owner);
    if (!is_new) {
        refuse(sha256.place,
               "is of " + inQuotes(builder.policy.operators[entry->second].name) + " already");
    }
    builder.policy.operators.back().has_proof = true;
    builder.policy.tokens.push_back(std::move(token));
}

static void addOperator(BUILDER_T &builder, const NODE_T &node)
{
    requireObject(node, OPERATOR_MEMBERS);
    POLICY_T &policy = builder.policy;
    const NODE_T name = memberOf(node, "name");
    const auto index = static_cast<std::uint32_t>(policy.operators.size());
    if (!policy.names.emplace(nameOf(name), index).second)
        refuse(name.place, "another operator is named " + inQuotes(nameOf(name)));
    policy.operators.push_back({nameOf(name), {}, false});
    for (const NODE_T &account : entriesIfAny(node, "accounts", 0, LIST_MAX))
        addProof(builder, policy.accounts, nameOf(account), account.place);
    for (const NODE_T &certificate : entriesIfAny(node, "certificates", 0, LIST_MAX)) {
        addProof(builder, policy.certificates, textOf(certificate, TEXT_MAX_BYTES),
                 certificate.place);
    }
    for (const NODE_T &token : entriesIfAny(node, "tokens", 0, TOKENS_MAX))
        addToken(builder, token);
}

// ---- groups

// The members of an object whose names are the administrator's own.
static std::vector<std::pair<std::string, NODE_T>> namedMembers(const NODE_T &object,
                                                                std::size_t most)
{
    if (!object.value->is_object()) refuse(object.place, "must be an object");
    if (object.value->size() > most)
        refuse(object.place, "must have at most " + std::to_string(most) + " members");
    std::vector<std::pair<std::string, NODE_T>> members;
    for (const auto &[name, value] : object.value->items()) {
        std::string place = object.place + "[" + inQuotes(name) + "]";
        requireName(name, place);
        members.emplace_back(name, NODE_T{&value, std::move(place)});
    }
    return members;
}

static void addOperatorGroup(BUILDER_T &builder, const std::string &name, const NODE_T &node)
{
    if (builder.policy.names.contains(name))
        refuse(node.place, "an operator has this name already");
    std::vector<std::uint32_t> &members = builder.operator_groups[name];
    for (const NODE_T &entry : entriesOf(node, 0, MEMBERS_MAX)) {
        const auto found = builder.policy.names.find(nameOf(entry));
        if (found == builder.policy.names.end())
            refuse(entry.place, "no operator is named " + inQuotes(nameOf(entry)));
        members.push_back(found->second);
    }
}

static void addDeviceGroup(BUILDER_T &builder, const std::string &name, const NODE_T &node)
{
    requireObject(node, DEVICE_GROUP_MEMBERS);
    if (name == "*") refuse(node.place, "\"*\" means every device, and cannot be a group's name");
    DEVICE_GROUP_T group;
    group.products = patternsOf(entriesIfAny(node, "products", 1, LIST_MAX));
    group.names = patternsOf(entriesIfAny(node, "names", 1, LIST_MAX));
    if (const NODE_T labels = findMember(node, "labels"); labels.value != nullptr) {
        for (const auto &[label, value] : namedMembers(labels, LABELS_MAX))
            group.labels.emplace_back(label, makePattern(textOf(value, TEXT_MAX_BYTES)));
        if (group.labels.empty()) refuse(labels.place, "must have at least one member");
    }
    builder.device_groups.emplace(name,
                                  static_cast<std::uint32_t>(builder.policy.device_groups.size()));
    builder.policy.device_groups.push_back(std::move(group));
}

// ---- grants

static void giveGrant(BUILDER_T &builder, std::uint32_t operator_index, std::uint32_t grant_index,
                      const std::string &place)
{
    OPERATOR_T &person = builder.policy.operators[operator_index];
    if (!person.grants.empty() && person.grants.back() == grant_index) return;
    if (person.grants.size() == GRANTS_EACH_MAX) {
        refuse(place, "more than " + std::to_string(GRANTS_EACH_MAX) + " grants are for " +
                          inQuotes(person.name));
    }
    person.grants.push_back(grant_index);
}

static void giveGrantToAll(BUILDER_T &builder, const NODE_T &who, std::uint32_t grant_index)
{
    for (const NODE_T &entry : entriesOf(who, 0, LIST_MAX)) {
        const std::string &name = nameOf(entry);
        const auto group = builder.operator_groups.find(name);
        const auto person = builder.policy.names.find(name);
        if (group != builder.operator_groups.end()) {
            for (const std::uint32_t member : group->second)
                giveGrant(builder, member, grant_index, entry.place);
        } else if (person != builder.policy.names.end()) {
            giveGrant(builder, person->second, grant_index, entry.place);
        } else {
            refuse(entry.place, "no operator or group is named " + inQuotes(name));
        }
    }
}

static bool isEveryDevice(const DEVICE_GROUP_T &group)
{
    return group.products.empty() && group.names.empty() && group.labels.empty();
}

static void readDevices(const BUILDER_T &builder, const NODE_T &devices, GRANT_T &grant)
{
    for (const NODE_T &entry : entriesOf(devices, 0, LIST_MAX)) {
        const std::string &name = nameOf(entry);
        const auto group = builder.device_groups.find(name);
        if (name != "*" && group == builder.device_groups.end())
            refuse(entry.place, "no device group is named " + inQuotes(name));
        if (name == "*" || isEveryDevice(builder.policy.device_groups[group->second]))
            grant.covers_every_device = true;
        else
            grant.device_groups.push_back(group->second);
    }
    if (grant.covers_every_device) grant.device_groups.clear();
}

static void readVerbs(const NODE_T &verbs, GRANT_T &grant)
{
    for (const NODE_T &entry : entriesOf(verbs, 1, RIGHT_COUNT)) {
        const std::string &name = textOf(entry, NAME_MAX_BYTES);
        const auto right = findRight(name);
        if (!right) refuse(entry.place, "no verb is named " + inQuotes(name));
        grant.rights |= rightBit(*right);
    }
}

// The name becomes a certificate's principal, whose list has commas between.
static const std::string &sshAccountOf(const NODE_T &node)
{
    constexpr std::string_view LETTERS = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ_";
    constexpr std::string_view OTHERS = "0123456789-.";
    const std::string &name = textOf(node, SSH_ACCOUNT_MAX_BYTES);
    const bool is_plain = std::all_of(name.begin(), name.end(), [=](char byte) {
        return LETTERS.find(byte) != std::string_view::npos ||
               OTHERS.find(byte) != std::string_view::npos;
    });
    if (!is_plain || name.front() == '-' || name.front() == '.')
        refuse(node.place, "must be letters, digits, \"_\", \"-\" and \".\", none of the last two "
                           "in front");
    return name;
}

// A limit without the verb that it limits would be one that somebody relies on in vain.
static void requireConnect(const GRANT_T &grant, const NODE_T &member)
{
    if ((grant.rights & rightBit(RIGHT::CONNECT)) == 0)
        refuse(member.place, "has no effect without the verb \"connect\"");
}

static void readLimits(const NODE_T &node, GRANT_T &grant)
{
    if (const NODE_T max = findMember(node, "max_session"); max.value != nullptr) {
        grant.max_session = durationOf(max);
        requireConnect(grant, max);
    }
    if (const NODE_T record = findMember(node, "record"); record.value != nullptr) {
        if (!record.value->is_boolean()) refuse(record.place, "must be true or false");
        grant.is_recorded = record.value->get<bool>();
        if (grant.is_recorded) requireConnect(grant, record);
    }
    if (const NODE_T list = findMember(node, "ssh_accounts"); list.value != nullptr) {
        for (const NODE_T &entry : entriesOf(list, 0, LIST_MAX))
            grant.ssh_accounts.push_back(sshAccountOf(entry));
        if (!grant.ssh_accounts.empty()) requireConnect(grant, list);
    }
}

static void addGrant(BUILDER_T &builder, const NODE_T &node)
{
    requireObject(node, GRANT_MEMBERS);
    const auto index = static_cast<std::uint32_t>(builder.policy.grants.size());
    const NODE_T name = memberOf(node, "name");
    if (!builder.grant_names.emplace(nameOf(name), index).second)
        refuse(name.place, "another grant is named " + inQuotes(nameOf(name)));
    GRANT_T grant;
    grant.name = nameOf(name);
    giveGrantToAll(builder, memberOf(node, "who"), index);
    readDevices(builder, memberOf(node, "devices"), grant);
    grant.services = patternsOf(entriesOf(memberOf(node, "services"), 0, LIST_MAX));
    readVerbs(memberOf(node, "verbs"), grant);
    readLimits(node, grant);
    builder.policy.grants.push_back(std::move(grant));
}

// ---- the file

PolicyPtr parsePolicy(std::string_view text)
{
    const json value = parseConfig(text);
    const NODE_T root{&value, {}};
    requireObject(root, ROOT_MEMBERS);
    BUILDER_T builder;
    for (const NODE_T &entry : entriesOf(memberOf(root, "operators"), 0, OPERATORS_MAX))
        addOperator(builder, entry);
    if (const NODE_T groups = findMember(root, "operator_groups"); groups.value != nullptr)
        for (const auto &[name, node] : namedMembers(groups, GROUPS_MAX))
            addOperatorGroup(builder, name, node);
    if (const NODE_T groups = findMember(root, "device_groups"); groups.value != nullptr)
        for (const auto &[name, node] : namedMembers(groups, GROUPS_MAX))
            addDeviceGroup(builder, name, node);
    for (const NODE_T &entry : entriesOf(memberOf(root, "grants"), 0, GRANTS_MAX))
        addGrant(builder, entry);
    return std::make_shared<const POLICY_T>(std::move(builder.policy));
}

static std::vector<std::string> doubtsAbout(const POLICY_T &policy, std::int64_t now)
{
    std::vector<std::string> doubts;
    if (policy.operators.empty())
        doubts.emplace_back("names no operator, so nobody may do anything");
    for (const TOKEN_T &token : policy.tokens) {
        if (now >= token.expires) {
            doubts.push_back("token " + inQuotes(token.label) + " of " +
                             inQuotes(policy.operators[token.owner].name) + " has expired");
        }
    }
    std::vector<bool> is_given(policy.grants.size());
    for (const OPERATOR_T &person : policy.operators) {
        if (!person.has_proof)
            doubts.push_back(inQuotes(person.name) + " has no account, certificate or token");
        for (const std::uint32_t grant : person.grants)
            is_given[grant] = true;
    }
    for (std::size_t i = 0; i < policy.grants.size(); i++) {
        const GRANT_T &grant = policy.grants[i];
        if (!is_given[i]) doubts.push_back("grant " + inQuotes(grant.name) + " is for nobody");
        if (!grant.covers_every_device && grant.device_groups.empty())
            doubts.push_back("grant " + inQuotes(grant.name) + " covers no device");
    }
    return doubts;
}

PolicyPtr loadPolicy(const std::string &path, std::vector<std::string> &warnings)
{
    const std::string text =
        readConfigFile(path, "says who may do what, and can be read by everybody", warnings);
    try {
        PolicyPtr policy = parsePolicy(text);
        const std::vector<std::string> doubts = doubtsAbout(*policy, time(nullptr));
        for (std::size_t i = 0; i < std::min(doubts.size(), WARNINGS_MAX); i++)
            warnings.push_back(path + ": " + doubts[i]);
        if (doubts.size() > WARNINGS_MAX) {
            warnings.push_back(path + ": " + std::to_string(doubts.size() - WARNINGS_MAX) +
                               " more of this kind");
        }
        return policy;
    } catch (const std::exception &fault) {
        throw std::runtime_error(path + ": " + fault.what());
    }
}

} // namespace backend
