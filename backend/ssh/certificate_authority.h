// Signs operators' SSH keys for minutes, with ssh-keygen(1) and the key of --ssh-ca.
// Owns     SIGNERS threads, and the key in memory: ssh-keygen reads it there, so that a file which
//          is exchanged counts only once it has been read and tried as a whole.
// Threads  the io thread; the callback comes where the poster runs it, never within the call.
// Limits   SIGNERS certificates at once, ORDERS_MAX that wait; each within SIGNING_TIME. The files
//          of one stand in a folder of its own, which is removed.
// Failure  startSshAuthority and renewSshAuthority throw std::runtime_error that names the file.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace backend {

constexpr std::size_t SIGNERS = 4;
constexpr std::size_t ORDERS_MAX = 64;

struct SSH_AUTHORITY_T;
void stopSshAuthority(SSH_AUTHORITY_T *authority); // no callback is posted afterwards; takes null

struct SSH_AUTHORITY_STOPPER_T {
    void operator()(SSH_AUTHORITY_T *authority) const
    {
        stopSshAuthority(authority);
    }
};
using SshAuthorityPtr = std::unique_ptr<SSH_AUTHORITY_T, SSH_AUTHORITY_STOPPER_T>;

using SigningPoster = std::function<void(std::function<void()>)>;

// key_path: a private key of OpenSSH without a passphrase, for nobody else to read.
SshAuthorityPtr startSshAuthority(const std::string &key_path, SigningPoster poster);

// Reads the key again; when it throws, the one in use stays.
void renewSshAuthority(SSH_AUTHORITY_T &authority);

struct CERTIFICATE_ORDER_T {
    std::string public_key; // one that parsePublicKey has accepted: "TYPE BASE64"
    std::string identity;   // what sshd logs; plain text
    std::vector<std::string> principals;
    std::uint64_t serial = 0;
    std::int64_t begins = 0; // seconds since the epoch
    std::int64_t expires = 0;
};

struct SIGNED_T {
    std::string certificate; // one line, without its end
    std::string fault;       // why there is none
};

// False: too many wait, and there is no callback.
bool orderCertificate(SSH_AUTHORITY_T &authority, CERTIFICATE_ORDER_T order,
                      std::function<void(const SIGNED_T &)> answered);

} // namespace backend
