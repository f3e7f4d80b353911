#!/usr/bin/env python3
"""Changes the library in one place at a time and sees whether a test notices.

Each mutant is built in a copy of the tree, and the test programs that run the library in their own process run against it,
the one named like the mutant's file first, until one fails. A mutant that none notices has survived:
it needs a test, or an entry in equivalent.txt that shows why no host can tell it from the original.

Ends with 0 if every survivor has an entry and every entry a survivor, with 1 if not, and with 2 if
the campaign cannot be run.
"""

import argparse
import ctypes
import difflib
import json
import os
import queue
import re
import signal
import subprocess
import sys
import threading
import time
from collections import Counter
from concurrent.futures import ThreadPoolExecutor
from dataclasses import dataclass
from pathlib import Path

# The tree stays as it is.
sys.dont_write_bytecode = True

from handwritten import HANDWRITTEN
from operators import mutants_of
from source import Source

HERE = Path(__file__).resolve().parent
ROOT = HERE.parents[1]
EQUIVALENT = HERE / "equivalent.txt"

# Seconds. A test that takes longer by itself is left out, and a run that takes longer is a kill.
LONGEST_TEST = 30
TIME_OUT = 90
BUILD = "<build>"

KILLED, TIMED_OUT, REFUSED = "killed", "time-out", "tests do not build"
NOT_COMPILING, SURVIVED, EQUAL = "not compiling", "SURVIVED", "equivalent"
OUTCOMES = [KILLED, TIMED_OUT, REFUSED, NOT_COMPILING, EQUAL, SURVIVED]


def fail(text):
    print(f"mutate.py: {text}", file=sys.stderr)
    sys.exit(2)


# --- Mutants ------------------------------------------------------------------------------------


@dataclass
class Mutant:
    """Known by its file, operator and changed lines, and a number if those do not tell it apart."""

    path: str
    operator: str
    before: str
    after: str
    number: int
    text: str  # the whole file

    @property
    def key(self):
        number = f" #{self.number}" if self.number > 1 else ""
        return f"{self.path} {self.operator}{number}\n- {self.before}\n+ {self.after}"

    @property
    def line(self):
        return self.key.replace("\n", "  ")


def changed_lines(old, new):
    """The lines that differ, without indentation; where they are apart, with dots between."""
    before, after = [], []
    old, new = old.splitlines(), new.splitlines()
    for kind, a, b, c, d in difflib.SequenceMatcher(None, old, new, autojunk=False).get_opcodes():
        if kind != "equal":
            before.append(" ".join(line.strip() for line in old[a:b]))
            after.append(" ".join(line.strip() for line in new[c:d]))
    return " ... ".join(before).strip(), " ... ".join(after).strip()


def applied(text, edits):
    for start, end, new in sorted(edits, reverse=True):
        text = text[:start] + new + text[end:]
    return text


def sources():
    """The library's files; public headers last, as their mutants need the tests built again."""
    found = [p for folder in ("src", "include") for p in sorted((ROOT / folder).rglob("*")) if p.suffix in (".cpp", ".h")]
    return {str(path.relative_to(ROOT)): Source(path.read_text()) for path in found}


def all_mutants():
    files = sources()
    headers = {record[0]: (source, record) for source in files.values() for record in source.records}
    mutants, numbers, seen = [], Counter(), set()

    def add(path, operator, text):
        # Two operators may come to the same thing.
        if text == files[path].text or (path, text) in seen:
            return
        seen.add((path, text))
        before, after = changed_lines(files[path].text, text)
        numbers[path, operator, before, after] += 1
        mutants.append(Mutant(path, operator, before, after, numbers[path, operator, before, after], text))

    for path, source in files.items():
        for operator, edits in mutants_of(path, source, headers):
            add(path, operator, applied(source.text, edits))
        for name, file, old, new in HANDWRITTEN:
            if file == path:
                if source.text.count(old) != 1:
                    fail(f"handwritten.py: {name}: its text does not stand once in {file}")
                add(path, f"handwritten:{name}", source.text.replace(old, new))
    return mutants


def equivalents():
    """{key: reason} from equivalent.txt, whose paragraphs are a mutant's key and the reason."""
    entries = {}
    for paragraph in re.split(r"\n\s*\n", EQUIVALENT.read_text().strip()):
        lines = [line for line in paragraph.splitlines() if not line.startswith("#")]
        if not lines:
            continue
        if len(lines) < 4 or not lines[1].startswith("-") or not lines[2].startswith("+"):
            fail(f"{EQUIVALENT.name}: needs a file and operator, '- ', '+ ' and a reason:\n{paragraph}")
        key = "\n".join(line.ljust(2) if line in "-+" else line for line in lines[:3])
        if key in entries:
            fail(f"{EQUIVALENT.name}: twice:\n{key}")
        entries[key] = " ".join(lines[3:])
    return entries


# --- Safety -------------------------------------------------------------------------------------


def confine(work):
    """Makes everything but the work directory read-only for this process and what it starts.

    A mutant may write anywhere that its tests' paths can be bent to, so root must not let it. For
    another user, the paths of the tests, the scratch directory and its TMPDIR and HOME have to do.
    """
    if os.geteuid() != 0:
        return
    new_mount_namespace = 0x00020000
    try:
        if ctypes.CDLL(None, use_errno=True).unshare(new_mount_namespace) != 0:
            raise OSError(os.strerror(ctypes.get_errno()))
        mount("--make-rprivate", "/")
        mount("--bind", work, work)
        for point, kind in mounts():
            if point != str(work) and kind not in ("proc", "sysfs", "devpts", "cgroup", "cgroup2"):
                mount("-o", "remount,bind,ro", point)
    except (OSError, subprocess.CalledProcessError) as error:
        fail(f"as root, a mount namespace is needed to keep mutants from the system's files ({error});"
             " run it as another user")
    # A mount that hides under another one cannot be reached either.
    if any(os.access(place, os.W_OK) for place in (ROOT / "src", "/", "/dev", "/etc", "/usr")):
        fail("the file system is still writable")


def mounts():
    unescape = lambda text: re.sub(r"\\(\d{3})", lambda match: chr(int(match[1], 8)), text)
    lines = Path("/proc/self/mounts").read_text().splitlines()
    return {unescape(line.split()[1]): line.split()[2] for line in lines}.items()


def mount(*arguments):
    subprocess.run(["mount", *map(str, arguments)], check=True, stdout=subprocess.DEVNULL)


# --- Building and running -----------------------------------------------------------------------


@dataclass
class Test:
    name: str
    command: list  # with BUILD in the place of a worker's build directory
    environment: dict
    seconds: float = 0.0

    @property
    def program(self):
        """The target to build before it runs, if it is one."""
        return Path(self.command[0]).name if self.command[0].startswith(BUILD) else None


class Worker:
    """A copy of the tree with a build and a scratch directory of its own."""

    running = set()  # process groups of all workers
    stopping = threading.Event()
    unsteady = []  # failures that did not come again

    def __init__(self, work, number):
        self.tree = work / f"tree{number}"
        self.build_directory = work / f"build{number}"
        self.scratch = work / f"scratch{number}"
        self.scratch.mkdir(parents=True, exist_ok=True)
        self.scratch.chmod(0o1777)  # like /tmp: some tests write as another user

    def set_up(self):
        """Copies and builds; by content, for a file's time must tell whether it was built."""
        for path in ROOT.rglob("*"):
            relative = path.relative_to(ROOT)
            if path.is_file() and relative.parts[0] not in ("build", ".git"):
                self.write(relative, path.read_bytes())
        configure = self.start(["cmake", "-S", self.tree, "-B", self.build_directory, "-G", "Ninja",
                                "-DCORVANE_SANDBOX=ON",  # for the tests that talk to it
                                f"-DCMAKE_PROJECT_INCLUDE={HERE / 'faster.cmake'}"])
        return self.finish(configure) == 0 and self.build("all")

    def write(self, relative, content):
        path = self.tree / relative
        if not path.exists() or path.read_bytes() != content:
            path.parent.mkdir(parents=True, exist_ok=True)
            path.write_bytes(content)

    def build(self, target):
        return self.finish(self.start(["cmake", "--build", self.build_directory, "--target", target, "-j", "1"])) == 0

    def start(self, command, environment=None):
        """A process in a group of its own, which takes along whatever it starts."""
        process = subprocess.Popen(
            command, cwd=self.scratch, env=environment, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
            stderr=subprocess.STDOUT, text=True, errors="replace", start_new_session=True)
        self.running.add(process.pid)
        if self.stopping.is_set():
            self.end(process.pid)
        return process

    def finish(self, process):
        process.communicate()
        self.running.discard(process.pid)
        return process.returncode

    @classmethod
    def stop(cls):
        cls.stopping.set()
        for group in list(cls.running):
            cls.end(group)

    @staticmethod
    def end(group):
        try:
            os.killpg(group, signal.SIGKILL)
        except ProcessLookupError:
            pass

    def tests(self):
        """What CTest runs that was built here, and the check of the library's symbols."""
        shown = subprocess.run(["ctest", "--test-dir", self.build_directory, "--show-only=json-v1"],
                               capture_output=True, text=True, check=True).stdout
        for test in json.loads(shown)["tests"]:
            properties = {each["name"]: each["value"] for each in test.get("properties", [])}
            if test["name"] == "exports" or Path(test["command"][0]).is_relative_to(self.build_directory):
                environment = dict(pair.split("=", 1) for pair in properties.get("ENVIRONMENT", []))
                command = [part.replace(str(self.build_directory), BUILD) for part in test["command"]]
                yield Test(test["name"], command, environment)

    def run(self, test):
        """None if the test passes; else (outcome, what failed). Ends at the first failure."""
        environment = os.environ | test.environment | {
            "HOME": str(self.scratch), "TMPDIR": str(self.scratch), "QTEST_FUNCTION_TIMEOUT": "300000"}
        command = [part.replace(BUILD, str(self.build_directory)) for part in test.command]
        process = self.start(command, environment)
        late = threading.Event()
        timer = threading.Timer(TIME_OUT, lambda: (late.set(), self.end(process.pid)))
        timer.start()
        failed = None
        for line in process.stdout:
            match = re.search(r"(FAIL!|XPASS|QFATAL)\s*: (\S+)", line)
            if match and not failed:
                failed = match[2]
                self.end(process.pid)
        code = self.finish(process)
        timer.cancel()
        # What the test started may be left behind.
        self.end(process.pid)
        if failed:
            return KILLED, failed
        if late.is_set():
            return TIMED_OUT, f"{test.name} after {TIME_OUT} s"
        return (KILLED, f"{test.name} ended with {code}") if code else None

    def judge(self, mutant, tests):
        original = (ROOT / mutant.path).read_bytes()
        self.write(mutant.path, mutant.text.encode())
        try:
            if not self.build("Corvane"):
                return NOT_COMPILING, ""
            for test in sorted(tests, key=lambda test: (test.name != f"tst_{Path(mutant.path).stem}", test.seconds)):
                # Tests see the public headers; a host would no longer build either.
                if mutant.path.startswith("include/") and test.program and not self.build(test.program):
                    return REFUSED, test.name
                outcome = self.run(test)
                # A test that fails by chance must not pass for one that noticed.
                if outcome and outcome[0] == KILLED and not self.run(test):
                    self.unsteady.append(f"{outcome[1]}: {mutant.line}")
                elif outcome:
                    return outcome
            return SURVIVED, ""
        finally:
            self.write(mutant.path, original)


def baseline(worker):
    """The tests, with their times on the unchanged library, on which all must pass."""
    tests = []
    for test in worker.tests():
        start = time.monotonic()
        outcome = worker.run(test)
        test.seconds = time.monotonic() - start
        if outcome:
            fail(f"on the unchanged library: {outcome[0]}: {outcome[1]}")
        if test.seconds > LONGEST_TEST:
            print(f"Left out, as it takes {test.seconds:.0f} s: {test.name}")
        else:
            tests.append(test)
    print("Tests: " + ", ".join(f"{test.name} {test.seconds:.1f} s" for test in tests), flush=True)
    return tests


def campaign(workers, mutants, tests, allowed):
    """[(mutant, outcome, detail)], told as they come."""
    waiting, results, start = queue.Queue(), [], time.monotonic()
    for mutant in mutants:
        waiting.put(mutant)
    lock = threading.Lock()

    def go(worker):
        while not Worker.stopping.is_set():
            try:
                mutant = waiting.get_nowait()
            except queue.Empty:
                return
            outcome, detail = worker.judge(mutant, tests)
            if Worker.stopping.is_set():
                return
            if outcome == SURVIVED and mutant.key in allowed:
                outcome = EQUAL
            with lock:
                results.append((mutant, outcome, detail))
                left = (time.monotonic() - start) / len(results) * (len(mutants) - len(results)) / 60
                print(f"[{len(results)}/{len(mutants)}, {left:.0f} min left] {outcome}"
                      f"{' by ' + detail if detail else ''}: {mutant.line}", flush=True)

    threads = [threading.Thread(target=go, args=(worker,)) for worker in workers]
    for thread in threads:
        thread.start()
    for thread in threads:
        thread.join()
    return results


# --- Report -------------------------------------------------------------------------------------


def table(title, results, of):
    counts = Counter((of(mutant), outcome) for mutant, outcome, _ in results)
    rows = [[row, *(counts[row, outcome] for outcome in OUTCOMES)] for row in dict.fromkeys(of(r[0]) for r in results)]
    rows.append(["all", *(sum(row[column] for row in rows) for column in range(1, len(OUTCOMES) + 1))])
    width = max(len(row[0]) for row in rows)
    print(f"\n{title:{width}}  mutants  " + "  ".join(OUTCOMES))
    for row in rows:
        print(f"{row[0]:{width}}  {sum(row[1:]):7}  " + "  ".join(f"{n:{len(o)}}" for n, o in zip(row[1:], OUTCOMES)))


def report(results, allowed):
    """Prints it; true if every survivor is allowed and everything allowed survives."""
    table("File", results, lambda mutant: mutant.path)
    table("Operator", results, lambda mutant: mutant.operator.split(":")[0])
    for shown in (TIMED_OUT, REFUSED, NOT_COMPILING):
        listed = [f"  {mutant.line}  ({detail})" for mutant, outcome, detail in results if outcome == shown]
        print(f"\n{shown.capitalize()}: {len(listed)}", *listed, sep="\n")
    print(f"\nFailed once and not again, so not counted: {len(Worker.unsteady)}", *Worker.unsteady, sep="\n  ")
    survivors = [mutant.key for mutant, outcome, _ in results if outcome == SURVIVED]
    print(f"\nSurvivors without an entry in {EQUIVALENT.name}: {len(survivors)}", *survivors, sep="\n\n")
    equal = {mutant.key for mutant, outcome, _ in results if outcome == EQUAL}
    noticed = {mutant.key: f"{outcome} {detail}" for mutant, outcome, detail in results}
    stale = [f"{key}\n({noticed.get(key, 'there is no such mutant')})" for key in allowed if key not in equal]
    print(f"\nEntries of {EQUIVALENT.name} that are not survivors: {len(stale)}", *stale, sep="\n\n")
    return not survivors and not stale


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    parser.add_argument("--list", action="store_true", help="show the mutants and do nothing else")
    parser.add_argument("--only", metavar="PATTERN", help="only mutants whose line in --list matches the regular expression")
    parser.add_argument("--work", type=Path, default=ROOT / "build" / "mutation", help="where to build (default: build/mutation)")
    parser.add_argument("--jobs", type=int, default=2, help="how many mutants at a time (default: 2)")
    options = parser.parse_args()

    pattern = re.compile(options.only or "")
    mutants = [mutant for mutant in all_mutants() if pattern.search(mutant.line)]
    if options.list:
        print(*(mutant.line for mutant in mutants), f"{len(mutants)} mutants", sep="\n")
        return 0
    if not mutants:
        fail("no such mutant")
    allowed = {key: why for key, why in equivalents().items() if pattern.search(key.replace("\n", "  "))}

    work = options.work.resolve()
    work.mkdir(parents=True, exist_ok=True)
    confine(work)
    os.environ["TMPDIR"] = str(work)
    start = time.monotonic()
    workers = [Worker(work, number) for number in range(1, options.jobs + 1)]
    print(f"Building the unchanged tree, {options.jobs} times in {work}", flush=True)
    with ThreadPoolExecutor() as pool:
        if not all(pool.map(Worker.set_up, workers)):
            fail(f"the unchanged tree does not build in {work}")
    tests = baseline(workers[0])
    results = campaign(workers, mutants, tests, allowed)
    passed = report(results, allowed)
    print(f"\n{len(results)} mutants in {(time.monotonic() - start) / 60:.0f} minutes: "
          + ("all noticed, or known as equivalent" if passed else "see above"))
    return 0 if passed else 1


def interrupted(number, _):
    Worker.stop()
    sys.exit(128 + number)


if __name__ == "__main__":
    for number in (signal.SIGINT, signal.SIGTERM, signal.SIGHUP):
        signal.signal(number, interrupted)
    sys.exit(main())
