#!/usr/bin/env python3
"""Prints every ratio of a corvane_bench run and checks the targets.

Usage: ratios.py RESULTS.json [--time cpu|real]

RESULTS.json is Google Benchmark's --benchmark_out (JSON). With repetitions
the median aggregate of each benchmark is used; without, the single run.
Times are CPU time by default: on a shared machine wall time also counts the
time other processes held the core.

Targets are judged on the medians. Next to each one the same figure is shown
from the fastest repetition of each benchmark involved: on a shared machine
other tenants only ever add time, so that column shows what the code does
when the machine leaves it alone, and how far the median is from it.
"""
import json
import statistics
import sys


def load(path, field):
    with open(path) as f:
        data = json.load(f)
    medians, runs, fastest = {}, {}, {}
    for b in data["benchmarks"]:
        if b.get("error_occurred"):
            sys.exit(f"ratios.py: {b['name']} failed: {b.get('error_message')}")
        name = b.get("run_name", b["name"])
        scale = {"ns": 1.0, "us": 1e3, "ms": 1e6, "s": 1e9}[b.get("time_unit", "ns")]
        if b.get("run_type") == "aggregate":
            if b.get("aggregate_name") == "median":
                medians[name] = (b[field] * scale, b)
        else:
            runs.setdefault(name, []).append((b[field] * scale, b))
    out = dict(medians)
    for name, rs in runs.items():
        if name not in out:
            out[name] = (statistics.median(t for t, _ in rs), rs[0][1])
        fastest[name] = min(t for t, _ in rs)
    # Without the single runs (aggregates only) the median stands in.
    for name, (t, _) in out.items():
        fastest.setdefault(name, t)
    return data.get("context", {}), out, fastest


def main():
    if len(sys.argv) < 2:
        sys.exit(__doc__)
    field = "cpu_time"
    if "--time" in sys.argv:
        field = sys.argv[sys.argv.index("--time") + 1] + "_time"
    context, res, fastest = load(sys.argv[1], field)

    class Missing(Exception):
        pass

    def t(name):
        if name not in res:
            raise Missing(name)
        return res[name][0]

    def t_fastest(name):
        if name not in fastest:
            raise Missing(name)
        return fastest[name]

    def counter(name, key):
        if name not in res:
            raise Missing(name)
        return int(res[name][1][key])

    memcpy = lambda n, t=t: t(f"floor/memcpy/{n}")
    bswap = lambda n, t=t: t(f"floor/bswap/{n // 4}")

    print(f"\nTimes: median {field.replace('_', ' ')} per operation, ns "
          f"({context.get('num_cpus', '?')} CPUs at {context.get('mhz_per_cpu', '?')} MHz; "
          f"{context.get('library_build_type', '')} benchmark library; "
          f"malloc: {context.get('malloc', '?')})")

    # ---- every record -------------------------------------------------------
    records = []
    for name in res:
        parts = name.split("/")
        if parts[0] == "record" and parts[3] == "serialize":
            records.append((parts[1], parts[2]))
    records.sort(key=lambda r: (r[0].lower(), r[1] != "empty"))
    print("\nRecords: ratio to memcpy of the wire bytes (xM), and for scalar-only records to "
          "the byte-swap loop (xS); copy against memcpy of sizeof the record (xR)")
    hdr = (f"{'record':28} {'case':5} {'wire B':>7} {'ser ns':>9} {'xM':>6} {'xS':>6} "
           f"{'unser ns':>9} {'xM':>6} {'xS':>6} {'copy ns':>9} {'xR':>6} {'lg ns':>8}")
    print(hdr)
    print("-" * len(hdr))
    scalar_checks = []
    for rec, case in records:
        base = f"record/{rec}/{case}/"
        wire = counter(base + "serialize", "wire_bytes")
        size = counter(base + "serialize", "record_bytes")
        scalar = counter(base + "serialize", "scalar_only") == 1
        ser, uns, cpy, lg = (t(base + op) for op in ("serialize", "unserialize", "copy",
                                                     "serialize_lg"))
        m = memcpy(wire)
        xs = lambda v: f"{v / bswap(wire):6.2f}" if scalar else f"{'':6}"
        print(f"{rec:28} {case:5} {wire:7d} {ser:9.1f} {ser / m:6.2f} {xs(ser)} "
              f"{uns:9.1f} {uns / m:6.2f} {xs(uns)} {cpy:9.1f} {cpy / memcpy(size):6.2f} "
              f"{lg:8.1f}")
        if scalar:
            scalar_checks += [(f"{rec}/{case}/{op}", wire) for op in ("serialize", "unserialize")]

    # ---- targets --------------------------------------------------------------
    # Each row: (label, value, limit, better, unit), limit None for lines
    # given for information. Computed once from the medians and once from the
    # fastest repetitions; the labels and verdicts are the medians'.
    def targets(t):
        rows = []

        def target(label, value, limit, better="lower", unit="x"):
            rows.append((label, value, limit, better, unit))

        def info(label, value, unit):
            rows.append((label, value, None, "", unit))

        def attempt(f):
            # A target whose benchmarks were filtered out of this run is skipped.
            try:
                f()
            except Missing as e:
                rows.append((f"(not run: {e})", None, None, "", ""))

        def text_heavy(rec):
            base = f"record/{rec}/full/"
            m = memcpy(counter(base + "serialize", "wire_bytes"), t)
            target(f"{rec} full serialize / memcpy", t(base + "serialize") / m, 1.5)
            target(f"{rec} full unserialize / memcpy", t(base + "unserialize") / m, 1.5)

        for rec in ("CallingFeatures", "VoiceProfile"):
            attempt(lambda: text_heavy(rec))
        if scalar_checks:
            ratios = [(n, t(f"record/{n}") / bswap(wire, t)) for n, wire in scalar_checks]
            worst = max(ratios, key=lambda c: c[1])
            missed = [c for c in ratios if c[1] > 2.0]
            for case in ("full", "empty"):
                vals = [v for n, v in ratios if f"/{case}/" in n]
                target(f"scalar-only {case}: median of {len(vals)} (de)serialise / bswap",
                       statistics.median(vals), 2.0)
            target(f"scalar-only worst: {worst[0]} / bswap", worst[1], 2.0)
            target(f"scalar-only (de)serialisations over 2x, of {len(ratios)}", len(missed), 0,
                   unit="")

        def peer(rec, op):
            ours, theirs = t(f"peer/corvane/{rec}/{op}"), t(f"peer/protobuf/{rec}/{op}")
            target(f"protobuf {rec} {op} / ours ({theirs:.0f} / {ours:.0f} ns)",
                   theirs / ours, 3.0, better="higher")

        for rec in ("CallingFeatures", "VoiceProfile"):
            for op in ("encode", "decode"):
                attempt(lambda: peer(rec, op))

        def small_trip():
            small = "trip/SetLineCallState"
            target("trip SetLineCallState", t(small), 300, unit=" ns")
            info("  its prescribed memory work alone", t("floor/prescribed/SetLineCallState"),
                 " ns")

        attempt(small_trip)

        def large_trip():
            large = "trip/SetProfileConfig"
            lw = counter(large, "wire_bytes")
            target(f"trip SetProfileConfig / memcpy of {lw} B ({t(large):.0f} ns)",
                   t(large) / memcpy(lw, t), 3.0)
            # Not a target: what the interface's own allocations and copies cost.
            floor = t("floor/prescribed/SetProfileConfig")
            info(f"  its prescribed memory work alone ({floor:.0f} ns) / memcpy",
                 floor / memcpy(lw, t), "x")
            info("  trip / that prescribed memory work", t(large) / floor, "x")

        attempt(large_trip)
        return rows

    def shown(value, unit):
        if value is None:
            return ""
        return f"{value}{unit}" if isinstance(value, int) else f"{value:.2f}{unit}"

    lines = []
    for (label, value, limit, better, unit), fast in zip(targets(t), targets(t_fastest)):
        if value is None:
            verdict = "skipped"
        elif limit is None:
            verdict = "info"
        else:
            ok = value <= limit if better == "lower" else value >= limit
            verdict = "ok" if ok else "MISSED"
        rel = "<=" if better == "lower" else ">="
        bound = f"{rel} {limit:g}{unit}" if limit is not None else ""
        lines.append((label, shown(value, unit), bound, verdict, shown(fast[1], fast[4])))

    print("\nTargets (judged on the medians; the last column is the same figure from the "
          "fastest repetitions)")
    w = max(len(r[0]) for r in lines)
    for label, value, bound, verdict, fast in lines:
        print(f"  {label:{w}}  {value:>10}  {bound:>10}  {verdict:7} {fast:>10}")
    missed = sum(1 for r in lines if r[3] == "MISSED")
    checked = sum(1 for r in lines if r[3] not in ("skipped", "info"))
    print(f"\n{checked - missed} of {checked} targets met")

if __name__ == "__main__":
    main()
