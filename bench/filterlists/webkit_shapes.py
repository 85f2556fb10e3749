#!/usr/bin/env python3
"""What WebKit's content-filter compiler charges for each url-filter shape.

Takes a compiled rule list (default: EasyList imported into a fresh container),
rewrites its 10,000 first "||host^" rules into each candidate form, and times
WebKit compiling each variant (bench_webkit_compile, one process per run,
best of --runs). Then times the whole list split by kind. The figures behind
docs/filter-lists.md:

    cmake --build build/default -j2 --target bench_process stonewall
    bench/filterlists/webkit_shapes.py [--list FILE.json] [--runs 3]
"""
import argparse
import json
import os
import subprocess
import sys
import tempfile
import time

ROOT = os.path.abspath(os.path.join(os.path.dirname(__file__), "..", ".."))
BUILD = os.environ.get("STONEWALL_BUILD", os.path.join(ROOT, "build", "default"))
COMPILE = os.path.join(BUILD, "bench", "process", "bench_webkit_compile")
HOST = "^[^:]+://+([^:/]+\\.)?"
TAIL = "([^a-zA-Z0-9_.%-].*)?$"
SEP = "[^a-zA-Z0-9_.%-]"

VARIANTS = [
    ("optional tail  host(sep.*)?$", lambda h: HOST + h + TAIL),
    ("separator      host[^a-z0-9_.%-]", lambda h: HOST + h + SEP),
    ("port or path   host[:/]", lambda h: HOST + h + "[:/]"),
    ("end anchor     host$", lambda h: HOST + h + "$"),
    ("nothing after  host", lambda h: HOST + h),
    ("tail .*        host/.*", lambda h: HOST + h + "/.*"),
    ("no subdomains  ^[^:]+://+host[:/]", lambda h: "^[^:]+://+" + h + "[:/]"),
]


def timed_compile(rules, runs, scratch):
    path = os.path.join(scratch, "list.json")
    with open(path, "w") as out:
        json.dump(rules, out)
    best = None
    for _ in range(runs):
        store = tempfile.mkdtemp(dir=scratch)
        start = time.monotonic()
        done = subprocess.run([COMPILE, path, store], capture_output=True, text=True)
        elapsed = time.monotonic() - start
        if done.returncode != 0:
            return None, done.stderr.strip()
        best = elapsed if best is None else min(best, elapsed)
    return best, ""


def compiled_easylist(scratch):
    lists = subprocess.run([os.path.join(ROOT, "scripts", "fetch-lists")], capture_output=True,
                           text=True, check=True).stdout.strip()
    container = os.path.join(scratch, "container")
    env = dict(os.environ, STONEWALL_RESOURCES=os.path.join(BUILD, "resources"))
    subprocess.run([os.path.join(BUILD, "tools", "stonewall", "stonewall"), "--container", container,
                    "profile", "import", "defaultProfile",
                    os.path.join(ROOT, lists, "easylist.txt")], env=env, check=True,
                   capture_output=True)
    return os.path.join(container, ".Profiles", "profile_defaultProfile_unarchive.json")


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--list", help="a compiled rule list (JSON)")
    parser.add_argument("--runs", type=int, default=3)
    parser.add_argument("--count", type=int, default=10000)
    args = parser.parse_args()
    with tempfile.TemporaryDirectory() as scratch:
        rules = json.load(open(args.list or compiled_easylist(scratch)))
        hosts = []
        for rule in rules:
            url = rule["trigger"].get("url-filter", "")
            if len(rule["trigger"]) != 1 or not url.startswith(HOST):
                continue
            for end in (TAIL, SEP):
                middle = url[len(HOST):-len(end)]
                if url.endswith(end) and all(c.isalnum() or c in "\\.-_:" for c in middle):
                    hosts.append(middle)
                    break
        hosts = hosts[:args.count]
        print(f"{len(hosts)} '||host^' rules, best of {args.runs} compiles each")
        for name, form in VARIANTS:
            variant = [{"action": {"type": "block"}, "trigger": {"url-filter": form(h)}}
                       for h in hosts]
            seconds, error = timed_compile(variant, args.runs, scratch)
            print(f"  {name:40} " + (f"{seconds:6.2f} s" if seconds is not None else error))

        kinds = {}
        for rule in rules:
            kind = rule["action"].get("type", "?")
            trigger = rule["trigger"]
            if any(key in trigger for key in ("if-top-url", "unless-top-url")):
                kind += " with a page condition"
            kinds.setdefault(kind, []).append(rule)
        print(f"whole list ({len(rules)} rules) and by kind")
        seconds, error = timed_compile(rules, args.runs, scratch)
        print(f"  {'all':40} " + (f"{seconds:6.2f} s" if seconds is not None else error))
        for kind, members in sorted(kinds.items(), key=lambda item: -len(item[1])):
            seconds, error = timed_compile(members, args.runs, scratch)
            label = f"{kind} ({len(members)})"
            print(f"  {label:40} " + (f"{seconds:6.2f} s" if seconds is not None else error))


if __name__ == "__main__":
    sys.exit(main())
