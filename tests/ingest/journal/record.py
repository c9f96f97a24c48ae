#!/usr/bin/env python3
"""Records the journals of this folder anew; needs systemd-journal-remote, which the tests do not. Usage: record.py FOLDER"""
import gzip
import pathlib
import struct
import subprocess
import sys
import tempfile

MACHINE = "0123456789abcdef0123456789abcdef"
OTHER_MACHINE = "f" * 32
BOOT = "11111111222233334444555555555555"
FIRST_SECOND = 1714557600  # 2024-05-01 10:00:00 UTC
STARTED = "39f53479d3a045ac8e11786248231fbf"
STOPPED = "9d1aaa27d60140bd96365438aad20286"
NOT_STARTED = "be02cf6855d2428ba40df7e9d022f03d"
FAILED = "d9b373ed55a64feb8242e02dbe79a49c"
OUT_OF_MEMORY = "fe6faa94e7774663a0da52717891d8ef"


def entry(second, machine=MACHINE, **fields):
    """An entry in the journal's export format; bytes may be any, texts are lines."""
    fields = {
        "__REALTIME_TIMESTAMP": str((FIRST_SECOND + second) * 1000000),
        "__MONOTONIC_TIMESTAMP": str((second + 1000000) * 1000000),
        "_BOOT_ID": BOOT,
        "_MACHINE_ID": machine,
    } | fields
    lines = b""
    for name, value in fields.items():
        if isinstance(value, bytes):
            lines += name.encode() + b"\n" + struct.pack("<Q", len(value)) + value + b"\n"
        else:
            lines += f"{name}={value}\n".encode()
    return lines + b"\n"


def unit(second, message_id, name, message, pid="1", **fields):
    return entry(second, PRIORITY="6", _PID=pid, SYSLOG_IDENTIFIER="systemd", MESSAGE_ID=message_id, UNIT=name,
                 MESSAGE=message, **fields)


def kernel(second, priority, message):
    return entry(second, PRIORITY=priority, _TRANSPORT="kernel", SYSLOG_IDENTIFIER="kernel", MESSAGE=message)


FIRST = [
    entry(-8 * 86400, PRIORITY="3", SYSLOG_IDENTIFIER="old", MESSAGE="more than a week before the last one"),
    entry(0, PRIORITY="3", _PID="700", SYSLOG_IDENTIFIER="sshd", _SYSTEMD_UNIT="ssh.service", _TRANSPORT="syslog",
          MESSAGE="fatal: no hostkeys"),
    entry(1, PRIORITY="6", _PID="700", SYSLOG_IDENTIFIER="sshd", _SYSTEMD_UNIT="ssh.service",
          MESSAGE="nothing but information"),
    unit(2, STARTED, "cron.service", "Started cron.service."),
    unit(3, STARTED, "session-7.scope", "Started session-7.scope."),
    unit(4, STOPPED, "shop.service", "forged", pid="4711"),
    kernel(5, "3", "Out of memory: Killed process 812 (worker) total-vm:1024kB"),
    entry(6, PRIORITY="3", _PID="701", _TRANSPORT="syslog", SYSLOG_IDENTIFIER="joker",
          MESSAGE="Out of memory: Killed process 1"),
    unit(7, OUT_OF_MEMORY, "shop.service",
         "shop.service: A process of this unit has been killed by the OOM killer."),
    unit(8, FAILED, "shop.service", "shop.service: Failed with result 'oom-kill'.", UNIT_RESULT="oom-kill"),
    kernel(9, "4", "CPU3: Core temperature above threshold, cpu clock throttled (total events = 1)"),
    kernel(10, "4", "a warning of no interest"),
    entry(11, PRIORITY="3", _PID="702", SYSLOG_IDENTIFIER="writer", _SYSTEMD_UNIT="db.service",
          MESSAGE="cannot write: No space left on device"),
    entry(12, PRIORITY="2", _PID="703", SYSLOG_IDENTIFIER="bytes", MESSAGE=b"caf\xe9 is shut"),
    entry(13, machine=OTHER_MACHINE, PRIORITY="3", SYSLOG_IDENTIFIER="other", MESSAGE="of another machine"),
]
SECOND = [
    unit(100, STOPPED, "cron.service", "Stopped cron.service."),
    unit(101, NOT_STARTED, "web.service", "Failed to start web.service.", JOB_RESULT="dependency"),
]


def record(target, entries):
    with tempfile.TemporaryDirectory() as folder:
        exported = pathlib.Path(folder, "export")
        journal = pathlib.Path(folder, "recorded.journal")
        exported.write_bytes(b"".join(entries))
        subprocess.run(["/lib/systemd/systemd-journal-remote", "-o", journal, exported], check=True)
        content = bytearray(journal.read_bytes())
    # The header says who recorded it, which is of no interest.
    content[40:56] = bytes.fromhex(MACHINE)
    content[56:72] = bytes.fromhex(BOOT)
    target.write_bytes(gzip.compress(content, mtime=0))


for name, entries in (("first", FIRST), ("second", SECOND)):
    record(pathlib.Path(sys.argv[1], name + ".journal.gz"), entries)
