"""Waiting for a condition."""

import time

from support.under_test import REMOTE_URL, SANITIZE

PATIENCE = 90 if SANITIZE or REMOTE_URL else 30  # seconds until a test gives up
POLL_S = 0.01
ATTEMPTS = 20


def wait_for(condition, what, seconds=PATIENCE, poll_s=POLL_S):
    """Returns the first true value of `condition()`. Fails with `what`, a text or a function that makes it.

    The condition is evaluated at least ATTEMPTS times, so a machine that stalls for longer than the timeout
    does not fail the test.
    """
    end = time.monotonic() + seconds
    attempts = 0
    while not (value := condition()):
        attempts += 1
        timed_out = attempts >= ATTEMPTS and time.monotonic() >= end
        assert not timed_out, f"not within {seconds} s: {what() if callable(what) else what}"
        time.sleep(poll_s)
    return value
