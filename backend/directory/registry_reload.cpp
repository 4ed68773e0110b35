#include "backend/directory/registry_reload.h"

#include <exception>
#include <system_error>
#include <thread>
#include <utility>

#include <boost/asio/post.hpp>

namespace backend {

struct RegistryReload::STATE_T : std::enable_shared_from_this<STATE_T> {
    STATE_T(boost::asio::io_context &context, DIRECTORY_T &of, std::string file)
        : io(context), directory(of), path(std::move(file))
    {
    }
    void begin();
    void freeBeside(DeviceRegistry registry);
    void finish(RELOADED_T result, DeviceRegistry registry);

    boost::asio::io_context &io;
    DIRECTORY_T &directory;
    const std::string path;
    std::thread thread; // reads, or has read; joined before the next
    bool is_reading = false;
    std::vector<ReloadAnswer> asked;   // of the reading under way
    std::vector<ReloadAnswer> waiting; // for the next one
};

void RegistryReload::STATE_T::begin()
{
    if (thread.joinable()) thread.join();
    is_reading = true;
    asked = std::exchange(waiting, {});
    const auto read = [state = weak_from_this(), file = path, &context = io] {
        RELOADED_T result;
        DeviceRegistry registry;
        try {
            registry = loadRegistry(file, result.warnings);
        } catch (const std::exception &fault) {
            result.fault = fault.what();
        }
        boost::asio::post(
            context, [state, result = std::move(result), registry = std::move(registry)]() mutable {
                if (const auto held = state.lock())
                    held->finish(std::move(result), std::move(registry));
            });
    };
    try {
        thread = std::thread(read);
    } catch (const std::system_error &) {
        read(); // there is no room for a thread: everything waits meanwhile
    }
}

// Freeing a large one takes a while, too.
void RegistryReload::STATE_T::freeBeside(DeviceRegistry registry)
{
    if (thread.joinable()) thread.join();
    try {
        thread = std::thread([gone = std::move(registry)] {});
    } catch (const std::system_error &) { // freed here
        return;
    }
}

void RegistryReload::STATE_T::finish(RELOADED_T result, DeviceRegistry registry)
{
    const auto keep = shared_from_this();
    is_reading = false;
    const auto answers = std::exchange(asked, {});
    if (result.fault.empty()) freeBeside(replaceRegistry(directory, std::move(registry)));
    result.devices = directory.registry.size();
    for (const ReloadAnswer &answer : answers)
        answer(result);
    if (!is_reading && !waiting.empty()) begin();
}

RegistryReload::RegistryReload(boost::asio::io_context &io, DIRECTORY_T &directory,
                               std::string path)
    : state_(std::make_shared<STATE_T>(io, directory, std::move(path)))
{
}

RegistryReload::~RegistryReload()
{
    if (state_->thread.joinable()) state_->thread.join();
}

void RegistryReload::start(ReloadAnswer done)
{
    state_->waiting.push_back(std::move(done));
    if (!state_->is_reading) state_->begin();
}

} // namespace backend
