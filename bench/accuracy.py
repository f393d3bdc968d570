#!/usr/bin/env python3
"""Accuracy of the analysis over a corpus with ground truth.

Runs `lmreceipt analyze` on every PDF listed in the corpus manifest (one JSON
object per line: file, gross, tax, currency, date, tax_rates), with the
document's own tax rates as the user's rates and no default currency, and
prints per field how often the result equals the truth, overall and per
folder, then every miss with the chosen value and the truth.

Usage: bench/accuracy.py [--corpus DIR] [--tool PATH] [--markdown]
"""
import argparse
import collections
import datetime
import json
import os
import subprocess
import sys
from concurrent.futures import ThreadPoolExecutor
from decimal import Decimal, InvalidOperation

FIELDS = ("gross", "tax", "currency", "date")
ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))


def analyse(tool, corpus, row):
    args = [tool, "analyze", "--format", "json", "--jobs", "1"]
    for rate in row.get("tax_rates") or []:
        args += ["--tax", str(rate)]
    args.append(os.path.join(corpus, row["file"]))
    run = subprocess.run(args, capture_output=True, text=True, timeout=120)
    try:
        return json.loads(run.stdout)
    except json.JSONDecodeError:
        return {"error": "no JSON (exit %d): %s" % (run.returncode, run.stderr.strip()[-200:])}


def as_decimal(text):
    if text is None:
        return None
    try:
        return Decimal(str(text))
    except InvalidOperation:
        return None


def chosen(result, field):
    """The analysis' value of `field` in the truth's notation."""
    value = result.get(field)
    if value is None or "error" in result:
        return None
    if field == "date":
        # Dates are built at 12:00 local time; read them back in local time.
        return datetime.datetime.fromtimestamp(int(value)).strftime("%Y-%m-%d")
    return value


def equal(field, got, truth):
    if field in ("gross", "tax"):
        a, b = as_decimal(got), as_decimal(truth)
        if b is None:
            return a is None
        return a is not None and a == b
    return got == truth


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--corpus", default=os.environ.get("LM_CORPUS_DIR")
                        or os.path.join(ROOT, "..", "shared", "corpus"))
    parser.add_argument("--tool", default=os.path.join(ROOT, "build", "lmreceipt"))
    parser.add_argument("--markdown", action="store_true", help="print a Markdown report")
    options = parser.parse_args()

    with open(os.path.join(options.corpus, "manifest.jsonl"), encoding="utf-8") as f:
        rows = [json.loads(line) for line in f if line.strip()]
    with ThreadPoolExecutor(max_workers=os.cpu_count() or 2) as pool:
        results = list(pool.map(lambda r: analyse(options.tool, options.corpus, r), rows))

    hits = collections.defaultdict(collections.Counter)  # folder -> field -> hits
    counts = collections.Counter()  # folder -> documents
    misses = []
    for row, result in zip(rows, results):
        folder = row["file"].split("/")[0]
        for scope in ("all", folder):
            counts[scope] += 1
        for field in FIELDS:
            got = chosen(result, field)
            if equal(field, got, row.get(field)):
                hits["all"][field] += 1
                hits[folder][field] += 1
            else:
                misses.append((row["file"], field, got if "error" not in result else
                               "error: " + result["error"], row.get(field)))

    md = options.markdown
    out = []
    if md:
        out += ["# Accuracy on the corpus", "",
                "Made by `bench/accuracy.py --markdown` (do not edit by hand). Each document is",
                "analysed with its own tax rates as the user's rates and no default currency.",
                ""]
    header = ["scope", "documents"] + list(FIELDS)
    lines = []
    for scope in ["all"] + sorted(s for s in counts if s != "all"):
        n = counts[scope]
        lines.append([scope, str(n)] + ["%d (%.0f%%)" % (hits[scope][f], 100.0 * hits[scope][f] / n)
                                        for f in FIELDS])
    if md:
        out.append("| " + " | ".join(header) + " |")
        out.append("|" + "---|" * len(header))
        out += ["| " + " | ".join(l) + " |" for l in lines]
        out += ["", "## Misses", "", "| file | field | analysis | truth |", "|---|---|---|---|"]
        out += ["| %s | %s | %s | %s |" % m for m in misses]
    else:
        widths = [max(len(r[i]) for r in [header] + lines) for i in range(len(header))]
        for l in [header] + lines:
            out.append("  ".join(c.ljust(w) for c, w in zip(l, widths)))
        out += ["", "misses (file, field, analysis, truth):"]
        out += ["  %s  %s  %s  %s" % m for m in misses]
    print("\n".join(out))


if __name__ == "__main__":
    sys.exit(main())
