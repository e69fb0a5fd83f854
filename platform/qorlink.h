// The platform library libqorlink.so.1: passes descriptors over a local control socket.
//
// The daemon relies only on the lengths and the descriptors. Close-on-exec, the timeouts and the treatment of
// descriptors in a bad message are properties of the stand-in.
//
// Wire format of the stand-in (platform/standin/qorlink.cpp): a Unix stream socket. Each connection carries
// one message, with exactly one descriptor as SCM_RIGHTS on its first byte; the sender then shuts down its
// side.
#pragma once

extern "C" {

// Creates a listening socket at `path` with file mode `mode`. An existing file is an error, so callers unlink
// it first. Returns the descriptor (the caller closes it; close-on-exec) or -1 with errno set.
int qorlink_server_socket(const char* path, int mode);

// Receives one message of at most `len` bytes from the next connection on `sock`, and the descriptor that
// came with it in `*fd` (the caller closes it; close-on-exec). Returns the message's length. A result below 1
// is a failure (no connection, an empty message, no descriptor or several, a silent peer); `*fd` is then -1
// and nothing is left open. A peer never holds the caller for more than 2 seconds in all. If a peer dies in
// the middle, the bytes received so far are the message.
int qorlink_recv(int sock, void* buf, int len, int* fd);

// Sends one message of `len` bytes (at least 1) and the descriptor `fd` (borrowed) to the socket at `path`.
// Returns 0, or -1 with errno set.
int qorlink_send(const char* path, const void* buf, int len, int fd);
}
