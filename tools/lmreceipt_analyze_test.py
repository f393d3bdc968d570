#!/usr/bin/env python3
"""End-to-end checks of `lmreceipt analyze` on the committed fixtures.

Usage: lmreceipt_analyze_test.py LMRECEIPT TESTDATA_DIR
Exits non-zero on the first failed check and prints a closing
"N passed, N failed" line.
"""
import datetime
import json
import os
import subprocess
import sys
import tempfile

RESULT_KEYS = ["ocr", "letter", "landscape", "date", "dates", "terms", "taxTerms", "net",
               "gross", "numbers", "currency", "currencies", "taxes", "taxPercent",
               "taxValues", "tax", "links", "addresses", "banks", "text", "factors"]

passed = failed = 0


def check(name, condition, detail=""):
    global passed, failed
    if condition:
        passed += 1
    else:
        failed += 1
        print("FAILED: %s %s" % (name, detail))


def run(tool, *args):
    return subprocess.run([tool, "analyze", *args], capture_output=True, text=True, timeout=120)


def standard(tool, *args):
    return run(tool, "--no-facts", *args)


def local_day(seconds_text):
    return datetime.datetime.fromtimestamp(int(seconds_text)).strftime("%Y-%m-%d")


def main():
    tool, testdata = sys.argv[1], sys.argv[2]
    sample = os.path.join(testdata, "sample-receipt.pdf")

    # One file: one JSON object with the 21 keys plus "pages".
    out = standard(tool, "--tax", "19", "--tax", "7", sample)
    check("sample exit status", out.returncode == 0, out.stderr)
    result = json.loads(out.stdout)
    check("result keys", list(result) == RESULT_KEYS + ["pages"], list(result))
    check("gross", result["gross"] == "15.3", result["gross"])
    check("net equals gross", result["net"] == "15.3", result["net"])
    check("tax", result["tax"] == "1", result["tax"])
    check("currency", result["currency"] == "EUR", result["currency"])
    check("date", local_day(result["date"]) == "2026-11-14", result["date"])
    check("taxes echoed", result["taxes"] == [19, 7], result["taxes"])
    check("null markers", result["taxPercent"] is None and result["taxValues"] is None)
    check("factors", result["factors"] == {})
    check("pages", len(result["pages"]) == 1 and "Gesamtbetrag" in result["pages"][0])
    check("numbers carry decimals as text",
          all(isinstance(n["number"], str) for n in result["numbers"]))
    check("banks", result["banks"][0]["iban"] == "DE89370400440532013000", result["banks"])

    # Default currency only when the document names none.
    out = standard(tool, "--currency", "CHF", os.path.join(testdata, "pdf", "two_pages.pdf"))
    two = json.loads(out.stdout)
    check("default currency", two["currency"] == "CHF", two["currency"])
    check("no gross", two["gross"] is None and two["net"] is None and two["tax"] is None)
    check("two pages", two["pages"] == ["Erste Seite", "Zweite Seite"], two["pages"])

    # Pages without text stay in "pages" as empty texts.
    no_text = json.loads(standard(tool, os.path.join(testdata, "pdf", "no_text.pdf")).stdout)
    check("empty page", no_text["pages"] == [""], no_text["pages"])

    # Errors: garbage and empty files; the other files are still analysed.
    with tempfile.NamedTemporaryFile(suffix=".pdf") as empty:
        garbage = os.path.join(testdata, "pdf", "garbage.pdf")
        out = standard(tool, garbage, sample, empty.name)
        check("error exit status", out.returncode == 1, out.returncode)
        lines = [json.loads(line) for line in out.stdout.splitlines()]
        check("one line per file", len(lines) == 3, out.stdout)
        check("garbage error", lines[0] == {"file": garbage, "error": "Could not open document"},
              lines[0])
        check("sample between errors", lines[1]["file"] == sample and lines[1]["gross"] == "15.3")
        check("empty error", lines[2].get("error") == "Could not open document", lines[2])

    # Files that cannot be read are errors too, a folder among them.
    out = run(tool, testdata, os.path.join(testdata, "missing.pdf"))
    lines = [json.loads(line) for line in out.stdout.splitlines()]
    check("unreadable exit status", out.returncode == 1, out.returncode)
    check("folder error", lines and lines[0].get("error") == "Could not read file: Is a directory",
          out.stdout + out.stderr)
    check("missing error", len(lines) == 2 and
          lines[1].get("error") == "Could not read file: No such file or directory", out.stdout)

    # A file beyond the size limit is refused before it is read (a sparse
    # file: nothing is written), also when it comes through a pipe.
    with tempfile.TemporaryDirectory() as folder:
        huge = os.path.join(folder, "huge.pdf")
        with open(huge, "wb") as f:
            f.truncate(64 * 1024 * 1024 + 1)
        too_large = "Could not read file: file too large (limit 64 MB)"
        out = run(tool, "--format", "summary", huge)
        check("huge file", out.returncode == 1 and out.stdout.strip() == huge + ": error: " +
              too_large, out.stdout + out.stderr)
        out = subprocess.run("cat %s | %s analyze /dev/stdin" % (huge, tool), shell=True,
                             capture_output=True, text=True, timeout=120)
        check("huge pipe", out.returncode == 1 and json.loads(out.stdout).get("error") == too_large,
              out.stdout + out.stderr)

    out = standard(tool, "--format", "summary", sample)
    check("summary", out.stdout.strip() ==
          sample + ": gross 15.30 net 15.30 tax 1.00 currency EUR date 2026-11-14", out.stdout)

    # Facts: on by default, after the standard keys; e-invoice XML accepted.
    out = run(tool, "--tax", "19", sample)
    result = json.loads(out.stdout)
    check("facts last", list(result) == RESULT_KEYS + ["pages", "facts"], list(result))
    facts = result["facts"]
    check("text facts", facts["source"] == "text" and facts["gross"] == "15.30" and
          facts["net"] == "14.30" and facts["tax"] == "1.00" and facts["currency"] == "EUR", facts)
    out = run(tool, "--format", "summary", sample)
    check("facts summary", out.stdout.strip() ==
          sample + ": gross 15.30 net 14.30 tax 1.00 EUR date 2026-11-14 (text)", out.stdout)
    out = run(tool, "--facts-from", "e-invoice", "--format", "summary", sample)
    check("no e-invoice", out.stdout.strip().endswith(
          "gross - net - tax - - date - (-); ! check einvoice-used failed"), out.stdout)
    xml = os.path.join(testdata, "einvoice", "ubl-creditnote.xml")
    out = run(tool, xml)
    reply = json.loads(out.stdout)
    check("xml reply", list(reply) == ["facts", "pages"] and reply["pages"] == [] and
          reply["facts"]["source"] == "e-invoice" and reply["facts"]["kind"] == "credit-note" and
          reply["facts"]["gross"].startswith("-"), out.stdout[:300])
    out = standard(tool, xml)
    check("xml without facts", json.loads(out.stdout) == {"error": "Could not open document"},
          out.stdout)

    for bad in (["--format", "xml", sample], ["--facts-from", "pdf", sample], ["--tax", "abc", sample], ["--jobs", "0", sample],
                ["--bogus", sample], []):
        out = run(tool, *bad)
        check("usage error %s" % bad, out.returncode == 2 and "usage:" in out.stderr, out.stderr)

    print("%d passed, %d failed" % (passed, failed))
    return 1 if failed else 0


if __name__ == "__main__":
    sys.exit(main())
