#!/usr/bin/env python3
"""Speed and memory of the stonewall command as a user meets them: whole
processes, each figure printed with its floor and their ratio, from one run.
Commands and their floors alternate, so that both see the same machine.

    cmake --build build/default -j2 --target bench_process
    bench/speed.py [--build build/default] [--rows 100000] [--runs 7]
                   [--sizes 10000,100000,400000] [--skip-reload]

Figures (targets in brackets):
  start-up       stonewall --version, stonewall check URL  [20 ms each]
  compile        compile --no-reload / the raw sqlite3_step read of the same
                 rows by the same eight queries (bench_raw_read)  [1.3]
  memory         peak RSS of compile --no-reload over that of check, the
                 process's baseline with the same container open  [64 MiB]
  reload         compile with its reload into an empty store / one WebKit
                 compile of the same list on its own (bench_webkit_compile)
                 [1.15]
  status         status off, status on, lists compiled before  [200 ms each]
  linear         compile --no-reload: the cost per further row between
                 consecutive sizes / that between the first two  [1.25]; peak
                 memory over the baseline at each size  [64 MiB]

Wall times are medians; on a busy machine compare the CPU times (user+sys,
also medians) too. Everything happens in a temporary folder (removed at the
end) with HOME pointing into it.
"""

import argparse
import os
import shutil
import statistics
import subprocess
import sys
import tempfile
import time

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))


def run(command, env, check=True):
    """One whole process: (wall s, cpu s, peak RSS KiB)."""
    start = time.perf_counter()
    process = subprocess.Popen(command, env=env, stdout=subprocess.DEVNULL,
                               stderr=subprocess.PIPE)
    _, status, usage = os.wait4(process.pid, 0)
    wall = time.perf_counter() - start
    stderr = process.stderr.read().decode(errors="replace")
    process.stderr.close()
    code = os.waitstatus_to_exitcode(status)
    if check and code != 0:
        sys.exit(f"speed.py: {' '.join(command)} exited {code}: {stderr.strip()}")
    return wall, usage.ru_utime + usage.ru_stime, usage.ru_maxrss


class Sample:
    def __init__(self):
        self.walls, self.cpus, self.rss = [], [], []

    def add(self, measured):
        wall, cpu, rss = measured
        self.walls.append(wall)
        self.cpus.append(cpu)
        self.rss.append(rss)

    @property
    def wall(self):
        return statistics.median(self.walls)

    @property
    def cpu(self):
        return statistics.median(self.cpus)


def alternate(runs, commands, env, before=None):
    """Runs the commands in turn, `runs` times; `before(i)` before each."""
    samples = [Sample() for _ in commands]
    for _ in range(runs):
        for index, command in enumerate(commands):
            if before:
                before(index)
            samples[index].add(run(command, env))
    return samples


def ms(seconds):
    return f"{seconds * 1e3:9.1f} ms"


ROWS = []


def figure(name, value, floor_name, floor, ratio, target, cpu_ratio=None, cpu_ms=None):
    ok = "ok" if ratio <= target else "MISS"
    cpu = f"  (cpu {cpu_ratio:5.2f})" if cpu_ratio is not None else ""
    cpu += f"  (cpu {cpu_ms * 1e3:.1f} ms)" if cpu_ms is not None else ""
    ROWS.append(f"{name:<24} {value:>13}  {floor_name:<28} {floor:>13}  "
                f"{ratio:6.2f}  <= {target:<5} {ok}{cpu}")


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    parser.add_argument("--build", default=os.path.join(ROOT, "build", "default"))
    parser.add_argument("--rows", type=int, default=100000)
    parser.add_argument("--runs", type=int, default=7)
    parser.add_argument("--reload-runs", type=int, default=3)
    parser.add_argument("--sizes", default="10000,100000,400000")
    parser.add_argument("--skip-reload", action="store_true")
    options = parser.parse_args()

    build = os.path.abspath(options.build)
    stonewall = os.path.join(build, "tools", "stonewall", "stonewall")
    tools = os.path.join(build, "bench", "process")
    for program in (stonewall, os.path.join(tools, "bench_raw_read")):
        if not os.access(program, os.X_OK):
            sys.exit(f"speed.py: {program} missing; build the target bench_process first")

    work = tempfile.mkdtemp(prefix="stonewall-speed-")
    try:
        env = dict(os.environ)
        env.update(HOME=os.path.join(work, "home"),
                   STONEWALL_RESOURCES=os.path.join(build, "resources"))
        for name in ("XDG_DATA_HOME", "XDG_CONFIG_HOME", "XDG_CACHE_HOME", "STONEWALL_VERBOSE"):
            env.pop(name, None)

        def container_for(rows):
            container = os.path.join(work, f"c{rows}")
            if not os.path.isdir(container):
                print(f"making a profile of {rows} rows ...", file=sys.stderr)
                run([os.path.join(tools, "bench_make_profile"), container, str(rows)], env)
            return container

        def with_container(container):
            return dict(env, STONEWALL_CONTAINER=container)

        container = container_for(options.rows)
        cenv = with_container(container)
        database = os.path.join(container, ".Profiles", "profile_defaultProfile_data")
        rule_file = os.path.join(container, ".Profiles", "profile_defaultProfile_unarchive.json")
        run([stonewall, "compile", "--no-reload"], cenv)  # the shared database, warm caches

        # Start-up.
        true, version, check = alternate(
            options.runs,
            [["true"], [stonewall, "--version"], [stonewall, "check", "https://example.com/"]],
            cenv)
        for name, sample in (("stonewall --version", version), ("stonewall check URL", check)):
            figure(name, ms(sample.wall), "target 20 ms (true: " + ms(true.wall).strip() + ")",
                   ms(0.020), sample.wall / 0.020, 1.0, cpu_ms=sample.cpu)

        # Compile without reload against the raw read, and its memory.
        raw, compile_ = alternate(options.runs, [[os.path.join(tools, "bench_raw_read"), database],
                                                 [stonewall, "compile", "--no-reload"]], cenv)
        figure(f"compile --no-reload {options.rows // 1000}k", ms(compile_.wall),
               "raw sqlite3_step read", ms(raw.wall), compile_.wall / raw.wall, 1.3,
               compile_.cpu / raw.cpu)
        memory = (max(compile_.rss) - max(check.rss)) / 1024
        figure("peak memory over base", f"{memory:9.1f} MiB", "check (same container)",
               f"{max(check.rss) / 1024:9.1f} MiB", memory / 64, 1.0)

        # Linear cost: the cost of each further row (the start-up, which
        # does not grow, left out) between consecutive sizes, against that
        # between the first two; and the peak memory at each size.
        sizes = sorted(int(size) for size in options.sizes.split(",") if size)
        times = {}
        for rows in sizes:
            senv = with_container(container_for(rows))
            run([stonewall, "compile", "--no-reload"], senv)
            [sample] = alternate(max(3, options.runs // 2), [[stonewall, "compile", "--no-reload"]],
                                 senv)
            times[rows] = sample.wall
            growth = (max(sample.rss) - max(check.rss)) / 1024
            figure(f"memory at {rows // 1000}k rows", f"{growth:9.1f} MiB", "target 64 MiB",
                   "64.0 MiB", growth / 64, 1.0)
        slopes = [(times[b] - times[a]) / (b - a) for a, b in zip(sizes, sizes[1:])]
        for (a, b), slope in zip(zip(sizes, sizes[1:]), slopes):
            figure(f"per row {a // 1000}k-{b // 1000}k", f"{slope * 1e6:9.2f} us",
                   f"per row {sizes[0] // 1000}k-{sizes[1] // 1000}k", f"{slopes[0] * 1e6:9.2f} us",
                   slope / slopes[0], 1.25)

        if not options.skip_reload:
            # Reload: the whole compile command into an empty store, against
            # WebKit compiling the list it wrote, on its own.
            stores = [os.path.join(work, "floor-store"),
                      os.path.join(container, "Library", "ContentBlockers")]
            webkit, reload_ = alternate(
                options.reload_runs,
                [[os.path.join(tools, "bench_webkit_compile"), rule_file, stores[0]],
                 [stonewall, "compile"]],
                cenv, before=lambda index: shutil.rmtree(stores[index], ignore_errors=True))
            figure("compile with reload", ms(reload_.wall), "one WebKit compile",
                   ms(webkit.wall), reload_.wall / webkit.wall, 1.15, reload_.cpu / webkit.cpu)

            # Status off and on, each list compiled before.
            run([stonewall, "status", "off"], cenv)
            run([stonewall, "status", "on"], cenv)
            off, on = alternate(options.runs, [[stonewall, "status", "off"],
                                               [stonewall, "status", "on"]], cenv)
            for name, sample in (("status off", off), ("status on", on)):
                figure(name, ms(sample.wall), "target 200 ms", ms(0.200), sample.wall / 0.200, 1.0,
                       cpu_ms=sample.cpu)

        print(f"{'figure':<24} {'measured':>13}  {'floor':<28} {'floor value':>13}  "
              f"{'ratio':>6}  target")
        print("\n".join(ROWS))
        load = os.getloadavg()
        print(f"\n{os.cpu_count()} cores, load {load[0]:.1f} {load[1]:.1f} {load[2]:.1f}; "
              f"medians of {options.runs} runs ({options.reload_runs} for the reload)")
    finally:
        shutil.rmtree(work, ignore_errors=True)


if __name__ == "__main__":
    main()
