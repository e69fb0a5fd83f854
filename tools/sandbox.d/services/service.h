// What the device's services share. Each ends with a sentence and status 1 when a call fails.
//
// The services listen on ports of 127.0.0.1 that the kernel chooses, because several sandboxes may share the
// machine's network. They publish them in files in /run, which every sandbox has for itself.
#pragma once

#include <netinet/in.h>
#include <stdint.h>

#include <string>

#include "common/unique_fd.h"

// The folder into which recorderd writes. It makes the folder before it publishes its port.
constexpr const char* service_recordings = "/run/recordings";

// Prints "NAME: WHAT: errno's text" and exits.
[[noreturn]] void service_fail(const char* what);

// Returns `result`, or ends the service if it is negative.
int service_check(int result, const char* what);

// Opens a socket of `type` (SOCK_STREAM or SOCK_DGRAM), bound to 127.0.0.1, and returns it.
unique_fd service_bind(int type);

// Writes the port of a bound socket to /run/NAME.port.
void service_publish(int fd, const std::string& name);

// Returns the address that service `name` has published. Waits until it has.
sockaddr_in service_find(const std::string& name);

// Opens a socket of `type` that is connected to service `name`; empty with errno set if the service refuses.
unique_fd service_connect(int type, const sockaddr_in& address);
