"""A fixture for tests of what takes the tool minutes."""
import subprocess

import pytest

from world import write

# One second of this clock takes a hundredth of a second.
FAST_CLOCK = r"""
#define _GNU_SOURCE
#include <dlfcn.h>
#include <poll.h>
#include <time.h>
static const int SPEED = 100;
int clock_gettime(clockid_t id, struct timespec* t) {
  static int (*real)(clockid_t, struct timespec*);
  static struct timespec begin;
  if (!real) real = dlsym(RTLD_NEXT, "clock_gettime");
  if (real(id, t)) return -1;
  if (id != CLOCK_MONOTONIC) return 0;
  if (!begin.tv_sec) begin = *t;
  long long ns = ((t->tv_sec - begin.tv_sec) * 1000000000LL + t->tv_nsec - begin.tv_nsec) * SPEED;
  ns += begin.tv_sec * 1000000000LL + begin.tv_nsec;
  t->tv_sec = ns / 1000000000; t->tv_nsec = ns % 1000000000;
  return 0;
}
time_t time(time_t* out) {
  struct timespec t;
  clock_gettime(CLOCK_MONOTONIC, &t);
  if (out) *out = t.tv_sec;
  return t.tv_sec;
}
/* Ends a long wait half a second early: the time-outs of the SSH library, which counts whole seconds,
   may do so. */
int poll(struct pollfd* fds, nfds_t n, int ms) {
  static int (*real)(struct pollfd*, nfds_t, int);
  if (!real) real = dlsym(RTLD_NEXT, "poll");
  if (ms < 0) return real(fds, n, ms);
  return real(fds, n, ms >= 500 * SPEED ? ms / SPEED - 5 : (ms + SPEED - 1) / SPEED);
}
"""


@pytest.fixture
def fast_clock():
    """An environment in which time passes a hundred times as fast."""
    write("/mnt/clock/clock.c", FAST_CLOCK)
    subprocess.run(["cc", "-shared", "-fPIC", "-o", "/mnt/clock/clock.so", "/mnt/clock/clock.c", "-ldl"], check=True)
    # When a session is freed in the middle of its key exchange, the SSH library itself leaks memory.
    return {"LD_PRELOAD": "/mnt/clock/clock.so",
            "ASAN_OPTIONS": "exitcode=99:detect_leaks=0:verify_asan_link_order=0"}
