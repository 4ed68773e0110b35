// The back ends that this account has logged in to: servers.json in $XDG_CONFIG_HOME/remote-access
// or ~/.config/remote-access. It holds tokens: the folder gets mode 0700 and the file 0600, and a
// file that others may read, or that another account owns, is refused.
// Shape     {"default":URL,"servers":{URL:{"token":..,"ca":..,"certificate":..,"key":..}}}
// Failure   std::runtime_error whose text names the file.
#pragma once

#include "operator/settings/server.h"

#include <map>
#include <string>

struct SAVED_SERVERS_T {
    std::string usual; // the URL that is taken when none is named; may be empty
    std::map<std::string, SERVER_T> servers; // by URL
};

// Without the file: none.
SAVED_SERVERS_T loadServers();

// The server becomes the usual one.
void saveServer(const SERVER_T &server);

// False when it was not there.
bool forgetServer(const std::string &url);
