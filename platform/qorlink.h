// Descriptor passing over a local control socket, as the platform's libqorlink.so.1 offers it.
//
// The daemon relies on the lengths and the descriptors alone; close-on-exec, the time limits and what happens
// to descriptors of a bad message are the stand-in's.
//
// Wire format of the stand-in (platform/standin/qorlink.cpp): a Unix stream socket; one connection carries
// one message, the bytes of the message with exactly one descriptor as SCM_RIGHTS on the first of them; the
// sender then shuts its side down.
#pragma once

extern "C" {

// Creates a listening socket at `path` with the file mode `mode`. A file that is in the way is an error, so
// callers unlink first. Returns the descriptor (the caller closes it; close-on-exec) or -1 with errno set.
int qorlink_server_socket(const char* path, int mode);

// Receives one message of at most `len` bytes from the next connection on `sock`, and the descriptor that
// came with it in `*fd` (the caller closes it; close-on-exec). Returns the message's length. A result below 1
// is a failure (nobody there, an empty message, no descriptor or several, a silent peer): `*fd` is then -1
// and nothing is left open. A peer never holds the caller for more than 2 seconds in all. One that dies
// half-way looks like one that had no more to say: what came until then is the message.
int qorlink_recv(int sock, void* buf, int len, int* fd);

// Sends one message of `len` (above 0) bytes and the descriptor `fd` (borrowed) to the socket at `path`.
// Returns 0, or -1 with errno set.
int qorlink_send(const char* path, const void* buf, int len, int fd);
}
