// Which of several flows sends next: deficit round robin, flows that send little first, as RFC 8290
// has it. A flow that was idle comes before those that always have something, for one quantum; so
// a keystroke does not wait behind 31 uploads, and nobody gains by pausing.
// Ownership  flows are the caller's and leave the queue before they go. Each has a FLOW_T `flow`.
// Threads    each is one thread's.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>

namespace keep {

struct FLOW_T {
    std::int64_t deficit = 0; // bytes that it may send in this turn
    bool is_queued = false;
};

template <class Owner> class FairQueue {
public:
    // It has something to send. No effect on one that is queued.
    void add(Owner &owner, std::size_t quantum)
    {
        if (owner.flow.is_queued) return;
        owner.flow = {static_cast<std::int64_t>(quantum), true};
        fresh_.push_back(&owner);
    }

    // Whose turn it is; null when nobody is queued.
    Owner *front(std::size_t quantum)
    {
        while (!fresh_.empty() || !others_.empty()) {
            Owner &owner = *head().front();
            if (owner.flow.deficit > 0) return &owner;
            owner.flow.deficit += static_cast<std::int64_t>(quantum);
            skip();
        }
        return nullptr;
    }

    // The front one has sent this much.
    void charge(std::size_t count)
    {
        head().front()->flow.deficit -= static_cast<std::int64_t>(count);
    }

    // The front one cannot send now, or has had its turn: behind all others.
    void skip()
    {
        Owner *const owner = head().front();
        head().pop_front();
        others_.push_back(owner);
    }

    // The front one has nothing more. A fresh one stays until the others have had their turn, so
    // that it does not come before them each time.
    void rest()
    {
        if (!fresh_.empty()) return skip();
        leave(*others_.front());
    }

    bool isFrontFresh() const
    {
        return !fresh_.empty();
    }
    std::size_t size() const
    {
        return fresh_.size() + others_.size();
    }

    void leave(Owner &owner)
    {
        if (!owner.flow.is_queued) return;
        std::erase(fresh_, &owner);
        std::erase(others_, &owner);
        owner.flow = {};
    }

private:
    std::deque<Owner *> &head()
    {
        return fresh_.empty() ? others_ : fresh_;
    }

    std::deque<Owner *> fresh_;
    std::deque<Owner *> others_;
};

} // namespace keep
