#!/usr/bin/env python3
"""How often the text facts are right, per field, per language and per folder.

Runs `lmreceipt analyze --facts-from text --format json` (no task rates) on
every corpus PDF that has a text layer and compares the facts with the
manifest's truth: gross, net and tax as signed decimals (a credit note's are
negative; "gross_alt" lists other defensible gross values), currency as the
code, the issue date as YYYY-MM-DD. Files alternate between two halves in
manifest order within each folder (1st, 3rd, ... are "dev", the others
"held-out"); both are reported, since a gap between them is a warning sign.
A field whose truth the manifest leaves null is not counted. Also counts the
wrong values the facts were sure of (score >= 0.9).

usage: facts_accuracy.py [--lmreceipt PATH] [--corpus DIR] [--half dev|held-out|all]
                         [--show-wrong] [--check FILE...]

--check FILE... is the golden test: only the named corpus files, each of
whose known fields must be right; the exit status is 1 when one is not, 77
(skipped) when the corpus is not there.
"""
import argparse
import collections
import json
import os
import subprocess
import sys
from decimal import Decimal, InvalidOperation

FIELDS = ["gross", "net", "tax", "currency", "issueDate"]
TRUTH_KEY = {"gross": "gross", "net": "net", "tax": "tax", "currency": "currency", "issueDate": "date"}
SURE = 0.9


def as_decimal(text):
    try:
        return Decimal(str(text))
    except (InvalidOperation, TypeError):
        return None


def signed(row, key):
    value = as_decimal(row.get(key))
    if value is not None and row.get("kind") == "credit-note" and value > 0:
        value = -value
    return value


def is_right(field, row, got):
    if got is None:
        return False
    if field in ("gross", "net", "tax"):
        got_value = as_decimal(got)
        wanted = [signed(row, TRUTH_KEY[field])]
        if field == "gross":
            wanted += [signed({"v": v, "kind": row.get("kind")}, "v") for v in row.get("gross_alt") or []]
        return got_value is not None and got_value in [w for w in wanted if w is not None]
    return got == row.get(TRUTH_KEY[field])


def halves(rows):
    seen = collections.Counter()
    for row in rows:
        folder = row["file"].split("/")[0]
        row["half"] = "dev" if seen[folder] % 2 == 0 else "held-out"
        seen[folder] += 1
    return rows


def run(lmreceipt, corpus, rows):
    files = [os.path.join(corpus, r["file"]) for r in rows]
    env = dict(os.environ, TZ="UTC")
    out = subprocess.run([lmreceipt, "analyze", "--facts-from", "text", "--format", "json"] + files,
                         capture_output=True, text=True, env=env, check=False).stdout
    by_file = {}
    for line in out.splitlines():
        reply = json.loads(line)
        by_file[os.path.relpath(reply["file"], corpus)] = reply.get("facts") or {}
    return by_file


def table(title, groups):
    print(f"\n{title}")
    print(f"{'':<24}{'n':>4}" + "".join(f"{f:>10}" for f in FIELDS))
    for name in sorted(groups):
        results = groups[name]
        n = len(results)

        def share(field):
            known = [r[field] for r in results if r[field] is not None]
            return 100.0 * sum(known) / len(known) if known else None

        cells = "".join(f"{share(f):>9.1f}%" if share(f) is not None else f"{'-':>10}"
                        for f in FIELDS)
        print(f"{name:<24}{n:>4}{cells}")


def check(lmreceipt, corpus, rows, wanted):
    facts = run(lmreceipt, corpus, rows)
    wrong = [f"{f}: not in the manifest" for f in wanted if f not in {r["file"] for r in rows}]
    for row in rows:
        got = facts.get(row["file"], {})
        for field in FIELDS:
            if row.get(TRUTH_KEY[field]) is not None and not is_right(field, row, got.get(field)):
                wrong.append(f"{row['file']} {field}: got {got.get(field)} want {row.get(TRUTH_KEY[field])}")
    print("\n".join(wrong) or f"{len(rows)} files right")
    return 1 if wrong else 0


def main():
    here = os.path.dirname(os.path.abspath(__file__))
    parser = argparse.ArgumentParser()
    parser.add_argument("--lmreceipt", default=os.path.join(here, "..", "build", "lmreceipt"))
    parser.add_argument("--corpus", default=os.path.join(here, "..", "..", "shared", "corpus"))
    parser.add_argument("--half", default="all", choices=["dev", "held-out", "all"])
    parser.add_argument("--show-wrong", action="store_true")
    parser.add_argument("--check", nargs="+", metavar="FILE")
    args = parser.parse_args()

    manifest = os.path.join(args.corpus, "manifest.jsonl")
    if args.check and not os.path.exists(manifest):
        print(f"no corpus at {args.corpus}: skipped")
        return 77
    with open(manifest) as f:
        rows = halves([json.loads(line) for line in f if line.strip()])
    rows = [r for r in rows if r.get("text_layer", True)]
    if args.check:
        return check(args.lmreceipt, args.corpus, [r for r in rows if r["file"] in args.check], args.check)
    if args.half != "all":
        rows = [r for r in rows if r["half"] == args.half]
    facts = run(args.lmreceipt, args.corpus, rows)

    by_half, by_lang, by_folder = (collections.defaultdict(list) for _ in range(3))
    sure_wrong = []
    for row in rows:
        got = facts.get(row["file"], {})
        result = {}
        for field in FIELDS:
            value = got.get(field)
            if row.get(TRUTH_KEY[field]) is None:
                result[field] = None  # the truth is not known: not counted
                continue
            result[field] = is_right(field, row, value)
            score = ((got.get("evidence") or {}).get(field) or {}).get("score") or 0
            if not result[field] and value is not None and score >= SURE:
                sure_wrong.append((row["file"], field, value, score))
            if not result[field] and args.show_wrong:
                print(f"WRONG {row['file']} {field}: got {value} ({score}) want {row.get(TRUTH_KEY[field])}")
        by_half[row["half"]].append(result)
        by_half["all"].append(result)
        by_lang[row.get("lang") or "?"].append(result)
        by_folder[row["file"].split("/")[0]].append(result)

    table("per half", by_half)
    table("per language", by_lang)
    table("per folder", by_folder)
    print(f"\nwrong values with score >= {SURE}: {len(sure_wrong)}")
    for entry in sure_wrong:
        print("  %s %s: %s (%.2f)" % entry)
    return 0


if __name__ == "__main__":
    sys.exit(main())
