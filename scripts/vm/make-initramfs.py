#!/usr/bin/env python3
"""make-initramfs.py KERNEL_DIR BUSYBOX INIT OUT

Writes a gzipped cpio (newc) initramfs for a test VM: the static busybox of
the guest's architecture as /bin/busybox, INIT as /init, and the modules the
VM needs from the unpacked kernel in KERNEL_DIR (virtio transport, 9p,
overlay, vgem), each with the modules it depends on, decompressed, listed in
load order in /modules/order. A module the kernel has built in is not
there and needs no loading.
"""
import gzip
import lzma
import os
import re
import sys

WANTED = ["virtio_pci", "virtio_mmio", "9pnet_virtio", "9p", "overlay", "vgem"]


def module_files(kernel_dir):
    release = open(os.path.join(kernel_dir, "release")).read().strip()
    root = os.path.join(kernel_dir, "lib", "modules", release, "kernel")
    found = {}
    for folder, _, files in os.walk(root):
        for name in files:
            m = re.match(r"(.*)\.ko(\.xz|\.zst)?$", name)
            if m:
                found[m.group(1).replace("-", "_")] = os.path.join(folder, name)
    return found


def module_bytes(path):
    if path.endswith(".xz"):
        return lzma.open(path).read()
    if path.endswith(".zst"):
        import subprocess

        return subprocess.run(["zstd", "-dc", path], check=True, stdout=subprocess.PIPE).stdout
    return open(path, "rb").read()


def load_order(files):
    order, data = [], {}

    def visit(name):
        if name in data or name not in files:
            return
        body = module_bytes(files[name])
        m = re.search(rb"\x00depends=([^\x00]*)\x00", body)
        deps = m.group(1).decode().split(",") if m else []
        data[name] = body
        for dep in deps:
            if dep:
                visit(dep.replace("-", "_"))
        order.append(name)

    for name in WANTED:
        visit(name)
    return order, data


class Cpio:
    def __init__(self):
        self.out = bytearray()
        self.ino = 1

    def add(self, name, mode, body=b"", target=None, rdev=(0, 0)):
        if target is not None:
            body = target.encode()
        name_bytes = name.encode() + b"\0"
        header = "070701" + "".join(
            "%08x" % v
            for v in (self.ino, mode, 0, 0, 1, 0, len(body), 0, 0, rdev[0], rdev[1], len(name_bytes), 0)
        )
        self.ino += 1
        self.out += header.encode() + name_bytes
        self.out += b"\0" * (-len(self.out) % 4)
        self.out += body
        self.out += b"\0" * (-len(self.out) % 4)

    def finish(self):
        self.add("TRAILER!!!", 0)
        return bytes(self.out)


def main():
    if len(sys.argv) != 5:
        sys.exit(__doc__)
    kernel_dir, busybox, init, out = sys.argv[1:]
    order, data = load_order(module_files(kernel_dir))
    cpio = Cpio()
    for folder in ("bin", "dev", "proc", "sys", "modules", "lower", "rw", "newroot"):
        cpio.add(folder, 0o40755)
    # The kernel opens it for init's output before anything is mounted.
    cpio.add("dev/console", 0o20600, rdev=(5, 1))
    cpio.add("bin/busybox", 0o100755, open(busybox, "rb").read())
    cpio.add("bin/sh", 0o120777, target="busybox")
    cpio.add("init", 0o100755, open(init, "rb").read())
    for name in order:
        cpio.add("modules/%s.ko" % name, 0o100644, data[name])
    cpio.add("modules/order", 0o100644, ("\n".join(order) + "\n").encode())
    with open(out + ".tmp", "wb") as f:
        f.write(gzip.compress(cpio.finish(), 6))
    os.rename(out + ".tmp", out)


if __name__ == "__main__":
    main()
