#!/usr/bin/env python3
"""Which faults do the fake-card tests catch? Makes small faults (mutants) in
the device library's sources, one at a time, rebuilds the fake-card tests and
counts the mutants some test kills.

Faults made: a comparison flipped (< and >=, > and <=, == and !=), a statement
dropped, a channel count swapped for another (capture, card playback, client
playback). The same sources and --seed always give the same mutants, so a
suite before and after a rewrite is measured on the same list.

Works on a copy of the tree (git archive of REV, default HEAD) in --work; the
checkout is never touched. Prints one line per mutant, then
"mutants: N made, N built, N killed, N survived".
"""
import argparse
import os
import random
import re
import shutil
import signal
import subprocess
import sys
import time

LIBRARY = "taudio2universaldevice/src"
TESTS = ["test_device", "test_audio_path", "test_fuzz", "test_virtual_room"]

COMPARISONS = [("<=", ">"), (">=", "<"), ("==", "!="), ("!=", "=="), ("<", ">="), (">", "<=")]
CHANNELS = ["m_captureChannels", "m_playbackChannels", "m_clientPlaybackChannels"]
# A statement worth dropping: a call, an assignment or an increment, on one line.
STATEMENT = re.compile(r"^\s+(?!return\b|break\b|continue\b|case\b|default\b|throw\b|else\b)"
                       r"[A-Za-z_][\w.\->:\[\]]*(\s*(=|\+=|-=|\|=|\+\+|--)\s*[^=].*|\s*\(.*\))\s*;\s*$")
COMPARISON = re.compile(r"(?<![<>=!-])(<=|>=|==|!=|<|>)(?![<>=])")


def code_part(line):
    """The line without a trailing // comment and without string literals."""
    line = re.sub(r'"(\\.|[^"\\])*"', lambda m: " " * len(m.group(0)), line)
    cut = line.find("//")
    return line if cut < 0 else line[:cut]


def candidates(root):
    """Every mutant of the library's sources: (file, line number, kind, new line)."""
    found = []
    for name in sorted(os.listdir(os.path.join(root, LIBRARY))):
        if not name.endswith(".cpp"):
            continue
        path = os.path.join(LIBRARY, name)
        with open(os.path.join(root, path)) as f:
            lines = f.read().split("\n")
        for number, line in enumerate(lines, 1):
            code = code_part(line)
            stripped = code.strip()
            if not stripped or stripped.startswith(("#", "*", "/*")) or "template" in code or "include" in code:
                continue
            for m in COMPARISON.finditer(code):
                # Skips template brackets and stream operators: a comparison has spaces around it.
                if code[m.start() - 1:m.start()] != " " or code[m.end():m.end() + 1] != " ":
                    continue
                op = m.group(1)
                new = dict(COMPARISONS)[op]
                found.append((path, number, f"flip {op} to {new}", line[:m.start()] + new + line[m.end():]))
            # Log lines are left alone: dropping one changes no behaviour the tests should pin.
            if (STATEMENT.match(code) and not re.match(r"^\s*(const\s+)?[\w:<>]+\s+[\w]+\s*=", code)
                    and not re.match(r"^\s*(debug|warning|info)\(", code)):
                found.append((path, number, "drop statement", ""))
            for m in re.finditer(r"\b(" + "|".join(CHANNELS) + r")\b", code):
                for other in CHANNELS:
                    if other != m.group(1):
                        found.append((path, number, f"{m.group(1)} to {other}",
                                      line[:m.start()] + other + line[m.end():]))
    return found


def run(command, cwd, timeout=None):
    # The fuzz driver runs a few seconds per mutant, not its CI half minute.
    env = dict(os.environ, TAUDIO2_FUZZ_SECONDS=os.environ.get("TAUDIO2_FUZZ_SECONDS", "5"))
    # In a session of its own, which is ended afterwards: a mutant can hang a test, or a process the test forked,
    # past ctest's return or its timeout.
    process = subprocess.Popen(command, cwd=cwd, env=env, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL,
                               start_new_session=True)
    try:
        result = process.wait(timeout=timeout)
    except subprocess.TimeoutExpired:
        result = "timeout"
    try:
        os.killpg(process.pid, signal.SIGKILL)
    except ProcessLookupError:
        pass
    process.wait()
    return result


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--rev", default="HEAD", help="the commit whose library and tests are measured")
    parser.add_argument("--work", default="/tmp/taudio2-mutate", help="scratch folder for the copy and its build")
    parser.add_argument("--count", type=int, default=40, help="mutants to try, drawn evenly by --seed")
    parser.add_argument("--seed", type=int, default=1)
    parser.add_argument("--timeout", type=int, default=240, help="seconds a mutant's test run may take")
    parser.add_argument("--list", action="store_true", help="print the mutants and stop")
    args = parser.parse_args()

    repo = subprocess.check_output(["git", "rev-parse", "--show-toplevel"], text=True).strip()
    src, build = os.path.join(args.work, "src"), os.path.join(args.work, "build")
    shutil.rmtree(src, ignore_errors=True)
    os.makedirs(src)
    archive = subprocess.Popen(["git", "-C", repo, "archive", args.rev], stdout=subprocess.PIPE)
    subprocess.check_call(["tar", "-x", "-C", src], stdin=archive.stdout)
    archive.wait()

    everything = candidates(src)
    chosen = sorted(random.Random(args.seed).sample(everything, min(args.count, len(everything))))
    print(f"{len(everything)} possible mutants in {LIBRARY}; trying {len(chosen)} (seed {args.seed})")
    if args.list:
        for path, number, kind, _ in chosen:
            print(f"{path}:{number}: {kind}")
        return 0

    targets = [t for t in TESTS if os.path.exists(os.path.join(src, "tests"))]
    build_cmd = ["cmake", "--build", build, "-j2", "--target"] + targets
    if run(["cmake", "-S", src, "-B", build, "-DCMAKE_BUILD_TYPE=Release"], src) != 0 or run(build_cmd, src) != 0:
        print("the unmutated tree does not build", file=sys.stderr)
        return 2
    test_cmd = ["ctest", "--test-dir", build, "--stop-on-failure", "-R", "^(" + "|".join(targets) + ")$"]
    start = time.time()
    if run(test_cmd, src, args.timeout) != 0:
        print("the unmutated tree fails its tests", file=sys.stderr)
        return 2
    print(f"unmutated tests: {time.time() - start:.0f} s")

    built = killed = 0
    survivors = []
    for path, number, kind, new in chosen:
        full = os.path.join(src, path)
        with open(full) as f:
            original = f.read()
        lines = original.split("\n")
        lines[number - 1] = new
        with open(full, "w") as f:
            f.write("\n".join(lines))
        try:
            if run(build_cmd, src) != 0:
                verdict = "does not build"
            else:
                built += 1
                result = run(test_cmd, src, args.timeout)
                verdict = "survived" if result == 0 else "killed" + (" (timeout)" if result == "timeout" else "")
                killed += result != 0
                if result == 0:
                    survivors.append(f"{path}:{number}: {kind}")
        finally:
            with open(full, "w") as f:
                f.write(original)
        print(f"{path}:{number}: {kind}: {verdict}", flush=True)
    run(build_cmd, src)
    print(f"mutants: {len(chosen)} made, {built} built, {killed} killed, {built - killed} survived")
    return 0


if __name__ == "__main__":
    sys.exit(main())
