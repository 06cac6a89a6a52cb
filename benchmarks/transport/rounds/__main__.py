"""Measures this library and its peers in rounds, each in turn, and prints medians.

A ratio is the median, over the rounds, of a peer's cost to that of the floor (a raw socket) in the same round.
"""

import argparse
import json
import pathlib
import os
import platform
import sys

import documents
import tables
from catalogue import MEASURES, PEERS
from results import Results
from stage import Failure, Stage

DOCUMENTS = pathlib.Path(__file__).resolve().parents[3] / "docs"


def parse():
    parser = argparse.ArgumentParser(prog="scripts/bench", description=__doc__,
                                     formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--programs", metavar="FOLDER", type=pathlib.Path, required=True, help=argparse.SUPPRESS)
    parser.add_argument("--rounds", metavar="N", type=int, help="how many (5; with --quick, 1)")
    parser.add_argument("--seconds", metavar="S", type=float,
                        help="for each measure of each peer (1; with --quick, 0.2)")
    parser.add_argument("--quick", action="store_true", help="a look at whether everything works")
    parser.add_argument("--only", metavar="MEASURE", action="append", choices=[measure.name for measure in MEASURES],
                        help="a measure, may be repeated: %(choices)s")
    parser.add_argument("--peers", metavar="LIST", default=",".join(peer.name for peer in PEERS),
                        help="separated by commas (%(default)s)")
    parser.add_argument("--json", metavar="FILE", type=pathlib.Path,
                        help="write every figure of every round, as soon as the round is over")
    parser.add_argument("--from", metavar="FILE", type=pathlib.Path, dest="source",
                        help="measure nothing, and take what --json has written")
    parser.add_argument("--update-docs", action="store_true", help="rewrite the tables and pictures in docs/")
    options = parser.parse_args()
    options.rounds = options.rounds or (1 if options.quick else 5)
    options.seconds = options.seconds or (0.2 if options.quick else 1)
    names = options.peers.split(",")
    unknown = set(names) - {peer.name for peer in PEERS}
    if unknown:
        parser.error(f"unknown peers: {', '.join(sorted(unknown))}")
    options.peers = [peer for peer in PEERS if peer.name in names]
    return options


def built(options):
    """The peers that there is a program of; the others are named."""
    found = []
    for peer in options.peers:
        if (options.programs / "benchmarks/transport" / peer.program).exists():
            found.append(peer)
        else:
            print(f"Skipped: {peer.title}, which is not built since its packages are missing", file=sys.stderr)
    return found


def runs(options, peers):
    """What a round consists of."""
    for measure in MEASURES:
        if options.only and measure.name not in options.only:
            continue
        if options.quick and not options.only and not measure.is_quick:
            continue
        for setting in measure.settings:
            for peer in peers:
                if (not peer.only or measure.name in peer.only) and (not measure.only or peer.name in measure.only):
                    yield measure, setting, peer


def take(options, results, machine):
    peers = built(options)
    for number in range(options.rounds):
        for measure, setting, peer in runs(options, peers):
            print(f"round {number + 1} of {options.rounds}: {measure.name}, {setting}, {peer.name}", file=sys.stderr)
            try:
                with Stage(options.programs, peer, setting) as stage:
                    figures = stage.measure(measure, options.seconds)
                results.add(number, measure.name, setting, peer.name, figures=figures)
            except Failure as failure:
                print(f"  -: {failure}", file=sys.stderr)
                results.add(number, measure.name, setting, peer.name, failure=str(failure))
        save(options, results, machine | {"rounds": number + 1})


def save(options, results, machine):
    if options.json:
        stored = {"machine": machine, "entries": results.entries}
        options.json.write_text(json.dumps(stored, indent=1), encoding="utf-8")


def machine_of(options):
    cpu = pathlib.Path("/proc/cpuinfo").read_text(encoding="utf-8")
    models = [line.split(":", 1)[1].strip() for line in cpu.splitlines() if line.startswith("model name")]
    return {"rounds": options.rounds, "seconds": options.seconds, "processors": len(os.sched_getaffinity(0)),
            "model": models[0] if models else platform.machine(), "kernel": platform.release()}


def main():
    options = parse()
    if options.source:
        stored = json.loads(options.source.read_text(encoding="utf-8"))
        machine, results = stored["machine"], Results(stored["entries"])
    else:
        machine, results = machine_of(options), Results()
        take(options, results, machine)
    print(documents.render(results, machine, lambda *_: None), end="")
    if options.update_docs:
        print("Written in docs/:", ", ".join(documents.update(DOCUMENTS, results, machine)), file=sys.stderr)
    return 0


if __name__ == "__main__":
    sys.exit(main())
