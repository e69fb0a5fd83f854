"""What the end-to-end tests and the benchmarks share. Nothing in here needs pytest.

under_test      the programs under test and how they were built
waiting         waiting for a condition
processes       processes as /proc shows them, and how they run
network         network namespaces
connections     browsers, and messages to the daemon's control socket
answers         the daemon's fixed answers
daemon          the daemon as a process, and its control sockets
web             the web front as a process, and HTTP requests
archives        debug archives, taken apart and checked
system_log      the system log in the sandbox
The other modules serve the tests of one subject.
"""
