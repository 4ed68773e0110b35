// The labels of a device: few short texts by short names, which groups of devices are made of. One
// buffer holds them all, because a hundred thousand devices have some.
// Limits  names and values hold no NUL; a look-up compares with each name.
// Threads no state.
#pragma once

#include <cstddef>
#include <initializer_list>
#include <iterator>
#include <string>
#include <string_view>
#include <utility>

namespace backend {

constexpr std::size_t DEVICE_LABELS_MAX = 16; // of a device
constexpr std::size_t LABEL_NAME_MAX = 64;
constexpr std::size_t LABEL_VALUE_MAX = 255;

class Labels {
public:
    // Name and value. A NUL stands behind each, so that data() is a text for the C library, too.
    using value_type = std::pair<std::string_view, std::string_view>;

    class ConstIterator {
    public:
        // Names that the standard library looks for.
        // NOLINTBEGIN(readability-identifier-naming)
        using iterator_category = std::input_iterator_tag;
        using value_type = Labels::value_type;
        using difference_type = std::ptrdiff_t;
        using pointer = const value_type *;
        using reference = const value_type &;
        // NOLINTEND(readability-identifier-naming)

        ConstIterator() = default;
        explicit ConstIterator(std::string_view rest) : rest_(rest)
        {
            take();
        }
        reference operator*() const
        {
            return label_;
        }
        pointer operator->() const
        {
            return &label_;
        }
        ConstIterator &operator++()
        {
            rest_.remove_prefix(label_.first.size() + label_.second.size() + 2);
            take();
            return *this;
        }
        ConstIterator operator++(int) // NOLINT(cert-dcl21-cpp): as iterators are
        {
            const ConstIterator before = *this;
            ++*this;
            return before;
        }
        bool operator==(const ConstIterator &other) const
        {
            return rest_.size() == other.rest_.size();
        }

    private:
        void take()
        {
            if (rest_.empty()) return;
            const std::size_t name = rest_.find('\0');
            label_.first = rest_.substr(0, name);
            label_.second = rest_.substr(name + 1, rest_.find('\0', name + 1) - name - 1);
        }
        std::string_view rest_;
        value_type label_;
    };

    Labels() = default;
    Labels(std::initializer_list<value_type> labels)
    {
        for (const auto &[name, value] : labels)
            add(name, value);
    }
    // False when there is one of this name.
    bool add(std::string_view name, std::string_view value)
    {
        if (find(name) != end()) return false;
        std::string text; // no larger than it has to be
        text.reserve(text_.size() + name.size() + value.size() + 2);
        text.append(text_).append(name).append(1, '\0').append(value).append(1, '\0');
        text_ = std::move(text);
        return true;
    }
    [[nodiscard]] ConstIterator find(std::string_view name) const
    {
        auto label = begin();
        while (label != end() && label->first != name)
            ++label;
        return label;
    }
    [[nodiscard]] ConstIterator begin() const
    {
        return ConstIterator(text_);
    }
    // NOLINTNEXTLINE(readability-convert-member-functions-to-static): as containers are
    [[nodiscard]] ConstIterator end() const
    {
        return {};
    }
    [[nodiscard]] bool empty() const
    {
        return text_.empty();
    }
    [[nodiscard]] std::size_t size() const
    {
        return static_cast<std::size_t>(std::distance(begin(), end()));
    }
    bool operator==(const Labels &) const = default;

private:
    std::string text_; // name, NUL, value, NUL, and so on
};

} // namespace backend
