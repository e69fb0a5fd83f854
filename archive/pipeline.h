// The whole debug archive on a descriptor, compressed or plain. The caller's descriptors 0 to 2 must be open.
#pragma once

// Writes the debug archive as tar inside gzip onto `fd` (borrowed); returns when it is complete and the
// compressor, a child process, has been waited for. "pipes" or "fork" and the system's error go to standard
// error when they fail, and nothing to `fd`. Returns 0 when the whole archive was written, else the errno of
// why not; the gzip member has no trailer then.
int stream_tgz(int fd);

// Writes the debug archive as plain tar onto `fd` (borrowed). Returns 0 or an errno, too.
int stream_tar(int fd);

// Runs `build` with a pipe whose other end a child compresses onto `fd`; stream_tgz with another builder.
// `build` gets `context`, the pipe (borrowed) and the compressor's pid, and returns 0 or an errno.
int stream_compressed(int fd, int (*build)(void* context, int pipe_fd, int compressor_pid), void* context);
