// Keeps its owner while an operation runs. One that is destroyed without having been released
// belongs to a handler that never ran, because memory ran out within a library, or because the
// io_context is gone: the owner cannot go on, and shut() is called, which must not throw.
#pragma once

#include <memory>
#include <utility>

namespace backend {

template <class Owner> class Kept {
public:
    explicit Kept(std::shared_ptr<Owner> owner) : owner_(std::move(owner)) {}
    Kept(Kept &&other) noexcept = default;
    Kept(const Kept &) = delete;
    Kept &operator=(Kept &&) = delete;
    Kept &operator=(const Kept &) = delete;
    ~Kept()
    {
        if (owner_) owner_->shut();
    }
    std::shared_ptr<Owner> release()
    {
        return std::move(owner_);
    }

private:
    std::shared_ptr<Owner> owner_;
};

} // namespace backend
