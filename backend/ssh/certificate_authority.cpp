#include "backend/ssh/certificate_authority.h"

#include "utility/child_process.h"

#include <array>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <deque>
#include <fcntl.h>
#include <fstream>
#include <iterator>
#include <mutex>
#include <stdexcept>
#include <strings.h>
#include <sys/eventfd.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <thread>

namespace backend {

constexpr auto SIGNING_TIME = std::chrono::seconds(10);
constexpr off_t KEY_FILE_MAX = 65536;
constexpr char KEYGEN[] = "/usr/bin/ssh-keygen";
constexpr char KEY_IN_CHILD[] = "/dev/fd/3";

struct ORDER_T {
    CERTIFICATE_ORDER_T order;
    std::function<void(const SIGNED_T &)> answered;
};

using KeyPtr = std::shared_ptr<const UniqueFd>;

struct SSH_AUTHORITY_T {
    std::string path;
    SigningPoster poster;
    UniqueFd cancel{eventfd(0, EFD_CLOEXEC)};
    std::mutex mutex; // guards what follows
    std::condition_variable changed;
    KeyPtr key; // a file in memory
    std::deque<ORDER_T> waiting;
    bool is_stopping = false;
    std::vector<std::thread> signers;
};

// ---- the key

[[noreturn]] static void failFor(const std::string &path, const std::string &reason)
{
    throw std::runtime_error(path + ": " + reason);
}

static std::string readKeyFile(const std::string &path)
{
    const UniqueFd fd{open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY)};
    struct stat status {};
    if (!fd || fstat(fd.get(), &status) != 0) failFor(path, strerror(errno));
    if (!S_ISREG(status.st_mode)) failFor(path, "is no regular file");
    if ((status.st_mode & (S_IWGRP | S_IRWXO)) != 0)
        failFor(path, "others may read or write it; correct it with chmod 0600");
    if (status.st_size > KEY_FILE_MAX) failFor(path, "is too large for a key");
    std::string text(static_cast<std::size_t>(status.st_size), '\0');
    const ssize_t got = read(fd.get(), text.data(), text.size());
    if (got < 0) failFor(path, strerror(errno));
    text.resize(static_cast<std::size_t>(got));
    return text;
}

// ssh-keygen wants a file that is its own account's alone.
static KeyPtr keyInMemory(const std::string &path)
{
    std::string text = readKeyFile(path);
    auto key = std::make_shared<const UniqueFd>(memfd_create("ssh-ca", MFD_CLOEXEC));
    const bool is_written =
        *key && fchmod(key->get(), 0600) == 0 &&
        write(key->get(), text.data(), text.size()) == static_cast<ssize_t>(text.size());
    const int fault = errno;
    explicit_bzero(text.data(), text.size());
    if (!is_written) failFor(path, strerror(fault));
    return key;
}

static CHILD_T keygen(const KeyPtr &key, std::vector<std::string> arguments)
{
    arguments.insert(arguments.begin(), KEYGEN);
    CHILD_T child;
    child.command = std::move(arguments);
    child.environment = {"PATH=/usr/bin:/bin", "LC_ALL=C"};
    child.time = SIGNING_TIME;
    child.input = key->get();
    return child;
}

static std::string lastLine(std::string text)
{
    while (text.ends_with('\n') || text.ends_with('\r'))
        text.pop_back();
    return text.substr(text.rfind('\n') + 1);
}

static KeyPtr loadKey(const std::string &path)
{
    KeyPtr key = keyInMemory(path);
    const CHILD_RESULT_T result = run_child(keygen(key, {"-y", "-P", "", "-f", KEY_IN_CHILD}));
    if (result.status == 0) return key;
    if (result.errors.find("incorrect passphrase") != std::string::npos)
        failFor(path, "the key has a passphrase; nobody is there to type it");
    failFor(path, "is no private key of ssh: " + lastLine(result.errors));
}

// ---- signing

static std::string hexText(std::int64_t number)
{
    std::array<char, 32> text{};
    (void)snprintf(text.data(), text.size(), "0x%llx", static_cast<unsigned long long>(number));
    return text.data();
}

static std::string listText(const std::vector<std::string> &names)
{
    std::string text;
    for (const std::string &name : names)
        text += (text.empty() ? "" : ",") + name;
    return text;
}

// No extension but a terminal: to forward ports or an agent through the gateway would lead past
// the grants.
static std::vector<std::string> signArguments(const CERTIFICATE_ORDER_T &order,
                                              const std::string &public_path)
{
    return {"-q",
            "-s",
            KEY_IN_CHILD,
            "-P",
            "",
            "-I",
            order.identity,
            "-n",
            listText(order.principals),
            "-V",
            hexText(order.begins) + ":" + hexText(order.expires),
            "-z",
            std::to_string(order.serial),
            "-O",
            "clear",
            "-O",
            "permit-pty",
            public_path};
}

static SIGNED_T trySign(const KeyPtr &key, int cancel, const CERTIFICATE_ORDER_T &order)
{
    const PrivateFolder folder;
    const std::string base = folder.path() + "/key";
    if (!(std::ofstream(base + ".pub") << order.public_key << '\n'))
        return {"", "a file for it cannot be written"};
    CHILD_T child = keygen(key, signArguments(order, base + ".pub"));
    child.cancel = cancel;
    const CHILD_RESULT_T result = run_child(child);
    if (result.status != 0) return {"", lastLine(result.errors)};
    SIGNED_T answer;
    std::ifstream file(base + "-cert.pub");
    if (!std::getline(file, answer.certificate) || answer.certificate.empty())
        answer.fault = "ssh-keygen has made none";
    return answer;
}

static SIGNED_T sign(const KeyPtr &key, int cancel, const CERTIFICATE_ORDER_T &order)
{
    try {
        return trySign(key, cancel, order);
    } catch (const std::exception &fault) {
        return {"", fault.what()};
    }
}

static void serve(SSH_AUTHORITY_T &authority)
{
    std::unique_lock guard(authority.mutex);
    for (;;) {
        authority.changed.wait(guard,
                               [&] { return authority.is_stopping || !authority.waiting.empty(); });
        if (authority.is_stopping) return;
        ORDER_T next = std::move(authority.waiting.front());
        authority.waiting.pop_front();
        const KeyPtr key = authority.key;
        guard.unlock();
        SIGNED_T answer = sign(key, authority.cancel.get(), next.order);
        authority.poster([answered = std::move(next.answered), answer = std::move(answer)] {
            answered(answer);
        });
        guard.lock();
    }
}

// ---- for the io thread

SshAuthorityPtr startSshAuthority(const std::string &key_path, SigningPoster poster)
{
    SshAuthorityPtr authority(new SSH_AUTHORITY_T{});
    authority->path = key_path;
    authority->poster = std::move(poster);
    authority->key = loadKey(key_path);
    for (std::size_t i = 0; i < SIGNERS; i++)
        authority->signers.emplace_back([&served = *authority] { serve(served); });
    return authority;
}

void renewSshAuthority(SSH_AUTHORITY_T &authority)
{
    KeyPtr key = loadKey(authority.path);
    const std::lock_guard guard(authority.mutex);
    authority.key = std::move(key);
}

bool orderCertificate(SSH_AUTHORITY_T &authority, CERTIFICATE_ORDER_T order,
                      std::function<void(const SIGNED_T &)> answered)
{
    {
        const std::lock_guard guard(authority.mutex);
        if (authority.waiting.size() >= ORDERS_MAX) return false;
        authority.waiting.push_back({std::move(order), std::move(answered)});
    }
    authority.changed.notify_one();
    return true;
}

void stopSshAuthority(SSH_AUTHORITY_T *authority)
{
    if (authority == nullptr) return;
    {
        const std::lock_guard guard(authority->mutex);
        authority->is_stopping = true;
    }
    (void)eventfd_write(authority->cancel.get(), 1);
    authority->changed.notify_all();
    for (std::thread &signer : authority->signers)
        signer.join();
    delete authority; // NOLINT(cppcoreguidelines-owning-memory): SshAuthorityPtr's deleter
}

} // namespace backend
