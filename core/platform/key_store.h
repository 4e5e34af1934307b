#pragma once
// KeyStore: secrets kept for the user by the desktop's key store, found by a
// service name and an account name. On Linux that is the Secret Service over
// the session bus, reached through libsecret loaded at run time: a machine
// without the library, without a session bus or without a running key store
// simply has no stored secrets. Calls block while the store answers; use
// from one thread at a time.

#include <optional>
#include <string>

namespace tarv::platform {

namespace KeyStore {

// Whether the library could be loaded and a session bus is configured.
bool available();

// The secret stored under (service, account), or nothing when there is none
// or the store cannot be reached.
std::optional<std::string> lookup(const std::string& service, const std::string& account);

// Stores or replaces the secret under (service, account) with a readable
// label. Throws KernelError::io when the store cannot be reached or refuses.
void store(const std::string& service, const std::string& account, const std::string& label,
           const std::string& secret);

}  // namespace KeyStore

}  // namespace tarv::platform
