// Where requests go, and what proves who asks.
#pragma once

#include <string>

struct SERVER_T {
    std::string control;     // path of the local control socket; empty: over HTTPS
    std::string url;         // as serverUrl() writes it
    std::string token;       // may be empty where there is a certificate
    std::string ca;          // PEM file of what signs the server's certificate; empty: the system's
    std::string certificate; // PEM files of the operator's own certificate and key; may be empty
    std::string key;
};
