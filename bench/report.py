#!/usr/bin/env python3
"""Turns the benchmark results into the tables of docs/PERFORMANCE.md.

Reads the JSON of loginstorage_bench and loginstorage_bench_sweep and the
lines of loginstorage_memory_per_record, takes the median of the repetitions
of every benchmark, sets each operation against its floor from the same run,
and writes the tables between the markers of the report, a data file and a
gnuplot chart of the folder store's cost against record size. Prints the
tables as well.

Times: memory benchmarks use CPU time (a shared machine preempts; the CPU
time of a lookup is what it costs), folder benchmarks use wall time (a
caller waits for the disk too). Per-record figures divide a pass by its
records.
"""
import argparse
import json
import re
import statistics
import subprocess
import sys
from pathlib import Path

BEGIN = "<!-- BEGIN GENERATED: scripts/run-benchmarks rewrites from here -->"
END = "<!-- END GENERATED -->"
SIZES = [100, 1024, 4096]


def load(paths):
    runs = {}
    context = None
    errors = []
    for path in paths:
        data = json.loads(Path(path).read_text())
        context = context or data.get("context", {})
        for b in data["benchmarks"]:
            if b.get("error_occurred"):
                errors.append(f"{b['name']}: {b.get('error_message', '?')}")
                continue
            if b.get("run_type") != "iteration":
                continue
            name = re.sub(r"/iterations:\d+", "", b["name"])
            real = name.endswith("/real_time")
            name = name.replace("/real_time", "")
            scale = {"ns": 1, "us": 1e3, "ms": 1e6, "s": 1e9}[b.get("time_unit", "ns")]
            t = (b["real_time"] if real else b["cpu_time"]) * scale
            records = b.get("records")
            if records:
                t /= records
            entry = runs.setdefault(name, {"times": [], "allocs": [], "pairs": [], "others": [],
                                           "counters": []})
            entry["times"].append(t)
            if "allocs" in b:
                entry["allocs"].append(b["allocs"])
            if "ratio" in b:
                entry["pairs"].append((b["op_ns"], b["floor_ns"], b["ratio"]))
            if "other_ratio" in b:
                entry["others"].append((b["other_ns"], b["other_ratio"]))
            entry["counters"].append({k: v for k, v in b.items()
                                      if k.endswith("_ns") or k.endswith("_ratio")})
    return runs, context, errors


class Results:
    def __init__(self, runs):
        self.runs = runs

    def has(self, name):
        return name in self.runs

    def median(self, name):
        return statistics.median(self.runs[name]["times"])

    def spread(self, name):
        t = self.runs[name]["times"]
        if len(t) < 2:
            return None
        return (max(t) - min(t)) / statistics.median(t)

    def reps(self, name):
        return len(self.runs[name]["times"])

    def paired(self, name):
        """Medians of (operation, floor, ratio) over the repetitions, and the ratio's spread."""
        pairs = self.runs[name]["pairs"]
        if not pairs:
            return None
        ratios = [p[2] for p in pairs]
        spread = (max(ratios) - min(ratios)) / statistics.median(ratios) if len(ratios) > 1 else None
        return (statistics.median(p[0] for p in pairs), statistics.median(p[1] for p in pairs),
                statistics.median(ratios), spread)

    def paired_spreads(self, name):
        """Spreads of the operation's and of the floor's time over the repetitions."""
        pairs = self.runs[name]["pairs"]
        return spread_of([p[0] for p in pairs]), spread_of([p[1] for p in pairs])

    def other(self, name):
        """Median time, spread and median ratio to the floor of a middle contender."""
        others = self.runs[name]["others"]
        if not others:
            return None
        times = [o[0] for o in others]
        return (statistics.median(times), spread_of(times),
                statistics.median(o[1] for o in others))

    def counter(self, name, counter):
        """Median of a counter over the repetitions, and its spread; None if absent."""
        values = [c[counter] for c in self.runs.get(name, {}).get("counters", []) if counter in c]
        if not values:
            return None
        return statistics.median(values), spread_of(values)

    def allocs(self, name):
        a = self.runs[name]["allocs"]
        return statistics.median(a) if a else None


def spread_of(values):
    if len(values) < 2:
        return None
    return (max(values) - min(values)) / statistics.median(values)


def ns(value):
    if value >= 100000:
        return f"{value / 1000:,.0f} µs"
    if value >= 10000:
        return f"{value / 1000:.1f} µs"
    if value >= 100:
        return f"{value:,.0f} ns"
    return f"{value:.1f} ns"


def pct(value):
    return "–" if value is None else f"±{value * 50:.0f} %"


def verdict(ratio, goal):
    if goal is None or ratio is None:
        return ""
    return "met" if ratio <= goal else "**missed**"


class Table:
    def __init__(self, title, header):
        self.lines = [f"#### {title}", "", "| " + " | ".join(header) + " |",
                      "|" + "|".join("---" for _ in header) + "|"]

    def row(self, *cells):
        self.lines.append("| " + " | ".join(str(c) for c in cells) + " |")

    def text(self):
        return "\n".join(self.lines) + "\n"


def ratio_rows(r, table, rows):
    """rows: (label, operation, floor, goal)."""
    for label, op, floor, goal in rows:
        if not (r.has(op) and r.has(floor)):
            continue
        ratio = r.median(op) / r.median(floor)
        alloc = r.allocs(op)
        table.row(label, ns(r.median(op)), pct(r.spread(op)), ns(r.median(floor)),
                  pct(r.spread(floor)), f"{ratio:.2f}x",
                  "" if goal is None else f"≤ {goal}x", verdict(ratio, goal),
                  "" if alloc is None else f"{alloc:.0f}")


RATIO_HEADER = ["operation", "median", "spread", "floor", "floor spread", "ratio", "goal",
                "", "allocs/op"]


def growth_sizes(r, prefix):
    return sorted(int(k.rsplit("/", 1)[1]) for k in r.runs if k.startswith(prefix + "/"))


def build(r, memory, short):
    out = []
    # --- hot reads and writes in memory
    t = Table("Memory stores: hot reads and writes (CPU time per operation)", RATIO_HEADER)
    rows = []
    paired_sizes = memory_hit_sizes(r)
    for n in growth_sizes(r, "floor:map_get"):
        # Where the paired table below covers the size, it judges the goals.
        paired = n in paired_sizes
        rows.append((f"MemStorage::get hit, {n:,} records", f"lib:mem_get_hit/{n}",
                     f"floor:map_get/{n}", None if paired else 1.5))
        rows.append((f"CacheStorage::get fresh hit, {n:,} records", f"lib:cache_get_hit/{n}",
                     f"floor:map_get/{n}", None if paired else 2.0))
    rows.append(("MemStorage::set, replacing", "lib:mem_set/1000", "floor:map_set/1000", None))
    rows.append(("CacheStorage::set over MemStorage", "lib:cache_set/1000", "floor:map_set/1000",
                 None))
    rows.append(("cached stack get, hot (folder behind)", "lib:stack_get_hot/1024",
                 "floor:map_get/1000", 2.0))
    ratio_rows(r, t, rows)
    out.append(t.text())
    out.append("Floors: a bare `std::unordered_map<std::string, RefCountPtr<IStorable>>` find "
               "plus a copy of the pointer (reads); `map[obj->getKey()] = obj` (writes). "
               "Keys are 22 bytes.\n")

    out.append(memory_hit_table(r))

    # --- tracing off, paired
    t = Table("Tracing off, paired: blocks of 1,000 calls alternating between the shared "
              "library and the copy with the trace macros compiled out (wall time per call)",
              ["operation", "traced, off", "compiled out", "difference", "ratio spread",
               "traced calls", "per traced call", "goal", ""])
    for op, calls in (("mem_get_hit", 3), ("cache_get_hit", 4), ("mem_set", 1),
                      ("cache_set", 3)):
        key = f"paired:trace_{op}"
        if r.has(key) and r.paired(key):
            traced, untraced, ratio, spread = r.paired(key)
            per = (traced - untraced) / calls
            t.row(f"{op}, 1,000 records", ns(traced), ns(untraced), f"{traced - untraced:+.2f} ns",
                  pct(spread), calls, f"{per:+.2f} ns", "≤ 2 ns", verdict(per, 2.0))
    out.append(t.text())
    out.append("Traced calls: `MemStorage::get` hit = get, MemRecord::expired, "
               "MemRecord::getStorable; `CacheStorage::get` hit adds cleanup; `MemStorage::set` "
               "= set; `CacheStorage::set` = set, cleanup and the backing store's set.\n")

    # --- tracing off, unpaired
    t = Table("Tracing off, unpaired: separate benchmarks, for the table sizes and sweeps "
              "(CPU time; noise of a shared machine included)",
              ["operation", "traced, off", "compiled out", "difference",
               "traced calls", "per traced call"])
    traced_calls = {"mem_get_hit": 3, "cache_get_hit": 4, "mem_set": 1, "cache_set": 3}
    for op, calls in traced_calls.items():
        for key in sorted((k for k in r.runs if k.startswith(f"lib:{op}/")),
                          key=lambda k: int(k.rsplit("/", 1)[1])):
            other = key.replace("lib:", "notrace:")
            if not r.has(other):
                continue
            diff = r.median(key) - r.median(other)
            per = diff / calls
            t.row(key.replace("lib:", ""), ns(r.median(key)), ns(r.median(other)),
                  f"{diff:+.1f} ns", calls, f"{per:+.1f} ns")
    for op in ("mem_cleanup", "cache_cleanup"):
        for n in growth_sizes(r, f"lib:{op}"):
            key, other = f"lib:{op}/{n}", f"notrace:{op}/{n}"
            if r.has(other):
                diff = r.median(key) - r.median(other)
                t.row(f"{op} per record, {n:,}", ns(r.median(key)), ns(r.median(other)),
                      f"{diff:+.1f} ns", 1, f"{diff:+.1f} ns")
    out.append(t.text())

    # --- growth
    t = Table("Growth: cost per operation or per record as the table grows (CPU time)",
              ["operation"] + [f"{n:,}" for n in growth_sizes(r, "floor:map_get")] +
              ["largest / smallest", "goal", "", "ratio to floor, smallest → largest"])

    def growth_row(label, prefix, goal, floor=None):
        have = [n for n in growth_sizes(r, prefix) if r.has(f"{prefix}/{n}")]
        if not have:
            return
        cells = [ns(r.median(f"{prefix}/{n}")) if r.has(f"{prefix}/{n}") else "–"
                 for n in growth_sizes(r, "floor:map_get")]
        lo, hi = f"{prefix}/{have[0]}", f"{prefix}/{have[-1]}"
        ratio = r.median(hi) / r.median(lo)
        against = ""
        if floor and r.has(f"{floor}/{have[0]}") and r.has(f"{floor}/{have[-1]}"):
            against = (f"{r.median(lo) / r.median(f'{floor}/{have[0]}'):.2f}x → "
                       f"{r.median(hi) / r.median(f'{floor}/{have[-1]}'):.2f}x")
        t.row(label, *cells, f"{ratio:.2f}x", "" if goal is None else f"≤ {goal}x",
              verdict(ratio, goal), against)

    growth_row("bare map hit (floor)", "floor:map_get", None)
    growth_row("MemStorage::get hit", "lib:mem_get_hit", 2.0, "floor:map_get")
    growth_row("CacheStorage::get fresh hit", "lib:cache_get_hit", 2.0, "floor:map_get")
    growth_row("bare map walk per record (floor)", "floor:map_sweep", None)
    growth_row("MemStorage::cleanup per record, traced", "lib:mem_cleanup", 2.0,
               "floor:map_sweep")
    growth_row("MemStorage::cleanup per record, compiled out", "notrace:mem_cleanup", 2.0,
               "floor:map_sweep")
    growth_row("CacheStorage::cleanup per record, traced", "lib:cache_cleanup", 2.0,
               "floor:map_sweep")
    growth_row("CacheStorage::cleanup per record, compiled out", "notrace:cache_cleanup", 2.0,
               "floor:map_sweep")
    growth_row("bare map clear per record (floor)", "floor:map_clear", None)
    growth_row("MemStorage::delAll per record", "lib:mem_delAll", 2.0, "floor:map_clear")
    out.append(t.text())
    sweep = [(n, r.median(f"notrace:mem_cleanup/{n}")) for n in growth_sizes(r, "notrace:mem_cleanup")]
    if sweep:
        worst = max(v for _, v in sweep)
        out.append(f"Sweep with tracing compiled out: at most {worst:.1f} ns per record walked "
                   f"(goal ≤ 30 ns): {verdict(worst, 30.0) or 'n/a'}.\n")

    t = Table("Folder store: iteration and delAll as the folder grows (1 KiB records, wall "
              "time per record)", ["operation", "records", "median", "spread", "floor",
                                   "ratio", "goal", ""])
    for label, op, floor in (("iteration (getNextRaw)", "lib:fs_iterate_n", "floor:fs_iterate_n"),
                             ("delAll", "lib:fs_delAll_n", "floor:fs_remove_all_n")):
        for n in growth_sizes(r, op):
            a, b = f"{op}/{n}", f"{floor}/{n}"
            if r.has(a) and r.has(b):
                ratio = r.median(a) / r.median(b)
                t.row(label, f"{n:,}", ns(r.median(a)), pct(r.spread(a)), ns(r.median(b)),
                      f"{ratio:.2f}x", "≤ 1.2x", verdict(ratio, 1.2))
    out.append(t.text())

    # --- folder store, paired
    t = Table("Folder store against its floors, paired: blocks of the operation and of its "
              "floor alternate on the same records (wall time per record)",
              ["operation", "size", "median", "floor", "ratio", "ratio spread", "goal", ""])
    for label, key, goal in (
            ("FileSystemStorage::getRaw (floor: open, fstat, read, close)", "paired:fs_read", 1.2),
            ("FileSystemStorage::setRaw (floor: cheapest atomic replace)", "paired:fs_write", 1.1),
            ("iteration per record (floor: readdir plus the read floor)", "paired:fs_iterate",
             1.2)):
        for size in SIZES:
            name = f"{key}/{size}"
            if r.has(name) and r.paired(name):
                op, floor, ratio, spread = r.paired(name)
                t.row(label, size, ns(op), ns(floor), f"{ratio:.2f}x", pct(spread), f"≤ {goal}x",
                      verdict(ratio, goal))
    for label, name, goal in (
            ("FileSystemStorage::getRaw, missing key (floor: an open() that fails)",
             "paired:fs_get_missing", 1.2),
            ("FileSystemStorage::isInStorage (floor: stat())", "paired:fs_isInStorage", 1.1)):
        if r.has(name) and r.paired(name):
            op, floor, ratio, spread = r.paired(name)
            t.row(label, "–", ns(op), ns(floor), f"{ratio:.2f}x", pct(spread), f"≤ {goal}x",
                  verdict(ratio, goal))
    out.append(t.text())

    # --- folder store by size
    t = Table("Folder store by record size, unpaired (wall time per record; fresh folder per "
              "repetition; the goals are judged on the paired table above)",
              ["operation", "size"] + RATIO_HEADER[1:-1])
    rows = []
    for size in SIZES:
        rows += [
            (f"FileSystemStorage::getRaw", f"lib:fs_getRaw/{size}", f"floor:fs_read/{size}", 1.2),
            (f"FileSystemStorage::setRaw", f"lib:fs_setRaw/{size}",
             f"floor:fs_write_atomic/{size}", 1.1),
            (f"plain overwrite (not atomic)", f"floor:fs_write_plain/{size}",
             f"floor:fs_write_atomic/{size}", None),
            (f"iteration per record", f"lib:fs_iterate/{size}", f"floor:fs_iterate/{size}", 1.2),
            (f"ObjectStorage::get", f"lib:obj_get/{size}", f"floor:fs_read/{size}", None),
            (f"ObjectStorage::getNext per record", f"lib:obj_getNext/{size}",
             f"floor:fs_iterate/{size}", None),
            (f"cached stack get, cold", f"lib:stack_get_cold/{size}", f"floor:fs_read/{size}",
             None),
        ]
    for label, op, floor, goal in rows:
        if not (r.has(op) and r.has(floor)):
            continue
        size = op.rsplit("/", 1)[1]
        ratio = r.median(op) / r.median(floor)
        t.row(label, size, ns(r.median(op)), pct(r.spread(op)), ns(r.median(floor)),
              pct(r.spread(floor)), f"{ratio:.2f}x", "" if goal is None else f"≤ {goal}x", "")
    out.append(t.text())
    out.append("Floors are the cheapest way to do each operation at all, not the store's own "
               "sequence: open, fstat, read, close (read); the cheapest atomic replace, a new "
               "file under a temporary name (open with O_CREAT | O_EXCL, write, close) renamed "
               "over the record (write); an open() that fails (missing key); stat() "
               "(isInStorage); readdir plus the read floor per entry (iteration). The plain "
               "overwrite row compares open(O_TRUNC), write, close, which is not atomic, against "
               "the atomic replace.\n")

    # --- other stores
    t = Table("The same workload in LMDB and SQLite (wall time per record)",
              ["store", "operation", "size", "median", "spread", "folder store", "ratio to folder store",
               "cached stack hot"])
    hot = r.median("lib:stack_get_hot/1024") if r.has("lib:stack_get_hot/1024") else None
    for store in ("lmdb", "sqlite"):
        for op, ours in (("get", "lib:fs_getRaw"), ("put", "lib:fs_setRaw"),
                         ("iterate", "lib:fs_iterate")):
            for size in SIZES:
                key = f"{store}:{op}/{size}"
                mine = f"{ours}/{size}"
                if r.has(key) and r.has(mine):
                    t.row({"lmdb": "LMDB", "sqlite": "SQLite"}[store], op, size,
                          ns(r.median(key)), pct(r.spread(key)), ns(r.median(mine)),
                          f"{r.median(key) / r.median(mine):.2f}x",
                          ns(hot) if (op == "get" and hot is not None) else "")
    out.append(t.text())

    out.append(redis_tables(r))

    # --- memory
    t = Table("Heap per record held by the stores (key and object excluded)",
              ["build", "store", "records", "requested bytes", "heap bytes", "goal (x86-64)", ""])
    for arch, store, n, requested, heap in memory:
        goal = 160 if arch == "x86-64" else None
        t.row(arch, store, f"{n:,}", f"{requested:.0f}", f"{heap:.0f}",
              "≤ 160" if goal else "", verdict(heap, goal))
    out.append(t.text())

    reps = sorted({r.reps(k) for k in r.runs})
    out.append(f"Repetitions per benchmark: {', '.join(map(str, reps))}. Spread is ± half of "
               f"(max − min) / median over the repetitions.\n")
    return "\n".join(out)


REDIS_SIZES = [100, 4096]

MEMORY_HIT_RUNGS = [
    ("map", "bare map: find, copy of the pointer (floor)", None),
    ("virtual", "+ a virtual get() returning the pointer by value", None),
    ("clock1", "+ one time() read and expiry test", None),
    ("clock2", "+ a second time() read and test", None),
    ("mem_notrace", "MemStorage::get, trace compiled out", None),
    ("mem", "MemStorage::get, shipped (tracing off)", 1.5),
    ("cache_notrace", "CacheStorage::get fresh hit, trace compiled out", None),
    ("cache", "CacheStorage::get fresh hit, shipped (tracing off)", 2.0),
]


def memory_hit_sizes(r):
    """Table sizes of the paired memory hits, with the benchmark of each."""
    sizes = {n: f"paired:memory_hits/{n}" for n in growth_sizes(r, "paired:memory_hits")}
    if r.has("paired:memory_hits"):  # runs from before the size argument: 1,000 records
        sizes.setdefault(1000, "paired:memory_hits")
    return {n: name for n, name in sizes.items() if r.counter(name, "map_ns") is not None}


def join_and(items):
    return items[0] if len(items) == 1 else ", ".join(items[:-1]) + " and " + items[-1]


def memory_hit_table(r):
    sizes = memory_hit_sizes(r)
    if not sizes:
        return ""
    t = Table("Memory hits, paired against the bare map: blocks of 1,000 hits on the same "
              "keys rotate between the floor, the stores and the rungs between them, on "
              "tables of " + join_and([f"{n:,}" for n in sorted(sizes)]) + " records "
              "(median block, wall time per call)",
              ["records", "operation", "per call", "ratio to map", "ratio spread", "goal", ""])
    judged = {}
    for n in sorted(sizes):
        name = sizes[n]
        for rung, label, goal in MEMORY_HIT_RUNGS:
            per_call, ratio = r.counter(name, f"{rung}_ns"), r.counter(name, f"{rung}_ratio")
            if per_call is None or ratio is None:
                continue
            t.row(f"{n:,}", label, ns(per_call[0]), f"{ratio[0]:.2f}x", pct(ratio[1]),
                  "" if goal is None else f"≤ {goal}x", verdict(ratio[0], goal))
            if goal is not None:
                judged.setdefault((label, goal), []).append(f"{verdict(ratio[0], goal)} at {n:,}")
    return (t.text() + "\nKeys: on a table of 1,000 records every block hits every key once, in "
            "table order; on the larger ones the blocks walk a fixed sequence (the first "
            "100,000 keys of a permutation drawn with a fixed seed) spread over the whole "
            "table, every contender the same keys in the same iteration, each on a table and "
            "objects of its own, so that all pay the same cache misses. Rungs: each adds one "
            "cost of the interface to the floor; a MemStorage "
            "hit reads the clock once, a cache hit twice (cleanup's gate and the record's "
            "expiry). What stands between the last rung and a store compiled without trace is "
            "the store's own work (record layout, counters); between that and the shipped store, "
            "the trace's label and level checks.\n\nGoals by table size: " +
            "; ".join(f"{label.split(',')[0]} ≤ {goal}x: {', '.join(v)}"
                      for (label, goal), v in judged.items()) + ".\n")


def redis_tables(r):
    names = [f"paired:redis_{op}/{size}" for op in ("get", "set", "set_ex", "stack_get_cold")
             for size in REDIS_SIZES]
    if not any(r.has(n) and r.paired(n) for n in names):
        return ("#### Redis store\n\nNot measured in this run: redis-server was not on the PATH "
                "or the Redis store was not built.\n")
    out = []
    t = Table("Redis store against bare hiredis, paired: blocks of 16 calls of the store and of "
              "the same command on a bare hiredis connection alternate on the same records "
              "(redis-server on loopback, wall time per call)",
              ["operation", "size", "median", "spread", "floor", "floor spread", "ratio",
               "ratio spread", "added per call"])
    for label, op, floor in (
            ("RedisStorage::getRaw", "get", "GET"),
            ("RedisStorage::setRaw, no expiry", "set", "SET"),
            ("RedisStorage::setRaw, expiration 60", "set_ex", "SET … EX 60"),
            ("RedisStorage::getRaw with AUTH", "get_auth", "GET, authenticated"),
            ("RedisStorage::setRaw with AUTH", "set_auth", "SET, authenticated"),
            ("RedisStorage::getRaw through Sentinel", "get_sentinel", "GET"),
            ("RedisStorage::setRaw through Sentinel", "set_sentinel", "SET"),
            ("cached stack get, cold (Redis behind)", "stack_get_cold", "GET")):
        for size in REDIS_SIZES:
            name = f"paired:redis_{op}/{size}"
            if not (r.has(name) and r.paired(name)):
                continue
            mine, floor_ns, ratio, ratio_spread = r.paired(name)
            mine_spread, floor_spread = r.paired_spreads(name)
            t.row(f"{label} (floor: {floor})", size, ns(mine), pct(mine_spread), ns(floor_ns),
                  pct(floor_spread), f"{ratio:.2f}x", pct(ratio_spread),
                  f"{mine - floor_ns:+,.0f} ns")
    out.append(t.text())

    t = Table("Where a read is served: a cache hit, the folder store, Redis (wall time per read; "
              "the two cold stacks and the bare GET alternate in one paired benchmark)",
              ["size", "cache hit", "folder getRaw", "cached stack cold, folder behind",
               "cached stack cold, Redis behind", "bare GET round trip",
               "Redis stack / folder stack"])
    hot = r.median("lib:stack_get_hot/1024") if r.has("lib:stack_get_hot/1024") else None
    for size in REDIS_SIZES:
        name = f"paired:redis_stack_get_cold/{size}"
        if not (r.has(name) and r.paired(name) and r.other(name)):
            continue
        redis_ns, floor_ns, _, _ = r.paired(name)
        folder_ns, folder_spread, _ = r.other(name)
        fs_read = f"paired:fs_read/{size}"
        t.row(size, "–" if hot is None else ns(hot),
              ns(r.paired(fs_read)[0]) if r.has(fs_read) and r.paired(fs_read) else "–",
              ns(folder_ns) + ("" if folder_spread is None else f" ({pct(folder_spread)})"),
              ns(redis_ns), ns(floor_ns),
              f"{redis_ns / folder_ns:.1f}x")
    out.append(t.text())
    out.append("Cache hit: the hot cached stack (`lib:stack_get_hot/1024`, CPU time; a hit never "
               "reaches the store behind). Folder getRaw: the paired folder table above. A cold "
               "get goes through `CacheStorage` (a lifetime of -1 makes every cached record "
               "stale), `ObjectStorage` and the raw store, and builds the object.\n")
    return "\n".join(out)


def chart(r, data_path, png_path):
    series = [("floor:fs_read", "read floor"), ("lib:fs_getRaw", "getRaw"),
              ("floor:fs_write_atomic", "cheapest atomic replace"), ("lib:fs_setRaw", "setRaw"),
              ("floor:fs_write_plain", "plain overwrite"), ("floor:fs_iterate", "iteration floor"),
              ("lib:fs_iterate", "iteration"), ("lmdb:get", "LMDB get"),
              ("lmdb:put", "LMDB put"), ("sqlite:get", "SQLite get"),
              ("sqlite:put", "SQLite put")]
    series = [(k, label) for k, label in series if r.has(f"{k}/100")]
    lines = ["# size " + " ".join(f'"{label}"' for _, label in series)]
    for size in SIZES:
        cells = [f"{r.median(f'{k}/{size}') / 1000:.3f}" if r.has(f"{k}/{size}") else "NaN"
                 for k, _ in series]
        lines.append(f"{size} " + " ".join(cells))
    Path(data_path).write_text("\n".join(lines) + "\n")
    plots = ", ".join(
        f"'{data_path}' using 1:{i + 2} with linespoints title '{label}'"
        for i, (_, label) in enumerate(series))
    script = f"""
set terminal pngcairo size 900,560 font 'sans,10'
set output '{png_path}'
set title 'Folder store: cost per record against record size (median, wall time)'
set xlabel 'record size (bytes)'
set ylabel 'microseconds per record'
set logscale xy
set xrange [70:6000]
set xtics (100, 1024, 4096)
set key outside right
set grid
plot {plots}
"""
    subprocess.run(["gnuplot"], input=script, text=True, check=True)


def read_memory(paths):
    rows = []
    for path in paths:
        for line in Path(path).read_text().splitlines():
            parts = line.split()
            if len(parts) == 6 and parts[0] == "memory":
                rows.append((parts[1], parts[2], int(parts[3]), float(parts[4]), float(parts[5])))
    return rows


def main():
    ap = argparse.ArgumentParser()
    ap.add_argument("--json", nargs="+", required=True)
    ap.add_argument("--memory", nargs="*", default=[])
    ap.add_argument("--report", required=True, help="markdown file with the markers")
    ap.add_argument("--chart", help="PNG to write")
    ap.add_argument("--data", help="chart data file to write")
    ap.add_argument("--short", action="store_true")
    args = ap.parse_args()

    runs, context, errors = load(args.json)
    if errors:
        # A benchmark that failed measured nothing: fail the run, short or not.
        sys.exit("benchmarks failed:\n  " + "\n  ".join(errors))
    r = Results(runs)
    tables = build(r, read_memory(args.memory), args.short)
    machine = (f"Machine: {context.get('num_cpus', '?')} CPUs at "
               f"{context.get('mhz_per_cpu', '?')} MHz, load average "
               f"{', '.join(f'{x:.2f}' for x in context.get('load_avg', []))} at the start; "
               f"run {context.get('date', '?')}.\n")
    body = machine + "\n" + tables
    print(body)

    report = Path(args.report)
    text = report.read_text() if report.exists() else f"{BEGIN}\n{END}\n"
    if BEGIN not in text or END not in text:
        sys.exit(f"{report}: generated-section markers missing")
    head, rest = text.split(BEGIN, 1)
    _, tail = rest.split(END, 1)
    report.write_text(f"{head}{BEGIN}\n\n{body}\n{END}{tail}")
    if args.chart and args.data:
        chart(r, args.data, args.chart)


if __name__ == "__main__":
    main()
