#!/usr/bin/env python3
"""Writes the C table of BPF object bytes that kernel/quor_bpf_objects.h
declares, for the platform build (Android.bp's genrule).

    embed_bpf_objects.py --out quor_bpf_objects_data.c NAME=PATH...

The output is byte for byte what kernel/embed_objects.cmake writes for the
CMake build; scripts/check-android-bp.py compares the two.
"""
import argparse
import sys


def render(objects):
    body = '#include "quor_bpf_objects.h"\n\n'
    entries = ""
    for index, (name, data) in enumerate(objects):
        # One line of bytes: CMake's regular expressions have no {n}, so the
        # line breaks embed_objects.cmake asks for never happen.
        cells = "".join("0x%02x," % b for b in data)
        body += "static const unsigned char object_%d[%d] = {\n%s\n};\n\n" % (
            index, len(data), cells)
        entries += '    {"%s", object_%d, %d},\n' % (name, index, len(data))
    body += "const struct quor_bpf_embedded_object quor_bpf_embedded_objects[] = {\n%s};\n" % entries
    body += "const unsigned quor_bpf_embedded_object_count = %d;\n" % len(objects)
    return body


def main(argv):
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--out", required=True)
    parser.add_argument("objects", nargs="+", metavar="NAME=PATH")
    args = parser.parse_args(argv)
    objects = []
    for pair in args.objects:
        name, sep, path = pair.partition("=")
        if not sep or not name:
            parser.error("expected NAME=PATH, got %r" % pair)
        with open(path, "rb") as f:
            objects.append((name, f.read()))
    with open(args.out, "w") as f:
        f.write(render(objects))
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
