// The check of a local account's password against the gateway's password and shadow databases
// (getpwnam(3), getspnam(3), crypt(3)).
// Threads  the proxy thread alone: the look-ups return static storage.
#pragma once

struct VERIFY_ACCOUNT_T;

// 0 when the password reproduces the account's stored hash, -1 otherwise (one line on standard
// output says why).
[[nodiscard]] int verifyAccount(const VERIFY_ACCOUNT_T &account);
