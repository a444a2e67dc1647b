#!/usr/bin/env python3
"""Writes tests/abi_layout_test.cpp: static_asserts on the layout of the public
structs (corVane_base and its descriptors, the schema and message descriptors,
the records and scalar payloads).

The struct list comes from the preprocessed headers; the numbers come from the
compilers: a probe program is built and run for the host (LP64) and for
arm-linux-gnueabihf and mips-linux-gnu through qemu (ILP32; both must agree).
Structs laid out alike on every target (fixed-width members only) get their
sizeof pinned; the structs holding pointers get sizeof and every member offset,
each written as a multiple of the pointer size P plus a constant, so that one
assert holds on both word sizes. Member offsets of the fixed-width structs are
left to the ABI baseline (abi/libCorvane.abi, tools/ci/60-abi.sh).

Run it from anywhere after a deliberate layout change (which also needs a new
ABI baseline, see abi/update-baseline.sh):
    python3 abi/gen_layout_asserts.py
"""
import pathlib
import re
import subprocess
import sys
import tempfile

ROOT = pathlib.Path(__file__).resolve().parent.parent
INCLUDE = ROOT / "include"
OUTPUT = ROOT / "tests" / "abi_layout_test.cpp"

# (name, compiler, runner prefix)
TARGETS = {
    "host": ("cc", []),
    "arm": ("arm-linux-gnueabihf-gcc", ["qemu-arm", "-L", "/usr/arm-linux-gnueabihf"]),
    "mips": ("mips-linux-gnu-gcc", ["qemu-mips", "-L", "/usr/mips-linux-gnu"]),
}


def public_structs():
    """[(struct tag, [member, ...])] in header order, from the preprocessed headers."""
    text = subprocess.run(["cc", "-E", "-std=c99", "-I", str(INCLUDE), "-"],
                          input='#include "corvane/corvane.h"\n', capture_output=True,
                          text=True, check=True).stdout
    # Keep only what the library's own headers contributed.
    kept, ours = [], False
    for line in text.splitlines():
        marker = re.match(r'#\s*\d+\s+"([^"]*)"', line)
        if marker:
            ours = "/corvane/" in marker.group(1)
        elif ours:
            kept.append(line)
    source = "\n".join(kept)
    structs = []
    for m in re.finditer(r"\bstruct\s+(\w+)\s*\{([^{}]*)\}", source):
        members = []
        for decl in m.group(2).split(";"):
            decl = decl.strip()
            if not decl:
                continue
            name = re.search(r"(\w+)\s*(\[[^\]]*\]\s*)*$", decl)
            if not name:
                sys.exit(f"cannot read member '{decl}' of {m.group(1)}")
            members.append(name.group(1))
        structs.append((m.group(1), members))
    return structs


def probe(structs, target, workdir):
    """{struct: (size, [offset per member])} as compiled for target."""
    compiler, runner = TARGETS[target]
    lines = ['#include <stddef.h>', '#include <stdio.h>', '#include "corvane/corvane.h"',
             "int main(void) {"]
    for tag, members in structs:
        lines.append(f'  printf("%s %zu", "{tag}", sizeof(struct {tag}));')
        for member in members:
            lines.append(f'  printf(" %zu", offsetof(struct {tag}, {member}));')
        lines.append('  printf("\\n");')
    lines += ["  return 0;", "}"]
    src = workdir / "probe.c"
    exe = workdir / f"probe-{target}"
    src.write_text("\n".join(lines) + "\n")
    subprocess.run([compiler, "-std=c99", "-I", str(INCLUDE), "-o", str(exe), str(src)],
                   check=True)
    out = subprocess.run(runner + [str(exe)], capture_output=True, text=True, check=True).stdout
    table = {}
    for row in out.splitlines():
        tag, size, *offsets = row.split()
        table[tag] = (int(size), [int(o) for o in offsets])
    return table


def in_pointers(lp64, ilp32, what):
    """lp64 and ilp32 as one C++ expression a * P + b, P the pointer size."""
    a, rest = divmod(lp64 - ilp32, 4)
    b = ilp32 - 4 * a
    if rest or a < 0:
        sys.exit(f"{what}: {lp64} on LP64 and {ilp32} on ILP32 is not a * P + b")
    if a == 0:
        return str(b)
    scaled = "P" if a == 1 else f"{a} * P"
    return scaled if b == 0 else f"{scaled} {'+' if b > 0 else '-'} {abs(b)}"


def packed(items, indent="    "):
    """Several asserts per line, wrapped before 100 columns."""
    lines, line = [], ""
    for item in items:
        if line and len(line) + 1 + len(item) > 99:
            lines.append(line)
            line = indent + item
        else:
            line = f"{line} {item}" if line else item
    lines.append(line)
    return lines


def main():
    structs = public_structs()
    with tempfile.TemporaryDirectory() as tmp:
        layouts = {t: probe(structs, t, pathlib.Path(tmp)) for t in TARGETS}
    if layouts["arm"] != layouts["mips"]:
        sys.exit("arm and mips lay the public structs out differently; pin each target")
    fixed, pointers = [], []
    for tag, members in structs:
        (size, offsets), (size32, offsets32) = layouts["host"][tag], layouts["arm"][tag]
        if (size, offsets) == (size32, offsets32):
            fixed.append(f"CV_SIZE({tag}, {size});")
            continue
        items = [f"CV_SIZE({tag}, {in_pointers(size, size32, tag)});"]
        # The first member is at 0 by definition; the others are pinned.
        for m, o, o32 in list(zip(members, offsets, offsets32))[1:]:
            items.append(f"CV_AT({tag}, {m}, {in_pointers(o, o32, tag + '.' + m)});")
        pointers += packed(items)

    out = [
        "// Generated by abi/gen_layout_asserts.py from include/corvane/*.h: do not edit.",
        "//",
        "// Pins sizeof of every public struct, and every member offset of the structs",
        "// that hold pointers, on 64- and 32-bit targets alike; the ABI baseline",
        "// abi/libCorvane.abi (tools/ci/60-abi.sh) covers every member offset of every",
        "// struct on x86_64. A failing assert is a layout change: if deliberate, it needs",
        "// a new baseline and soname, then a rerun of the generator.",
        "#include <cstddef>",
        "",
        '#include "corvane/corvane.h"',
        "",
        '#define CV_SIZE(T, n) static_assert(sizeof(struct T) == (n), "sizeof " #T)',
        "#define CV_AT(T, m, n) \\",
        '    static_assert(offsetof(struct T, m) == (n), "offsetof " #T "." #m)',
        "",
        "namespace {",
        "// The offsets below hold for these pointer sizes (checked by the generator).",
        "constexpr std::size_t P = sizeof(void *);",
        'static_assert(P == 8 || P == 4, "layouts verified for LP64 and ILP32 only");',
        "}  // namespace",
        "",
        f"// {len(structs) - len(fixed)} structs holding pointers.",
        *pointers,
        "",
        f"// {len(fixed)} structs of fixed-width members, laid out alike on every target.",
        *packed(fixed, indent=""),
    ]
    OUTPUT.write_text("\n".join(out) + "\n")
    print(f"{OUTPUT.relative_to(ROOT)}: {len(structs)} structs, "
          f"{len(structs) - len(fixed)} with pointers")


if __name__ == "__main__":
    main()
