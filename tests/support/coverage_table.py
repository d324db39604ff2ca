# SPDX-License-Identifier: Apache-2.0
"""usage: coverage_table.py COVERAGE_JSON EXCLUSIONS [--missed [PATH...]]

Prints the share of branches that were taken, for each folder and for each area with a bar of its own, from what
`llvm-cov export` has written; exits with 1 below a bar. A branch is one outcome of one condition in the product's own
sources; what template instances share is counted once. With --missed, the outcomes that did not occur instead.

EXCLUSIONS has a line for each condition that is left out: path, the text of its source line, the reason. One that no
longer names a line is an error.
"""

import collections
import json
import pathlib
import sys

ROOT = pathlib.Path(__file__).resolve().parents[2]
NO_PRODUCT = ("tests/", "benchmarks/", "examples/", "platform/fake/", "search/RecordingMediator", "build")
OVERALL_BAR = 90.0
AREA_BAR = 98.0
AREAS = {
    "property lists": ("base/plist", "base/value", "base/date"),
    "watcher": ("messaging/InboxWatching", "messaging/MessageClaims", "platform/linux/InotifyWatches"),
    "pool": ("plugin/PasteboardPool", "search/LentPasteboard", "platform/linux/Pasteboard"),
    "registries": ("search/QueryRegistry", "search/LibraryIDSet", "messaging/ObserverRegistry",
                   "platform/linux/RunningApplications"),
    "batching": ("search/ResultBatches", "search/SearchSession", "search/delivery_order"),
    "log": ("base/format", "plugin/PluginLog", "platform/linux/LinuxLog", "messaging/log_line", "search/query_log"),
}


def product_branches(export):
    """{path: {(line, column, end line, end column): [times true, times false]}} of the product's files."""
    branches = collections.defaultdict(lambda: collections.defaultdict(lambda: [0, 0]))
    for file in export["data"][0]["files"]:
        try:
            path = pathlib.Path(file["filename"]).resolve().relative_to(ROOT).as_posix()
        except ValueError:
            continue
        if path.startswith(NO_PRODUCT) or path.endswith(("_test.cc", "_fixture.h", "testing.cc", "testing.h")):
            continue
        for line, column, end_line, end_column, times_true, times_false, *_ in file["branches"]:
            outcomes = branches[path][line, column, end_line, end_column]
            outcomes[0] += times_true
            outcomes[1] += times_false
    return branches


def is_constant(outcomes, line, place):
    """The compiler knows the outcome: no branch at all."""
    condition = line[place[1] - 1 : place[3] - 1] if place[0] == place[2] else ""
    return outcomes == [0, 0] and ("if constexpr" in line or condition in ("true", "false"))


def read_exclusions(path):
    exclusions = set()
    for line in path.read_text(encoding="utf-8").splitlines():
        if line and not line.startswith("#"):
            source, text, reason = line.split("\t")
            assert reason, f"no reason: {line}"
            if text not in (there.strip() for there in (ROOT / source).read_text(encoding="utf-8").splitlines()):
                sys.exit(f"{path}: {source} has no line \"{text}\"")
            exclusions.add((source, text))
    return exclusions


def outcomes_by_file(export, exclusions):
    """({path: (taken, all)}, [missed outcome], how many are left out)"""
    counts, missed, excluded = {}, [], 0
    for path, places in sorted(product_branches(export).items()):
        lines = (ROOT / path).read_text(encoding="utf-8").splitlines()
        taken = total = 0
        for place, outcomes in sorted(places.items()):
            line = lines[place[0] - 1]
            if is_constant(outcomes, line, place):
                continue
            for word, times in zip(("true", "false"), outcomes):
                if times == 0 and (path, line.strip()) in exclusions:
                    excluded += 1
                    continue
                total += 1
                taken += times > 0
                if times == 0:
                    missed.append((path, f"{path}:{place[0]}:{place[1]}: never {word}: {line.strip()}"))
        counts[path] = (taken, total)
    return counts, missed, excluded


def summed(counts, wanted):
    chosen = [count for path, count in counts.items() if wanted(path)]
    return sum(taken for taken, _ in chosen), sum(total for _, total in chosen)


def print_row(name, taken, total, bar=None):
    """Whether it stands above its bar."""
    share = 100.0 * taken / total if total else 100.0
    above = bar is None or share >= bar
    print(f"| {name} | {total:,} | {total - taken:,} | {share:.1f} % |" + ("" if above else f" below {bar:.0f} %"))
    return above


def main():
    export = json.loads(pathlib.Path(sys.argv[1]).read_text(encoding="utf-8"))
    exclusions = read_exclusions(pathlib.Path(sys.argv[2]))
    counts, missed, excluded = outcomes_by_file(export, exclusions)
    if "--missed" in sys.argv:
        paths = tuple(sys.argv[sys.argv.index("--missed") + 1 :])
        print("\n".join(text for path, text in missed if not paths or path.startswith(paths)))
        return 0
    print("| where | branches | not taken | taken |\n|---|---|---|---|")
    above = True
    for area, places in AREAS.items():
        above &= print_row(area, *summed(counts, lambda path: path.startswith(places)), bar=AREA_BAR)
    folders = sorted({str(pathlib.PurePosixPath(path).parent) for path in counts})
    for folder in folders:
        print_row(f"`{folder}`", *summed(counts, lambda path: str(pathlib.PurePosixPath(path).parent) == folder))
    above &= print_row("all", *summed(counts, lambda path: True), bar=OVERALL_BAR)
    print(f"\nLeft out: {excluded} outcomes of {len(exclusions)} lines.")
    return 0 if above else 1


if __name__ == "__main__":
    sys.exit(main())
