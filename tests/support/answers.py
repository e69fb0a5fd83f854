"""The daemon's fixed answers and its help, byte for byte."""

import re

HELP = (
    "dbg-cgi 0.1\ndbg-cgi [options] [pids...]\n\n"
    "-d\tdump tar archive with core-files for pids to stdout.\n"
    "-t\tonly tar the archive.\n"
    "-i\tignore pid\n"
    "-p\tprogram to create coredumps [/usr/bin/dcore]\n"
    "-c\tcgi control socket name [/var/run/dbg-cgi/ctrl-cgi-socket]\n"
    "-s\tsegfault control socket name [/var/run/dbg-cgi/ctrl-segf-socket]\n"
    "-h\thelp\n"
)

SERVER_ERROR = (
    b"HTTP/1.0 500 Internal Server Error\r\nContent-Type: text/plain\r\n\r\n"
    b"The server encountered an internal error and could not complete the request\n"
)
BAD_REQUEST = (
    b"HTTP/1.0 400 Bad Request\r\nContent-Type: text/plain\r\n\r\n"
    b"The request has bad syntax or was inherently impossible to satisfy\n"
)
BUSY_PAGE = (
    b"HTTP/1.0 503 Service Unavailable\r\nCache-Control: no-cache\r\n"
    b"Expires: Thu, 01 Dec 1994 16:00:00 GMT\r\nContent-Type: text/html\r\n\r\n"
    b"<HTML><HEAD></HEAD>\r\n<BODY>\r\n"
    b"Another Crash Report generation is in progress. Please try again later ...\r\n</BODY></HTML>\r\n\r\n"
)


def download_head(media_type, name):
    return (
        "HTTP/1.0 200 OK\r\nCache-Control: no-cache\r\nExpires: Thu, 01 Dec 1994 16:00:00 GMT\r\n"
        f'Content-Type: {media_type}\r\nContent-Disposition: attachment; filename="{name}"\r\n\r\n'
    ).encode()


PLAIN_HEAD = download_head("application/x-tar", "debug.tar")
COMPRESSED_HEAD = download_head("application/x-tar", "debug.tgz")
PS_HEAD = download_head("text/plain", "psdump.txt")
CORE_HEAD = download_head("application/octet-stream", "core")


def body_of(answer, head):
    """The body of an answer that must begin with exactly `head`."""
    assert answer[: len(head)] == head, answer[: len(head) + 200]
    return answer[len(head) :]


ARCHIVE_HEAD = re.compile(
    re.escape(download_head("application/x-tar", "NAME").decode()).replace("NAME", r"(?P<name>[^\"]*)").encode()
)


def body_and_file_name(answer):
    """The body of an archive with any file name, and that name."""
    found = ARCHIVE_HEAD.match(answer)
    assert found, answer[:300]
    return answer[found.end() :], found["name"].decode()
