#!/usr/bin/env python3
"""Writes the fuzzers' seed corpora into fuzz/corpus/<target>/.

Run it again after changing a seed here; the files are kept in the tree so
that a fuzz run needs nothing but the build. Layouts follow ipc/ipc_package.h
and include/quor/quor_bpf_records.h.
"""
import os
import struct

HERE = os.path.dirname(os.path.abspath(__file__))


def write(target, name, data):
    path = os.path.join(HERE, "corpus", target)
    os.makedirs(path, exist_ok=True)
    with open(os.path.join(path, name), "wb") as f:
        f.write(data)


def frame(package_type, body, length=None):
    package = struct.pack("<II", package_type, len(body)) + body
    return struct.pack("<q", len(package) if length is None else length) + package


def request(req_id, command, event_type):
    return frame(0, struct.pack("<IIIi", req_id, command, 4, event_type))


# service_receive_fuzzer: byte 0 cuts the stream (0 = byte by byte).
subscribe_all = b"".join(request(i, 51, t) for i, t in
                         enumerate([0, 1, 2, 3, 4, 5, 6, 7, 50001, 50002, 50003, 50004]))
write("service_receive_fuzzer", "subscribe_all", b"\xff" + subscribe_all)
write("service_receive_fuzzer", "subscribe_all_bytewise", b"\x00" + subscribe_all)
write("service_receive_fuzzer", "sub_unsub", b"\x01" + request(1, 51, 2) + request(2, 52, 2)
      + request(3, 52, 9) + request(4, 77, 2))
write("service_receive_fuzzer", "short_body", b"\x02" + frame(0, struct.pack("<III", 6, 52, 4)))
write("service_receive_fuzzer", "other_types", b"\x03" + frame(1, b"\0" * 24) + frame(3, b"\0" * 32)
      + frame(2, b"") + frame(9, b"abcd") + request(5, 51, 3))
write("service_receive_fuzzer", "negative_length", b"\x04" + struct.pack("<q", -16) + b"n" * 32)
write("service_receive_fuzzer", "huge_length", b"\x04" + struct.pack("<q", 1 << 40) + b"h" * 32)
write("service_receive_fuzzer", "inner_too_long", b"\x05" + struct.pack("<qII", 16, 0, 1000)
      + b"x" * 8 + request(6, 51, 1))
write("service_receive_fuzzer", "truncated", b"\x06" + request(7, 51, 5) + struct.pack("<q", 100)
      + b"t" * 50)
write("service_receive_fuzzer", "largest_frame", b"\x7f" + frame(0, struct.pack("<IIIi", 8, 51, 4, 2)
      + b"p" * (32768 - 8 - 8 - 16)) + request(9, 51, 2))
write("service_receive_fuzzer", "oversized_frame", b"\x7f" + frame(0, b"q" * (32768 - 8 - 8 + 1))
      + request(10, 51, 2))

# procfs_readers_fuzzer: one file's text, read as every kind of procfs file.
write("procfs_readers_fuzzer", "status",
      b"Name:\tsurfaceflinger\nUmask:\t0077\nState:\tS (sleeping)\nTgid:\t612\nNgid:\t0\n"
      b"Pid:\t612\nPPid:\t1\nTracerPid:\t0\nUid:\t1000\t1000\t1000\t1000\n"
      b"Gid:\t1003\t1003\t1003\t1003\nVmPeak:\t 2257928 kB\nVmRSS:\t   40000 kB\n"
      b"RssAnon:\t   12000 kB\nRssFile:\t   26000 kB\nRssShmem:\t    2000 kB\n"
      b"VmSwap:\t     512 kB\nThreads:\t27\n")
write("procfs_readers_fuzzer", "status_odd",
      b"Name:\ta name longer than sixteen bytes\nPPid:\t-1\nUid:\t4294967295\n"
      b"RssAnon:\t99999999999999999999 kB\nRssFile:\t-9223372036854775808 kB\nName:\t\0\0x\n")
write("procfs_readers_fuzzer", "stat",
      b"612 (surfaceflinger) S 1 612 0 0 -1 4210944 100 0 0 0 50 60 0 0 -2 0 27 0 1234 "
      b"2257928000 10000 18446744073709551615 1 1 0 0 0 0 0 0 0 0 0 0 0 0 0 0 0 0 0\n")
write("procfs_readers_fuzzer", "stat_blank_name",
      b"77 (a b  c) R 1 77 0 0 -1 0 0 0 0 0 0 0 0 0 20 0 x 0 99999999999999999999999 0\n")
write("procfs_readers_fuzzer", "fdinfo",
      b"pos:\t0\nflags:\t02000002\nmnt_id:\t15\nino:\t123456789012\nsize:\t4096\n"
      b"count:\t3\nexp_name:\tsystem-heap\n")
write("procfs_readers_fuzzer", "maps",
      b"7f1234560000-7f1234570000 rw-s 00000000 00:0f 4242                     /dmabuf:\n"
      b"7f1234570000-7f1234580000 r--p 00000000 fd:00 99                       /system/lib64/libc.so\n"
      b"7f1234580000-7f1234590000 rw-s 00000000 00:0f 4243                     /dmabuf:system-heap\n"
      b"ffffffffff600000-ffffffffff601000 --xp 00000000 00:00 0                  [vsyscall]\n"
      b"zz-yy a b c 18446744073709551616 /dmabuf\n-  1 2 3 4 /dmabuf\n")
write("procfs_readers_fuzzer", "long_line", b"Name:\t" + b"L" * 9000 + b"\nPPid:\t5")

# compat_rule_fuzzer: [property length byte][property][4 bytes running][compat]
def compat(prop, running, rule):
    # FuzzedDataProvider takes integers from the end of the data and strings
    # from the front; a backslash escapes the string's end.
    return prop.encode() + b"\\n" + rule.encode() + struct.pack("<i", running)


for i, (prop, running, rule) in enumerate([
        ("5.10", 5010, "5.0+"), ("6.1", 6001, "5.10-"), ("5.15", 5015, "5.4-5.15"),
        ("4.19", 4019, "4.19"), ("", 0, "5.10-android12"), ("5.999", 5999, "5.1000"),
        ("99999999999.1", -1, "-5.0+"), ("6.18.0-rc1", 6018, "6.18.3"),
        ("1.2", 1002, "1.5-1.2"), ("x.y", 0, "..+")]):
    write("compat_rule_fuzzer", "rule_%02d" % i, compat(prop, running, rule))

# event_views_fuzzer: whole records of every type, and damaged ones.
def header(event_type):
    return struct.pack("<IIQ", event_type, 0, 123456789)


records = {
    "task_init": header(0) + struct.pack("<iiii16sqqqqq", 612, 1, 1000, 27, b"surfaceflinger",
                                         1 << 20, 2 << 20, 4096, 0, 1700000000),
    "rss": header(1) + struct.pack("<iiq", 612, 1, 1 << 20),
    "fork": header(2) + struct.pack("<iii16sI", 1, 613, 613, b"zygote", 0)[:36].ljust(40, b"\0"),
    "exit": header(3) + struct.pack("<i16sI", 613, b"app", 0).ljust(28, b"\0"),
    "task_new": struct.pack("<Iiii16s", 50001, 613, 1, 10000, b"app"),
    "rss_change": struct.pack("<Iiii16s", 50004, 613, 1, 10000, b"app") + b"\x01" * 64,
}
for name, data in records.items():
    write("event_views_fuzzer", name, data)
write("event_views_fuzzer", "truncated_fork", header(2) + b"\x01" * 8)
write("event_views_fuzzer", "cgroup_unterminated", header(5) + struct.pack("<ii", 1, 2)
      + b"c" * 16 + b"/" * 300)
write("event_views_fuzzer", "unknown_type", struct.pack("<I", 50999) + b"\0" * 60)
