"""Runs a program on a kernel that lacks a system call, or on one that kills whoever makes it.

deny.py CALL COMMAND...: CALL fails with ENOSYS, as on a kernel that is too old for it.
deny.py CALL:N=VALUE COMMAND...: a process that makes it with this value as argument N is killed by SIGSYS.
"""

import ctypes
import errno
import os
import struct
import sys

# The numbers of the calls, by the audit architecture that the filter sees.
X86_64, I386, AARCH64 = 0xC000003E, 0x40000003, 0xC00000B7
CALLS = {"fsync": {X86_64: 74, I386: 118, AARCH64: 82}, "openat2": {X86_64: 437, I386: 437, AARCH64: 437},
         "landlock_create_ruleset": {X86_64: 444, I386: 444, AARCH64: 444},
         "renameat2": {X86_64: 316, I386: 353, AARCH64: 276}, "rt_sigaction": {X86_64: 13, I386: 174, AARCH64: 134}}
# Of linux/seccomp.h, linux/filter.h and linux/prctl.h.
FAIL, KILL, ALLOW = 0x00050000, 0x80000000, 0x7FFF0000
LOAD, EQUAL, RETURN = 0x20, 0x15, 0x06
NUMBER_AT, MACHINE_AT, ARGUMENTS_AT = 0, 4, 16
PR_SET_NO_NEW_PRIVS, PR_SET_SECCOMP, SECCOMP_MODE_FILTER = 38, 22, 2


class Program(ctypes.Structure):
    _fields_ = [("length", ctypes.c_ushort), ("code", ctypes.c_char_p)]


def rule(conditions, result):
    """The result where all conditions hold: values at offsets of the kernel's record."""
    left = 2 * len(conditions)
    steps = []
    for at, value in conditions:
        left -= 2
        steps += [(LOAD, 0, 0, at), (EQUAL, 0, left + 1, value)]
    return steps + [(RETURN, 0, 0, result)]


def deny(wanted):
    name, _, condition = wanted.partition(":")
    steps = []
    for machine, number in CALLS[name].items():
        conditions = [(MACHINE_AT, machine), (NUMBER_AT, number)]
        if condition:
            at, value = condition.split("=")
            conditions.append((ARGUMENTS_AT + 8 * int(at), int(value)))
        steps += rule(conditions, KILL if condition else FAIL | errno.ENOSYS)
    steps += [(RETURN, 0, 0, ALLOW)]
    program = Program(len(steps), b"".join(struct.pack("HBBI", *step) for step in steps))
    libc = ctypes.CDLL(None, use_errno=True)
    if libc.prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0 or \
            libc.prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, ctypes.byref(program), 0, 0) != 0:
        sys.exit("no filter: " + os.strerror(ctypes.get_errno()))


deny(sys.argv[1])
os.execvp(sys.argv[2], sys.argv[2:])
