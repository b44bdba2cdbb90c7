#!/usr/bin/env python3
"""Checks that Android.bp builds what the CMake build builds.

    check-android-bp.py --manifest <build>/android_bp/cmake_build.json \\
                        --android-bp Android.bp

The manifest is written by cmake/QuorAndroidBp.cmake at configure time. For
every library and program the CMake build ships there must be a module of the
same name (libraries prefixed "lib") with the same sources and version
script, built with the same warning and visibility flags (cc_defaults
"quorbpf_defaults"); for every programme object embedded by kernel/ a bpf
module "<object>.o" on the same source with the same clang flags; the genrule
that embeds the objects must name exactly those, and scripts/
embed_bpf_objects.py must write the very table the CMake build wrote. No
module may be left over. Prints each difference; exits 1 when there is one.
"""
import argparse
import json
import os
import re
import sys

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
import embed_bpf_objects  # noqa: E402


class BlueprintError(Exception):
    pass


_TOKEN = re.compile(r'''
    (?P<space>\s+) | (?P<comment>//[^\n]*|/\*.*?\*/) |
    (?P<string>"(?:[^"\\]|\\.)*") | (?P<ident>[A-Za-z_][A-Za-z0-9_]*) |
    (?P<int>-?[0-9]+) | (?P<punct>\+=|[{}\[\]:,=+])
''', re.VERBOSE | re.DOTALL)


def _tokens(text):
    pos = 0
    while pos < len(text):
        m = _TOKEN.match(text, pos)
        if not m:
            line = text.count("\n", 0, pos) + 1
            raise BlueprintError("line %d: unexpected %r" % (line, text[pos:pos + 10]))
        pos = m.end()
        kind = m.lastgroup
        if kind in ("space", "comment"):
            continue
        value = m.group(kind)
        if kind == "string":
            value = json.loads(value)
        elif kind == "int":
            value = int(value)
        yield kind, value
    yield "end", None


class _Parser:
    """Blueprint: assignments and modules, values are strings, integers,
    booleans, lists, maps, variables and their concatenation with '+'."""

    def __init__(self, text):
        self.tokens = list(_tokens(text))
        self.pos = 0
        self.variables = {}

    def peek(self):
        return self.tokens[self.pos]

    def take(self, kind=None, value=None):
        tok = self.tokens[self.pos]
        if (kind and tok[0] != kind) or (value is not None and tok[1] != value):
            raise BlueprintError("expected %s, got %r" % (value or kind, tok[1]))
        self.pos += 1
        return tok[1]

    def parse(self):
        modules = []
        while self.peek()[0] != "end":
            name = self.take("ident")
            if self.peek() in (("punct", "="), ("punct", "+=")):
                op = self.take("punct")
                value = self.expr()
                self.variables[name] = (self._concat(self.variables[name], value)
                                        if op == "+=" else value)
            else:
                self.take("punct", "{")
                props = self.props("}")
                modules.append((name, props))
        return modules

    def props(self, closing):
        props = {}
        while self.peek() != ("punct", closing):
            key = self.take("ident")
            self.take("punct", ":")
            props[key] = self.expr()
            if self.peek() == ("punct", ","):
                self.take()
        self.take("punct", closing)
        return props

    def expr(self):
        value = self.value()
        while self.peek() == ("punct", "+"):
            self.take()
            value = self._concat(value, self.value())
        return value

    @staticmethod
    def _concat(a, b):
        if type(a) is not type(b):
            raise BlueprintError("cannot join %r and %r" % (a, b))
        return a + b

    def value(self):
        kind, value = self.peek()
        if kind in ("string", "int"):
            self.take()
            return value
        if kind == "ident":
            self.take()
            if value in ("true", "false"):
                return value == "true"
            if value not in self.variables:
                raise BlueprintError("unknown variable %s" % value)
            return self.variables[value]
        if (kind, value) == ("punct", "["):
            self.take()
            items = []
            while self.peek() != ("punct", "]"):
                items.append(self.expr())
                if self.peek() == ("punct", ","):
                    self.take()
            self.take()
            return items
        if (kind, value) == ("punct", "{"):
            self.take()
            return self.props("}")
        raise BlueprintError("unexpected %s" % ("end of file" if kind == "end" else repr(value)))


def parse_blueprint(text):
    return _Parser(text).parse()


def module_name(target):
    if target["type"] == "EXECUTABLE" or target["name"].startswith("lib"):
        return target["name"]
    return "lib" + target["name"]


CC_TYPES = {
    "STATIC_LIBRARY": "cc_library_static",
    "SHARED_LIBRARY": "cc_library_shared",
    "EXECUTABLE": "cc_binary",
}
DEFAULTS = "quorbpf_defaults"


def check(manifest, modules, source_dir):
    problems = []
    by_name = {}
    for mtype, props in modules:
        name = props.get("name")
        if name in by_name:
            problems.append("Android.bp: two modules named %s" % name)
        by_name[name] = (mtype, props)

    # cc_defaults: the flags every CMake target gets.
    defaults = by_name.get(DEFAULTS, (None, {}))[1]
    cflags = defaults.get("cflags", [])
    for flag in manifest["compile_options"]:
        if flag not in cflags:
            problems.append("%s: cflags lack %s (CMake compiles with it)" % (DEFAULTS, flag))
    if manifest["visibility"] == "hidden":
        if "-fvisibility=hidden" not in cflags:
            problems.append("%s: cflags lack -fvisibility=hidden" % DEFAULTS)
        if "-fvisibility-inlines-hidden" not in defaults.get("cppflags", []):
            problems.append("%s: cppflags lack -fvisibility-inlines-hidden" % DEFAULTS)
    if defaults.get("cpp_std") != "c++" + manifest["cxx_standard"]:
        problems.append("%s: cpp_std is %r, CMake builds c++%s" % (
            DEFAULTS, defaults.get("cpp_std"), manifest["cxx_standard"]))

    # One cc module per CMake library or program.
    expected_cc = set()
    for target in manifest["targets"]:
        name = module_name(target)
        expected_cc.add(name)
        where = "%s (CMake target %s)" % (name, target["name"])
        if name not in by_name:
            problems.append("%s: no module in Android.bp" % where)
            continue
        mtype, props = by_name[name]
        if mtype != CC_TYPES[target["type"]]:
            problems.append("%s: is %s, CMake builds a %s" % (where, mtype, target["type"]))
        if DEFAULTS not in props.get("defaults", []):
            problems.append("%s: does not use %s" % (where, DEFAULTS))
        plain = sorted(s for s in target["srcs"] if not s.startswith("generated:"))
        generated = sorted(s.split(":", 1)[1] for s in target["srcs"] if s.startswith("generated:"))
        srcs = sorted(props.get("srcs", []))
        for s in sorted(set(plain) - set(srcs)):
            problems.append("%s: lacks source %s" % (where, s))
        for s in sorted(set(srcs) - set(plain)):
            problems.append("%s: has source %s, which CMake does not build" % (where, s))
        outs = []
        for gen in props.get("generated_sources", []):
            rule = by_name.get(gen)
            if rule is None or rule[0] != "genrule":
                problems.append("%s: generated_sources names %s, not a genrule" % (where, gen))
            else:
                outs.extend(rule[1].get("out", []))
        if sorted(outs) != generated:
            problems.append("%s: generates %s, CMake generates %s" % (where, outs, generated))
        if target["version_script"] != props.get("version_script", ""):
            problems.append("%s: version_script %r, CMake links with %r" % (
                where, props.get("version_script", ""), target["version_script"]))

    for name, (mtype, _) in sorted(by_name.items()):
        if mtype in CC_TYPES.values() and name not in expected_cc:
            problems.append("%s: %s that the CMake build does not have" % (name, mtype))

    problems += check_bpf(manifest, by_name, source_dir)
    return problems


def check_bpf(manifest, by_name, source_dir):
    problems = []
    # The objects the CMake build embeds, from the table it wrote.
    table_path = manifest["bpf_embedded_table"]
    with open(table_path) as f:
        table = f.read()
    embedded = re.findall(r'\{"(\w+)", object_\d+, \d+\}', table)
    if not embedded:
        return ["%s: no embedded objects found" % table_path]

    # Their sources, as kernel/CMakeLists.txt names them.
    with open(os.path.join(source_dir, "kernel", "CMakeLists.txt")) as f:
        declared = dict(re.findall(r"^quor_bpf_object\((\w+)\s+(\S+)\)", f.read(), re.M))

    # Flags: CMake's, less the target, the architecture and the include paths
    # (those differ by design: the platform is arm64, its headers its own).
    flags = []
    skip_next = False
    for flag in manifest["bpf_flags"]:
        if skip_next:
            skip_next = False
            continue
        if flag in ("-target", "-idirafter"):
            skip_next = True
            continue
        if flag.startswith("-I") or flag.startswith("-D__TARGET_ARCH_"):
            continue
        flags.append(flag)
    flags.append("-D__TARGET_ARCH_arm64")

    wanted = set()
    for obj in embedded:
        name = obj + ".o"
        wanted.add(name)
        if name not in by_name or by_name[name][0] != "bpf":
            problems.append("%s: no bpf module for the embedded object %s" % (name, obj))
            continue
        props = by_name[name][1]
        src = declared.get(obj)
        if src is None:
            problems.append("%s: kernel/CMakeLists.txt declares no object %s" % (name, obj))
        elif props.get("srcs") != ["kernel/" + src]:
            problems.append("%s: srcs %s, CMake builds kernel/%s" % (name, props.get("srcs"), src))
        cflags = props.get("cflags", [])
        for flag in flags:
            if flag not in cflags:
                problems.append("%s: cflags lack %s" % (name, flag))
        for flag in cflags:
            if flag not in flags:
                problems.append("%s: cflag %s, which CMake does not use" % (name, flag))
    for name, (mtype, _) in sorted(by_name.items()):
        if mtype == "bpf" and name not in wanted:
            problems.append("%s: bpf module for an object CMake does not embed" % name)

    # The genrule embeds exactly those objects, with the same table writer.
    rule = by_name.get("quor_bpf_objects_data", (None, {}))[1]
    srcs = sorted(rule.get("srcs", []))
    if srcs != sorted(":" + n for n in wanted):
        problems.append("quor_bpf_objects_data: srcs %s, expected the bpf modules %s" % (
            srcs, sorted(wanted)))
    objects = []
    kernel_build = os.path.dirname(table_path)
    for obj in embedded:
        with open(os.path.join(kernel_build, obj + ".bpf.o"), "rb") as f:
            objects.append((obj, f.read()))
    if embed_bpf_objects.render(objects) != table:
        problems.append("scripts/embed_bpf_objects.py writes another table than "
                        "kernel/embed_objects.cmake (%s)" % table_path)
    return problems


def main(argv):
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--manifest", required=True)
    parser.add_argument("--android-bp", required=True)
    args = parser.parse_args(argv)
    with open(args.manifest) as f:
        manifest = json.load(f)
    with open(args.android_bp) as f:
        try:
            modules = parse_blueprint(f.read())
        except BlueprintError as e:
            print("%s: %s" % (args.android_bp, e))
            return 1
    problems = check(manifest, modules, manifest["source_dir"])
    for p in problems:
        print(p)
    print("Android.bp: %d modules, %d CMake targets, %d differences" % (
        len(modules), len(manifest["targets"]), len(problems)))
    return 1 if problems else 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
