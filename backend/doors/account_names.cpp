#include "backend/doors/account_names.h"

#include <array>
#include <condition_variable>
#include <deque>
#include <map>
#include <mutex>
#include <new>
#include <pwd.h>
#include <set>
#include <thread>
#include <utility>
#include <vector>

#include <boost/asio/post.hpp>
#include <boost/asio/steady_timer.hpp>

namespace backend {

namespace asio = boost::asio;
using Clock = std::chrono::steady_clock;

constexpr std::size_t NAMES_MAX = 4096; // a machine with more accounts asks more often

struct NAME_T {
    std::string text;
    Clock::time_point known_since;
};

using Found = std::function<void(const std::string &name)>;

struct QUESTION_T {
    std::vector<Found> waiting;
    std::unique_ptr<asio::steady_timer> timer;
};

// What both threads use; the thread keeps it alive.
struct QUEUE_T {
    std::mutex mutex;
    std::condition_variable changed;
    std::deque<uid_t> asked;
    std::function<void(uid_t, std::string)> answer; // empty once stopped
};

struct ACCOUNT_NAMES_T {
    explicit ACCOUNT_NAMES_T(asio::io_context &context) : io(context) {}
    asio::io_context &io;
    std::map<uid_t, NAME_T> known;
    std::map<uid_t, QUESTION_T> open;
    std::set<uid_t> asked; // and not answered yet, perhaps long after somebody waited for it
    std::shared_ptr<QUEUE_T> queue = std::make_shared<QUEUE_T>();
};

static std::string numberText(uid_t uid)
{
    return "uid " + std::to_string(uid);
}

static std::string askSystem(uid_t uid)
{
    std::array<char, 16384> storage{};
    passwd entry{};
    passwd *found = nullptr;
    if (getpwuid_r(uid, &entry, storage.data(), storage.size(), &found) != 0 || found == nullptr)
        return numberText(uid);
    return entry.pw_name;
}

static void answerQuestions(const std::shared_ptr<QUEUE_T> &queue)
{
    for (;;) {
        std::unique_lock lock(queue->mutex);
        queue->changed.wait(lock, [&] { return !queue->asked.empty() || !queue->answer; });
        if (!queue->answer) return;
        const uid_t uid = queue->asked.front();
        queue->asked.pop_front();
        lock.unlock();
        try {
            std::string name = askSystem(uid);
            lock.lock();
            if (queue->answer) queue->answer(uid, std::move(name));
        } catch (const std::bad_alloc &) { // the number is taken after NAME_WAIT
        }
    }
}

static void settle(ACCOUNT_NAMES_T &names, uid_t uid, const std::string &name)
{
    const auto question = names.open.extract(uid);
    if (question.empty()) return;
    for (const Found &found : question.mapped().waiting)
        found(name);
}

std::shared_ptr<ACCOUNT_NAMES_T> startAccountNames(asio::io_context &io)
{
    auto names = std::make_shared<ACCOUNT_NAMES_T>(io);
    const std::weak_ptr<ACCOUNT_NAMES_T> weak = names;
    names->queue->answer = [weak, &io](uid_t uid, std::string name) {
        asio::post(io, [weak, uid, name = std::move(name)] {
            const auto held = weak.lock();
            if (!held) return;
            held->asked.erase(uid);
            if (held->known.size() >= NAMES_MAX) held->known.clear();
            held->known[uid] = {name, Clock::now()};
            settle(*held, uid, name);
        });
    };
    std::thread(answerQuestions, names->queue).detach();
    return names;
}

void lookUpAccount(const std::shared_ptr<ACCOUNT_NAMES_T> &names, uid_t uid, Found found)
{
    const auto known = names->known.find(uid);
    if (known != names->known.end() && Clock::now() - known->second.known_since < NAME_LIFE)
        return found(known->second.text);
    QUESTION_T &question = names->open[uid];
    question.waiting.push_back(std::move(found));
    if (question.timer) return;
    question.timer = std::make_unique<asio::steady_timer>(names->io, NAME_WAIT);
    question.timer->async_wait([weak = std::weak_ptr(names), uid](const auto &error) {
        const auto held = weak.lock();
        if (held && !error) settle(*held, uid, numberText(uid));
    });
    if (!names->asked.insert(uid).second) return;
    const std::lock_guard lock(names->queue->mutex);
    names->queue->asked.push_back(uid);
    names->queue->changed.notify_one();
}

void stopAccountNames(ACCOUNT_NAMES_T &names)
{
    names.open.clear();
    const std::lock_guard lock(names.queue->mutex);
    names.queue->answer = nullptr;
    names.queue->changed.notify_one();
}

} // namespace backend
