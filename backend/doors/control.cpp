#include "backend/doors/control.h"

#include "backend/net/accept_loop.h"
#include "backend/observe/log.h"
#include "backend/operations/sign_in.h"
#include "backend/sessions/socket_client.h"

#include <array>
#include <cerrno>
#include <cstring>
#include <map>
#include <stdexcept>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <system_error>
#include <unistd.h>

#include <boost/asio/local/stream_protocol.hpp>
#include <boost/asio/write.hpp>
#include <nlohmann/json.hpp>

namespace backend {

namespace asio = boost::asio;
using boost::system::error_code;
using nlohmann::json;
using local = asio::local::stream_protocol;

constexpr std::size_t CONNECTIONS_MAX = 4096;
constexpr std::size_t ACCOUNT_MAX = CONNECTIONS_MAX / 4; // one cannot keep the others out
constexpr auto REQUEST_TIME = std::chrono::seconds(5);
constexpr auto TOOL_GRACE = std::chrono::seconds(2);

struct CONTROL_T {
    CONTROL_T(asio::io_context &context, OPERATIONS_T &on, const LIMITS_T &allowed,
              std::shared_ptr<ACCOUNT_NAMES_T> accounts, std::string file)
        : io(context), operations(on), limits(allowed), path(std::move(file)), acceptor(context),
          pause(context), names(std::move(accounts))
    {
    }
    asio::io_context &io;
    OPERATIONS_T &operations;
    const LIMITS_T &limits;
    std::string path;
    local::acceptor acceptor;
    asio::steady_timer pause;
    std::shared_ptr<ACCOUNT_NAMES_T> names;
    std::size_t connections = 0;
    std::map<uid_t, std::size_t> per_account; // connections
};

using ControlPtr = std::shared_ptr<CONTROL_T>;

struct CONTROL_LINK_T {
    CONTROL_LINK_T(ControlPtr of, local::socket from, const ucred &peer)
        : control(std::move(of)), socket(std::move(from)), timer(control->io), uid(peer.uid),
          process(peer.pid)
    {
        control->per_account[uid]++;
        control->connections++;
    }
    CONTROL_LINK_T(const CONTROL_LINK_T &) = delete;
    CONTROL_LINK_T &operator=(const CONTROL_LINK_T &) = delete;
    ~CONTROL_LINK_T()
    {
        control->connections--;
        if (--control->per_account[uid] == 0) control->per_account.erase(uid);
        if (passed_fd < 0) return;
        const linger reset{1, 0}; // no session came of it
        (void)setsockopt(passed_fd, SOL_SOCKET, SO_LINGER, &reset, sizeof reset);
        close(passed_fd);
    }

    ControlPtr control;
    local::socket socket;
    asio::steady_timer timer;
    std::string request;
    std::array<char, 64> unwanted{}; // what comes behind it
    std::string answers;             // what is written, or waits for the write under way
    bool write_active = false;
    bool is_done = false; // closed once everything is written
    int passed_fd = -1;
    uid_t uid;
    pid_t process;
    std::string account;              // empty until it is known
    bool is_whole = false;            // the request has come
    std::weak_ptr<SESSION_T> session; // of "connect"
};
using LinkPtr = std::shared_ptr<CONTROL_LINK_T>;

// ---- answers

static void closeNow(CONTROL_LINK_T &link)
{
    error_code ignored;
    link.timer.cancel();
    link.socket.close(ignored);
}

static void closeAfter(const LinkPtr &link, std::chrono::milliseconds wait)
{
    link->timer.expires_after(wait);
    link->timer.async_wait([link](const error_code &stopped) {
        if (!stopped) closeNow(*link);
    });
}

static void writeAnswers(const LinkPtr &link)
{
    if (link->write_active) return;
    if (link->answers.empty()) {
        if (link->is_done) closeNow(*link);
        return;
    }
    link->write_active = true;
    const auto text = std::make_shared<std::string>(std::exchange(link->answers, {}));
    asio::async_write(link->socket, asio::buffer(*text),
                      [link, text](const error_code &error, std::size_t) {
                          link->write_active = false;
                          if (!error) return writeAnswers(link);
                          if (link->is_done) closeNow(*link);
                      });
}

static void answer(const LinkPtr &link, const json &line, bool is_last)
{
    link->answers += line.dump(-1, ' ', true, json::error_handler_t::replace) + "\n";
    if (is_last) {
        link->is_done = true;
        closeAfter(link, link->control->limits.answer_time);
    }
    writeAnswers(link);
}

static void refuse(const LinkPtr &link, const std::string &error)
{
    answer(link, {{"ok", false}, {"error", error}}, true);
}

// ---- requests

// The socket that came with the request; null when none that can be used did.
static SessionClientPtr takeClient(CONTROL_LINK_T &link)
{
    int domain = 0;
    int type = 0;
    socklen_t size = sizeof(int);
    sockaddr_storage peer{};
    socklen_t peer_size = sizeof peer;
    const int fd = link.passed_fd;
    if (fd < 0 || getsockopt(fd, SOL_SOCKET, SO_DOMAIN, &domain, &size) != 0 ||
        getsockopt(fd, SOL_SOCKET, SO_TYPE, &type, &size) != 0 || type != SOCK_STREAM ||
        getpeername(fd, reinterpret_cast<sockaddr *>(&peer), &peer_size) != 0)
        return nullptr;
    asio::generic::stream_protocol::socket client(link.control->io);
    error_code error;
    client.assign(asio::generic::stream_protocol(domain, 0), fd, error);
    if (error) return nullptr;
    link.passed_fd = -1;
    return makeSocketClient(std::move(client));
}

// No more requests come on it, so only its end shows. The session must not keep running after the
// operator has left. ssh ends its tool while its last bytes to the service are still under way,
// hence the delay.
static void watchOperator(const LinkPtr &link)
{
    link->socket.async_read_some(
        asio::buffer(link->unwanted), [link](const error_code &error, std::size_t) {
            if (!error) return watchOperator(link);
            if (error == asio::error::operation_aborted) return;
            link->timer.expires_after(TOOL_GRACE);
            link->timer.async_wait([link](const error_code &) {
                const SessionPtr session = link->session.lock();
                if (session) endSession(session, "the operator's tool has ended", false);
            });
        });
}

static void run(const LinkPtr &link, const json &request)
{
    const auto call = std::make_shared<CALL_T>();
    call->who = accountPrincipal(link->control->operations, DOOR::CONTROL_SOCKET, link->account,
                                 "process " + std::to_string(link->process));
    call->who.is_host_admin = link->uid == 0 || link->uid == geteuid();
    call->answer = [link](const json &line, bool is_last) { answer(link, line, is_last); };
    call->take_client = [link] { return takeClient(*link); };
    runOperation(link->control->operations, call, request);
    link->session = call->session;
    if (link->session.lock()) watchOperator(link);
}

// What is ours of a password is overwritten; the buffers of the JSON library's parser are not.
static void handleRequest(const LinkPtr &link)
{
    if (!link->is_whole || link->account.empty()) return; // both come, in either order
    link->timer.cancel();
    json request = json::parse(link->request, nullptr, false);
    explicit_bzero(link->request.data(), link->request.size());
    run(link, request);
    if (!request.is_object()) return;
    const auto password = request.find("password");
    if (password == request.end() || !password->is_string()) return;
    std::string &text = password->get_ref<std::string &>();
    explicit_bzero(text.data(), text.size());
}

// ---- connections

// What has come, with a descriptor that may come with it. False at the end of the stream.
static bool receiveRequest(CONTROL_LINK_T &link)
{
    std::array<char, REQUEST_MAX> bytes{};
    iovec part{bytes.data(), REQUEST_MAX - link.request.size()};
    // Alignment leaves room for a second descriptor, so none is taken to be alone; the kernel
    // closes those that find no room.
    alignas(cmsghdr) std::array<char, CMSG_SPACE(sizeof(int))> rights{};
    msghdr message{};
    message.msg_iov = &part;
    message.msg_iovlen = 1;
    message.msg_control = rights.data();
    message.msg_controllen = rights.size();
    const ssize_t got =
        recvmsg(link.socket.native_handle(), &message, MSG_DONTWAIT | MSG_CMSG_CLOEXEC);
    if (got < 0) return errno == EAGAIN || errno == EINTR;
    const cmsghdr *const first = CMSG_FIRSTHDR(&message);
    if (first != nullptr && first->cmsg_level == SOL_SOCKET && first->cmsg_type == SCM_RIGHTS) {
        for (std::size_t at = 0; CMSG_LEN(at + sizeof(int)) <= first->cmsg_len; at += sizeof(int)) {
            if (link.passed_fd >= 0) close(link.passed_fd);
            memcpy(&link.passed_fd, CMSG_DATA(first) + at, sizeof(int));
        }
    }
    link.request.append(bytes.data(), static_cast<std::size_t>(got));
    explicit_bzero(bytes.data(), bytes.size());
    return got > 0;
}

static void readRequest(const LinkPtr &link)
{
    link->socket.async_wait(local::socket::wait_read, [link](const error_code &error) {
        if (error) return;
        const bool goes_on = receiveRequest(*link);
        if (!goes_on) link->timer.cancel();
        link->is_whole = link->request.find('\n') != std::string::npos;
        if (link->is_whole) return handleRequest(link);
        if (link->request.size() >= REQUEST_MAX) return refuse(link, "the request is too long");
        if (goes_on) readRequest(link);
    });
}

static void takeOperator(const ControlPtr &control, local::socket socket)
{
    if (control->connections >= CONNECTIONS_MAX)
        throw std::runtime_error("too many operators' tools");
    ucred peer{};
    socklen_t size = sizeof peer;
    if (getsockopt(socket.native_handle(), SOL_SOCKET, SO_PEERCRED, &peer, &size) != 0)
        throw std::system_error(errno, std::generic_category());
    const auto link = std::make_shared<CONTROL_LINK_T>(control, std::move(socket), peer);
    if (control->per_account[peer.uid] > ACCOUNT_MAX)
        return refuse(link, "this account has too many connections to the back end, at most " +
                                std::to_string(ACCOUNT_MAX));
    link->request.reserve(REQUEST_MAX);
    closeAfter(link, REQUEST_TIME);
    readRequest(link);
    lookUpAccount(control->names, peer.uid, [link](const std::string &name) {
        link->account = name;
        handleRequest(link);
    });
}

// A file that is left of a back end that has ended must not keep the next one from starting.
static void removeStaleSocket(asio::io_context &io, const std::string &path)
{
    struct stat status {};
    if (lstat(path.c_str(), &status) != 0) return;
    if (!S_ISSOCK(status.st_mode)) throw std::runtime_error(path + ": is no socket");
    local::socket probe(io);
    error_code error;
    probe.connect(local::endpoint(path), error);
    if (!error) throw std::runtime_error(path + ": another back end listens there");
    if (error != asio::error::connection_refused)
        throw std::runtime_error(path + ": " + error.message());
    (void)unlink(path.c_str());
}

std::shared_ptr<CONTROL_T> openControl(asio::io_context &io, OPERATIONS_T &operations,
                                       const LIMITS_T &limits,
                                       const std::shared_ptr<ACCOUNT_NAMES_T> &names,
                                       const std::string &path)
{
    if (path.size() >= sizeof(sockaddr_un::sun_path))
        throw std::runtime_error(path + ": the path of a socket has at most " +
                                 std::to_string(sizeof(sockaddr_un::sun_path) - 1) + " bytes");
    removeStaleSocket(io, path);
    auto control = std::make_shared<CONTROL_T>(io, operations, limits, names, path);
    const mode_t usual = umask(0117); // from the first moment on, not only after a chmod
    try {
        control->acceptor.open();
        control->acceptor.bind(local::endpoint(path));
        control->acceptor.listen();
    } catch (const boost::system::system_error &fault) {
        umask(usual);
        throw std::runtime_error(path + ": " + fault.code().message());
    }
    umask(usual);
    acceptNext(control, takeOperator);
    logInfo("control socket %s ready", path.c_str());
    return control;
}

void closeControl(CONTROL_T &control)
{
    if (!control.acceptor.is_open()) return;
    (void)unlink(control.path.c_str());
    error_code ignored;
    control.acceptor.close(ignored);
    control.pause.cancel();
}

} // namespace backend
