#!/usr/bin/env python3
"""Writes the hostile PDF seeds of fuzz/corpus/pdf/: small files that ask for
much (see the limits in docs/reliability.md).

Run from anywhere: python3 fuzz/corpus/make_hostile_seeds.py
The output is deterministic.
"""

import os
import zlib

OUT = os.path.join(os.path.dirname(os.path.abspath(__file__)), "pdf")
FONT = b"<</Type/Font/Subtype/Type1/BaseFont/Helvetica/Encoding/WinAnsiEncoding>>"


def pdf(contents, shared_pages=0, claimed_count=None):
    """One page per content, or `shared_pages` pages sharing the first one;
    the page tree's /Count says `claimed_count` when given."""
    objects = [b"<</Type/Catalog/Pages 2 0 R>>", None, FONT]

    def add(obj):
        objects.append(obj)
        return len(objects)

    def stream(content):
        packed = zlib.compress(content, 9)
        return add(b"<</Length %d/Filter/FlateDecode>>stream\n" % len(packed) + packed +
                   b"\nendstream")

    def page(content):
        return add(b"<</Type/Page/Parent 2 0 R/MediaBox[0 0 595 842]/Contents %d 0 R"
                   b"/Resources<</Font<</F1 3 0 R>>>>>>" % content)

    if shared_pages:
        content = stream(contents[0])
        kids = [page(content) for _ in range(shared_pages)]
    else:
        kids = [page(stream(c)) for c in contents]
    count = len(kids) if claimed_count is None else claimed_count
    objects[1] = (b"<</Type/Pages/Count %d/Kids[" % count +
                  b" ".join(b"%d 0 R" % k for k in kids) + b"]>>")
    out = bytearray(b"%PDF-1.4\n")
    offsets = []
    for number, obj in enumerate(objects, 1):
        offsets.append(len(out))
        out += b"%d 0 obj\n" % number + obj + b"\nendobj\n"
    xref = len(out)
    out += b"xref\n0 %d\n0000000000 65535 f \n" % (len(objects) + 1)
    out += b"".join(b"%010d 00000 n \n" % o for o in offsets)
    out += b"trailer\n<</Size %d/Root 1 0 R>>\nstartxref\n%d\n%%%%EOF\n" % (len(objects) + 1, xref)
    return bytes(out)


def lines(count, text, size, step):
    """Text objects of 100 lines each (see below)."""
    out = b""
    for first in range(0, count, 100):
        out += b"BT /F1 %s Tf 1 0 0 1 20 %.4f Tm\n" % (size, 830 - first * float(step))
        out += b"0 -%s Td (%s) Tj\n" % (step, text) * min(100, count - first)
        out += b"ET\n"
    return out


SEEDS = {
    # Thousands of amounts and currency mentions on one page.
    "hostile-crowded-page.pdf": pdf([lines(3000, b"EUR 12,34", b"1", b"0.06")]),
    # Not here: a page beyond the character bound (PdfSourceTest has one).
    # It needs 200,000 glyphs, and the fuzzer soon joins them into one text
    # object, whose glyph array MuPDF grows a few dozen at a time: every
    # growth a copy under AddressSanitizer, so minutes a run.
    # A page tree that claims more pages than a document may have.
    "hostile-page-count.pdf": pdf([lines(1, b"Summe 12,34 EUR", b"10", b"20")],
                                  claimed_count=100000),
    # Pages that all share one content stream.
    "hostile-shared-pages.pdf": pdf([b"BT /F1 10 Tf 50 800 Td (Summe 12,34 EUR) Tj 0 -20 Td "
                                     b"(Datum 01.02.2024) Tj ET"], shared_pages=200),
}

for name, data in SEEDS.items():
    with open(os.path.join(OUT, name), "wb") as f:
        f.write(data)
