#include "backend/devices/registry_reader.h"

#include "backend/devices/protocol.h"
#include "backend/utc_time.h"

#include <array>
#include <optional>
#include <set>
#include <stdexcept>
#include <string>

#include <nlohmann/json.hpp>

namespace backend {

using nlohmann::json;

constexpr std::size_t DEPTH_MAX = 64; // of what is ignored, too
// How deep the text is nested within each.
constexpr std::size_t IN_ROOT = 1;
constexpr std::size_t IN_LIST = 2;
constexpr std::size_t IN_DEVICE = 3;
constexpr std::size_t IN_LABELS = 4;

constexpr char NOT_ROOT[] = "must be an object with the array \"devices\"";

struct TEXT_MEMBER_T {
    const char *name;
    std::size_t limit;
    bool is_required;
};

enum TEXT_MEMBER : std::size_t { PRODUCT, NAME, SECRET, OLD_SECRET, OLD_UNTIL, TEXT_MEMBERS };

constexpr std::array<TEXT_MEMBER_T, TEXT_MEMBERS> MEMBERS{{
    {"product_key", DEVICE_NAME_MAX, true},
    {"device_name", DEVICE_NAME_MAX, true},
    {"device_secret", SECRET_MAX_BYTES, true},
    {"old_secret", SECRET_MAX_BYTES, false},
    {"old_secret_until", 63, false},
}};
constexpr std::string_view LABELS = "labels";
constexpr std::string_view DEVICES = "devices";

// What the library calls for each part of the text, in its names. All return true: go on.
// NOLINTBEGIN(readability-identifier-naming)
class RegistryReader {
public:
    std::deque<REGISTERED_T> devices;
    bool has_list = false;

    bool null()
    {
        return value();
    }
    bool boolean(bool /*value*/)
    {
        return value();
    }
    bool number_integer(json::number_integer_t /*value*/)
    {
        return value();
    }
    bool number_unsigned(json::number_unsigned_t /*value*/)
    {
        return value();
    }
    bool number_float(json::number_float_t /*value*/, const std::string & /*text*/)
    {
        return value();
    }
    bool binary(json::binary_t & /*value*/)
    {
        return value();
    }
    bool string(std::string &text)
    {
        if (in_labels()) {
            takeLabel(text);
        } else if (in_device() && member_) {
            texts_[*member_] = checked(text, 1, MEMBERS[*member_].limit);
        } else {
            value();
        }
        return true;
    }
    bool start_object(std::size_t /*size*/)
    {
        const bool is_device = depth_ == IN_LIST && in_devices_;
        const bool is_labels = in_device() && key_ == LABELS;
        if (depth_ != 0 && !is_device && !is_labels) value();
        enter();
        in_labels_ |= is_labels;
        if (is_device) texts_ = {};
        if (is_device) labels_ = {};
        keys_[depth_].clear();
        return true;
    }
    bool key(std::string &name)
    {
        const bool is_new = keys_[depth_].insert(name).second;
        if (depth_ == IN_ROOT || in_device()) key_ = name;
        if (in_labels()) label_ = name;
        if (!is_new) throw std::runtime_error(place() + ": stands there twice");
        member_.reset();
        if (!in_device()) return true;
        for (std::size_t i = 0; i < MEMBERS.size(); i++)
            if (name == MEMBERS[i].name) member_ = i;
        return true;
    }
    bool end_object()
    {
        if (in_device()) takeDevice();
        if (in_labels()) in_labels_ = false;
        depth_--;
        return true;
    }
    bool start_array(std::size_t /*size*/)
    {
        const bool is_list = depth_ == IN_ROOT && key_ == DEVICES;
        if (!is_list) value();
        has_list |= is_list;
        in_devices_ |= is_list;
        enter();
        return true;
    }
    bool end_array()
    {
        depth_--;
        if (depth_ == IN_ROOT) in_devices_ = false;
        return true;
    }
    [[noreturn]] static bool parse_error(std::size_t /*position*/, const std::string & /*token*/,
                                         const json::exception &fault)
    {
        // The library puts its own name and number in brackets before the words and the place.
        const std::string_view words = fault.what();
        const std::size_t start = words.find("] ");
        throw std::runtime_error(
            std::string(start == std::string_view::npos ? words : words.substr(start + 2)));
    }

private:
    [[nodiscard]] bool in_device() const
    {
        return in_devices_ && depth_ == IN_DEVICE;
    }
    [[nodiscard]] bool in_labels() const
    {
        return in_labels_ && depth_ == IN_LABELS;
    }
    [[nodiscard]] std::string place() const
    {
        if (!in_devices_) return key_;
        std::string text = "devices[" + std::to_string(devices.size()) + "]";
        if (depth_ >= IN_DEVICE) text += "." + key_;
        if (in_labels()) text += "." + label_;
        return text;
    }
    void enter()
    {
        depth_++;
        if (depth_ > DEPTH_MAX) throw std::runtime_error(place() + ": is nested too deep");
    }
    // A value of another kind than is looked for, or one that is ignored.
    bool value()
    {
        if (depth_ == 0) throw std::runtime_error(NOT_ROOT);
        if (depth_ == IN_ROOT && key_ == DEVICES) throw std::runtime_error(NOT_ROOT);
        if (depth_ == IN_LIST && in_devices_)
            throw std::runtime_error(place() + ": must be an object");
        if (in_labels() || (in_device() && member_))
            throw std::runtime_error(place() + ": must be a text");
        if (in_device() && key_ == LABELS)
            throw std::runtime_error(place() + ": must be an object");
        return true;
    }
    [[nodiscard]] const std::string &checked(const std::string &text, std::size_t least,
                                             std::size_t limit) const
    {
        if (text.size() < least || text.size() > limit)
            throw std::runtime_error(place() + ": must have " + std::to_string(least) + " to " +
                                     std::to_string(limit) + " bytes");
        if (!isPlainText(text))
            throw std::runtime_error(place() + ": holds a quote, backslash or control character");
        return text;
    }
    void takeLabel(const std::string &value)
    {
        if (label_.empty() || label_.size() > LABEL_NAME_MAX || !isPlainText(label_))
            throw std::runtime_error(place() +
                                     ": the name of a label must be a plain text of 1 to " +
                                     std::to_string(LABEL_NAME_MAX) + " bytes");
        (void)labels_.add(label_, checked(value, 0, LABEL_VALUE_MAX));
        if (keys_[depth_].size() > DEVICE_LABELS_MAX)
            throw std::runtime_error(place() + ": more than " + std::to_string(DEVICE_LABELS_MAX) +
                                     " labels");
    }
    void takeDevice()
    {
        for (std::size_t i = 0; i < MEMBERS.size(); i++) {
            key_ = MEMBERS[i].name;
            if (MEMBERS[i].is_required && texts_[i].empty())
                throw std::runtime_error(place() + ": is missing");
        }
        devices.push_back({{texts_[PRODUCT], texts_[NAME]}, takeSecrets(), std::move(labels_)});
    }
    Secrets takeSecrets()
    {
        const bool has_old = !texts_[OLD_SECRET].empty();
        if (has_old == texts_[OLD_UNTIL].empty()) {
            key_ = MEMBERS[has_old ? OLD_UNTIL : OLD_SECRET].name;
            throw std::runtime_error(place() + ": is missing");
        }
        if (!has_old) return Secrets(texts_[SECRET]);
        const auto until = parseUtcTime(texts_[OLD_UNTIL]);
        key_ = MEMBERS[OLD_UNTIL].name;
        if (!until)
            throw std::runtime_error(place() + ": must be a time such as 2027-03-01T00:00:00Z");
        return Secrets(texts_[SECRET], texts_[OLD_SECRET], *until);
    }

    std::size_t depth_ = 0;
    bool in_devices_ = false;
    bool in_labels_ = false;
    std::string key_;                             // of the root or the device
    std::string label_;                           // the name
    std::optional<std::size_t> member_;           // of the device, that comes next
    std::array<std::string, TEXT_MEMBERS> texts_; // of the device; empty: not there
    Labels labels_;
    std::array<std::set<std::string>, DEPTH_MAX + 1> keys_; // of the object at each depth
};
// NOLINTEND(readability-identifier-naming)

std::deque<REGISTERED_T> readRegistered(std::string_view text)
{
    RegistryReader reader;
    (void)json::sax_parse(text, &reader); // faults throw
    if (!reader.has_list) throw std::runtime_error(NOT_ROOT);
    return std::move(reader.devices);
}

} // namespace backend
