#!/usr/bin/env python3
"""Runs the BPF-labelled tests inside real Debian kernels under qemu.

Each column is one kernel series on one architecture (6.1-amd64, 6.12-arm64,
...). For each, an initramfs is built from the unpacked kernel's own modules
and busybox-static (scripts/vm/make-initramfs.py), qemu boots the kernel
under TCG with the host's root shared read-only over 9p, and the guest runs
scripts/vm/run-in-vm.sh on the tests CTest lists under the label (the build
tree of the column's architecture: BUILD for amd64, BUILD_ARM64 for arm64).
The result is one table: kernel, architecture, test, result and reason,
followed by the time each column took. Exit status 1 when a test failed or a
VM did not finish.

The kernels come from scripts/fetch-test-kernels.sh (run first, by `make
test-kernels`). KVM is not used: on a nested host it hangs stock kernels.
"""
import argparse
import json
import os
import shlex
import subprocess
import sys
import time

HERE = os.path.dirname(os.path.abspath(__file__))

QEMU = {
    "amd64": ["qemu-system-x86_64", "-accel", "tcg", "-cpu", "max"],
    "arm64": ["qemu-system-aarch64", "-M", "virt", "-accel", "tcg", "-cpu", "max"],
}
CONSOLE = {"amd64": "ttyS0", "arm64": "ttyAMA0"}


def test_plan(build, label, exclude, timeout):
    """name|folder|timeout|command lines for the tests CTest has under the label."""
    listing = subprocess.run(
        ["ctest", "--show-only=json-v1", "-L", label] + (["-LE", exclude] if exclude else []),
        cwd=build, check=True, stdout=subprocess.PIPE, text=True,
    ).stdout
    lines = []
    for test in json.loads(listing)["tests"]:
        # A cross build's commands carry the user-mode emulator: the guest
        # runs the binaries itself.
        command = [a for a in test["command"] if not os.path.basename(a).startswith("qemu-")]
        folder = build
        for prop in test.get("properties", []):
            if prop["name"] == "WORKING_DIRECTORY":
                folder = prop["value"]
        lines.append("|".join([test["name"], folder, str(timeout), shlex.join(command)]))
    return "\n".join(lines) + "\n"


def run_column(args, series, arch, out):
    kernel_dir = os.path.join(args.kernels, "%s-%s" % (series, arch))
    release = open(os.path.join(kernel_dir, "release")).read().strip()
    build = os.path.abspath(args.build if arch == "amd64" else args.build_arm64)
    os.makedirs(out, exist_ok=True)
    initrd = os.path.join(out, "initrd.gz")
    subprocess.run(
        [sys.executable, os.path.join(HERE, "vm", "make-initramfs.py"), kernel_dir,
         os.path.join(args.kernels, "busybox-%s" % arch, "bin", "busybox"),
         os.path.join(HERE, "vm", "init.sh"), initrd],
        check=True,
    )
    plan = os.path.join(out, "plan")
    with open(plan, "w") as f:
        f.write(test_plan(build, args.label, args.exclude, args.test_timeout))
    # One word per setting: the kernel splits its command line on spaces.
    append = [
        "console=%s" % CONSOLE[arch], "panic=-1", "loglevel=4",
        "quor.run=%s" % os.path.join(HERE, "vm", "run-in-vm.sh"), "quor.arg=%s" % plan,
    ]
    if arch != "amd64":
        append.append("quor.shell=busybox")
    command = QEMU[arch] + [
        "-smp", str(args.cpus), "-m", str(args.memory), "-nographic", "-no-reboot", "-net", "none",
        "-kernel", os.path.join(kernel_dir, "boot", "vmlinuz-" + release),
        "-initrd", initrd, "-append", " ".join(append),
        "-virtfs", "local,path=/,mount_tag=hostroot,security_model=none,readonly=on,multidevs=remap",
    ]
    results, ended = [], None
    start = time.monotonic()
    with open(os.path.join(out, "console.log"), "w") as log:
        vm = subprocess.Popen(command, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                              stderr=subprocess.STDOUT, text=True, errors="replace")
        try:
            for line in vm.stdout:
                log.write(line)
                log.flush()
                words = line.strip().split(" ", 4)
                if words[0] == "QUORVM-RESULT" and len(words) >= 4:
                    results.append((words[1], words[2], words[3], words[4] if len(words) > 4 else ""))
                    print("  %-10s %-6s %-32s %-8s %ss" % (series, arch, words[1], words[2], words[3]),
                          flush=True)
                elif words[0] == "QUORVM-END":
                    ended = words[1] if len(words) > 1 else "?"
                if time.monotonic() - start > args.vm_timeout:
                    break
        finally:
            if vm.poll() is None:
                vm.kill()
            vm.wait()
    seconds = time.monotonic() - start
    if ended is None:
        results.append(("(vm)", "failed", "", "the VM did not finish; see %s/console.log" % out))
    elif not results:
        # Nothing ran is no pass: the guest could not start the tests.
        results.append(("(vm)", "failed", "", "no test ran (exit %s); see %s/console.log"
                        % (ended, out)))
    return release, results, seconds


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    parser.add_argument("--kernels", required=True, help="folder of fetch-test-kernels.sh")
    parser.add_argument("--build", default="build")
    parser.add_argument("--build-arm64", default="build-arm64")
    parser.add_argument("--columns", default="6.1-amd64,6.12-amd64,6.1-arm64,6.12-arm64")
    parser.add_argument("--label", default="bpf")
    # The stress tests measure timing, which TCG's emulation distorts.
    parser.add_argument("--exclude", default="stress", help="labels left out ('' for none)")
    parser.add_argument("--out", default=None, help="console logs (default KERNELS/runs)")
    parser.add_argument("--cpus", type=int, default=2)
    parser.add_argument("--memory", type=int, default=2048, help="MiB")
    parser.add_argument("--test-timeout", type=int, default=600)
    parser.add_argument("--vm-timeout", type=int, default=3600)
    args = parser.parse_args()
    # The guest sees the host's files at the same absolute paths.
    args.kernels = os.path.abspath(args.kernels)
    out_root = os.path.abspath(args.out or os.path.join(args.kernels, "runs"))

    rows, times = [], []
    for column in args.columns.split(","):
        series, arch = column.split("-")
        print("test-kernels: %s %s" % (series, arch), flush=True)
        release, results, seconds = run_column(args, series, arch, os.path.join(out_root, column))
        times.append((release, arch, seconds, len(results)))
        rows += [(release, arch) + r for r in results]

    print()
    print("| kernel | arch | test | result | reason |")
    print("|---|---|---|---|---|")
    for release, arch, name, status, _, reason in rows:
        print("| %s | %s | %s | %s | %s |" % (release, arch, name, status, reason.replace("|", "/")))
    print()
    print("| kernel | arch | tests | minutes |")
    print("|---|---|---|---|")
    for release, arch, seconds, count in times:
        print("| %s | %s | %d | %.1f |" % (release, arch, count, seconds / 60))
    return 1 if any(r[3] == "failed" for r in rows) else 0


if __name__ == "__main__":
    sys.exit(main())
