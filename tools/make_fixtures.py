#!/usr/bin/env python3
"""Writes the PDF fixtures of testdata/ with a tiny PDF writer.

Run from anywhere: python3 tools/make_fixtures.py
The output is deterministic (no dates, no random ids), so re-running it on an
unchanged script leaves the committed files byte for byte the same.

Beside the PDFs it writes testdata/fixtures.json, what each fixture holds as
a reader should find it: whether it opens, its document information, and for
each page the media box, the text lines in content order (text, left edge,
baseline, font and size) and the links. The PDF adapter's tests are driven by
that description.

The writer knows just enough PDF for text fixtures: numbered objects, one
classic cross-reference table, a trailer with the document information, the
base-14 fonts Helvetica and Helvetica-Bold with WinAnsiEncoding (byte 0xA0
named as the no-break space), uncompressed content streams with BT/Tf/Td/Tj,
link annotations, one font with a ToUnicode map for characters WinAnsi
cannot express, and RC4 encryption for protected files.
"""

import hashlib
import json
import os
import sys

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
PDF_DIR = os.path.join(ROOT, "testdata", "pdf")

A4 = (595, 842)
A4_LANDSCAPE = (842, 595)
LETTER = (612, 792)

# Advance widths (1/1000 em) of the WinAnsi characters the fixtures use, from
# the standard metrics of the two base-14 fonts. Only used to right-align
# amounts; characters missing here count as 556 (a digit).
_HELVETICA = {
    " ": 278, "!": 278, "%": 889, "&": 667, "(": 333, ")": 333, "+": 584,
    ",": 278, "-": 333, ".": 278, "/": 278, ":": 278, "@": 1015,
    "A": 667, "B": 667, "C": 722, "D": 722, "E": 667, "F": 611, "G": 778,
    "H": 722, "I": 278, "J": 500, "K": 667, "L": 556, "M": 833, "N": 722,
    "O": 778, "P": 667, "Q": 778, "R": 722, "S": 667, "T": 611, "U": 722,
    "V": 667, "W": 944, "X": 667, "Y": 667, "Z": 611,
    "a": 556, "b": 556, "c": 500, "d": 556, "e": 556, "f": 278, "g": 556,
    "h": 556, "i": 222, "j": 222, "k": 500, "l": 222, "m": 833, "n": 556,
    "o": 556, "p": 556, "q": 556, "r": 333, "s": 500, "t": 278, "u": 556,
    "v": 500, "w": 722, "x": 500, "y": 500, "z": 500,
    "\u00a0": 278, "\u00e4": 556, "\u00f6": 556, "\u00fc": 556,
    "\u00df": 611, "\u20ac": 556,
}
_HELVETICA_BOLD = dict(_HELVETICA)
_HELVETICA_BOLD.update({
    "!": 333, "&": 722, ":": 333, "@": 975, "A": 722, "B": 722, "J": 556,
    "K": 722, "L": 611, "b": 611, "c": 556, "d": 611, "f": 333, "g": 611,
    "h": 611, "i": 278, "j": 278, "k": 556, "l": 278, "m": 889, "n": 611,
    "o": 611, "p": 611, "q": 611, "r": 389, "s": 556, "t": 333, "u": 611,
    "v": 556, "w": 778, "x": 556, "y": 556, "\u00f6": 611, "\u00fc": 611,
})
WIDTHS = {"Helvetica": _HELVETICA, "Helvetica-Bold": _HELVETICA_BOLD}


def text_width(text, font, size):
    table = WIDTHS[font]
    return sum(table.get(ch, 556) for ch in text) * size / 1000.0


def pdf_string(text):
    """A literal string in WinAnsi bytes, with the delimiters escaped."""
    raw = text.encode("cp1252")
    out = bytearray(b"(")
    for b in raw:
        if b in b"()\\":
            out += b"\\" + bytes([b])
        elif b < 32 or b > 126:
            out += b"\\%03o" % b
        else:
            out.append(b)
    out += b")"
    return bytes(out)


def num(value):
    """A PDF number without a needless fraction."""
    if float(value).is_integer():
        return b"%d" % int(value)
    return (b"%.3f" % value).rstrip(b"0").rstrip(b".")


class Text:
    """One Tj at (x, y) in user space. `font` is a resource name of Page."""

    def __init__(self, x, y, text, font="F1", size=12, raw=None, joined=False):
        self.x, self.y, self.text, self.font, self.size = x, y, text, font, size
        self.raw = raw  # bytes shown as they are (for the ToUnicode font)
        self.joined = joined  # continues the line of the text before it


class Link:
    def __init__(self, rect, uri):
        self.rect, self.uri = rect, uri


class Page:
    def __init__(self, size=A4, texts=(), links=(), rotate=None,
                 media_box=None, crop_box=None, graphics=b"", inherit_box=False):
        self.size = size
        self.texts = list(texts)
        self.links = list(links)
        self.rotate = rotate
        self.media_box = media_box or (0, 0, size[0], size[1])
        self.crop_box = crop_box
        self.graphics = graphics
        self.inherit_box = inherit_box  # the MediaBox sits on the page tree


def right_aligned(right, y, text, font_name, resource, size):
    return Text(right - text_width(text, font_name, size), y, text, resource, size)


# The fonts every page can use. F3 shows single bytes whose characters come
# from its ToUnicode map: "A" U+1F600 (beyond the 16-bit range), "B" the
# ligature U+FB01, "C" the thin space U+2009.
FONT_RESOURCES = {
    "F1": "Helvetica",
    "F2": "Helvetica-Bold",
    "F3": "ToUnicode",
}
# The font a reader names for each resource (F3 draws with Helvetica), and
# what F3's bytes read as: the ligature as its letters.
FONT_NAMES = {"F1": "Helvetica", "F2": "Helvetica-Bold", "F3": "Helvetica"}
READS_AS = {b"A": "\U0001F600", b"B": "fi", b"C": "\u2009"}

# WinAnsiEncoding with byte 0xA0 named "nbspace": the standard table calls
# that byte "space", so readers would take the no-break space for a blank.
WIN_ANSI = (b"<< /Type /Encoding /BaseEncoding /WinAnsiEncoding "
            b"/Differences [160 /nbspace] >>")

TO_UNICODE_CMAP = b"""/CIDInit /ProcSet findresource begin
12 dict begin
begincmap
/CIDSystemInfo << /Registry (Adobe) /Ordering (UCS) /Supplement 0 >> def
/CMapName /Fixture-UCS def
/CMapType 2 def
1 begincodespacerange
<00> <FF>
endcodespacerange
3 beginbfchar
<41> <D83DDE00>
<42> <FB01>
<43> <2009>
endbfchar
endcmap
CMapName currentdict /CMap defineresource pop
end
end
"""


# Standard security handler, revision 2 (RC4 with 40-bit keys): enough for
# fixtures of protected files.
PASSWORD_PAD = bytes.fromhex(
    "28bf4e5e4e758a4164004e56fffa01082e2e00b6d0683e802f0ca9fe6453697a")
FILE_ID = bytes.fromhex("6c6d66697874757265732d6669786564")
PERMISSIONS = -44  # printing and copying not allowed


def rc4(key, data):
    state = list(range(256))
    j = 0
    for i in range(256):
        j = (j + state[i] + key[i % len(key)]) % 256
        state[i], state[j] = state[j], state[i]
    out = bytearray()
    i = j = 0
    for byte in data:
        i = (i + 1) % 256
        j = (j + state[i]) % 256
        state[i], state[j] = state[j], state[i]
        out.append(byte ^ state[(state[i] + state[j]) % 256])
    return bytes(out)


def padded(password):
    return (password.encode("latin-1") + PASSWORD_PAD)[:32]


class Encryption:
    def __init__(self, user_password, owner_password):
        self.user_password = user_password
        self.owner = rc4(hashlib.md5(padded(owner_password)).digest()[:5],
                         padded(user_password))
        self.key = hashlib.md5(padded(user_password) + self.owner +
                               PERMISSIONS.to_bytes(4, "little", signed=True) +
                               FILE_ID).digest()[:5]
        self.user = rc4(self.key, PASSWORD_PAD)

    def encrypt(self, number, data):
        key = hashlib.md5(self.key + number.to_bytes(3, "little") + b"\0\0").digest()[:10]
        return rc4(key, data)

    def dictionary(self):
        return b"<< /Filter /Standard /V 1 /R 2 /O <%s> /U <%s> /P %d >>" % (
            self.owner.hex().encode(), self.user.hex().encode(), PERMISSIONS)


class Writer:
    def __init__(self, encryption=None):
        self.objects = []  # bytes of object n at index n - 1
        self.encryption = encryption

    def reserve(self):
        self.objects.append(None)
        return len(self.objects)

    def set(self, number, body):
        self.objects[number - 1] = body

    def add(self, body):
        number = self.reserve()
        self.set(number, body)
        return number

    def stream(self, data, extra=b""):
        return self.add(b"<< /Length %d%s >>\nstream\n" % (len(data), extra) +
                        data + b"\nendstream")

    def document(self, pages, info):
        """The whole file: catalog, page tree, pages, fonts, info."""
        catalog = self.reserve()
        tree = self.reserve()
        fonts = {}
        used = {t.font for page in pages for t in page.texts}
        for resource, base in FONT_RESOURCES.items():
            if resource not in used:
                continue
            if base == "ToUnicode":
                cmap = self.stream(TO_UNICODE_CMAP)
                fonts[resource] = self.add(
                    b"<< /Type /Font /Subtype /Type1 /BaseFont /Helvetica "
                    b"/Encoding /WinAnsiEncoding /ToUnicode %d 0 R >>" % cmap)
            else:
                fonts[resource] = self.add(
                    b"<< /Type /Font /Subtype /Type1 /BaseFont /%s "
                    b"/Encoding %s >>" % (base.encode(), WIN_ANSI))
        font_dict = b"<< " + b" ".join(
            b"/%s %d 0 R" % (name.encode(), number)
            for name, number in fonts.items()) + b" >>"

        kids = []
        tree_box = None
        for page in pages:
            content = bytearray(page.graphics)
            for t in page.texts:
                shown = b"<%s>" % t.raw.hex().encode() if t.raw else pdf_string(t.text)
                content += b"BT /%s %s Tf %s %s Td %s Tj ET\n" % (
                    t.font.encode(), num(t.size), num(t.x), num(t.y), shown)
            content_ref = self.stream(bytes(content))
            annots = []
            for link in page.links:
                annots.append(self.add(
                    b"<< /Type /Annot /Subtype /Link /Rect [%s] /Border [0 0 0] "
                    b"/A << /S /URI /URI %s >> >>" % (
                        b" ".join(num(v) for v in link.rect),
                        pdf_string(link.uri))))
            entries = [b"/Type /Page", b"/Parent %d 0 R" % tree,
                       b"/Resources << /Font %s >>" % font_dict if fonts
                       else b"/Resources << >>",
                       b"/Contents %d 0 R" % content_ref]
            box = b"[%s]" % b" ".join(num(v) for v in page.media_box)
            if page.inherit_box:
                tree_box = box
            else:
                entries.append(b"/MediaBox " + box)
            if page.crop_box:
                entries.append(b"/CropBox [%s]" % b" ".join(num(v) for v in page.crop_box))
            if page.rotate is not None:
                entries.append(b"/Rotate %d" % page.rotate)
            if annots:
                entries.append(b"/Annots [%s]" % b" ".join(b"%d 0 R" % a for a in annots))
            kids.append(self.add(b"<< " + b" ".join(entries) + b" >>"))

        tree_entries = b"/Type /Pages /Kids [%s] /Count %d" % (
            b" ".join(b"%d 0 R" % k for k in kids), len(kids))
        if tree_box:
            tree_entries += b" /MediaBox " + tree_box
        self.set(tree, b"<< " + tree_entries + b" >>")
        self.set(catalog, b"<< /Type /Catalog /Pages %d 0 R >>" % tree)
        info_ref = None
        if info:
            info_ref = self.reserve()
            self.set(info_ref, b"<< " + b" ".join(
                b"/%s %s" % (k.encode(), self.info_string(info_ref, v))
                for k, v in info.items()) + b" >>")
        return self.serialize(catalog, info_ref)

    def info_string(self, number, text):
        if not self.encryption:
            return pdf_string(text)
        return b"<%s>" % self.encryption.encrypt(number, text.encode("cp1252")).hex().encode()

    def encrypted_body(self, number, body):
        """Stream data encrypted with the object's key (streams are the only
        other strings the fixtures hold when encrypted)."""
        head, marker, rest = body.partition(b">>\nstream\n")
        if not marker:
            return body
        data = rest[:-len(b"\nendstream")]
        return head + marker + self.encryption.encrypt(number, data) + b"\nendstream"

    def serialize(self, catalog, info_ref):
        out = bytearray(b"%PDF-1.4\n%\xe2\xe3\xcf\xd3\n")
        offsets = []
        for number, body in enumerate(self.objects, start=1):
            if self.encryption:
                body = self.encrypted_body(number, body)
            offsets.append(len(out))
            out += b"%d 0 obj\n" % number + body + b"\nendobj\n"
        xref = len(out)
        out += b"xref\n0 %d\n" % (len(self.objects) + 1)
        out += b"0000000000 65535 f \n"
        for offset in offsets:
            out += b"%010d 00000 n \n" % offset
        trailer = b"/Size %d /Root %d 0 R" % (len(self.objects) + 1, catalog)
        if info_ref:
            trailer += b" /Info %d 0 R" % info_ref
        if self.encryption:
            trailer += b" /Encrypt %s /ID [<%s> <%s>]" % (
                self.encryption.dictionary(), FILE_ID.hex().encode(), FILE_ID.hex().encode())
        out += b"trailer\n<< " + trailer + b" >>\nstartxref\n%d\n%%%%EOF\n" % xref
        return bytes(out)


ORDINARY = {"Creator": "Writer", "Producer": "our fixture writer"}


def make(pages, info=ORDINARY, encryption=None):
    assert not (encryption and any(page.links for page in pages)), "URIs stay plain"
    return Writer(encryption).document(pages, info)


def lines_page(size, lines, top=None, left=72, step=18):
    top = top if top is not None else size[1] - 72
    return Page(size, [Text(left, top - i * step, line) for i, line in enumerate(lines)])


# What tools/make_fixtures.py wrote, fixture by fixture (see describe).
DESCRIPTIONS = {}


def fixtures():
    f = {}

    def add(name, pages, **options):
        f[name] = make(pages, **options)
        DESCRIPTIONS["pdf/" + name] = describe(pages, **options)
        return pages

    portrait_pages = add("a4_portrait.pdf", [lines_page(A4, [
        "Rechnung Nr. 4711", "Datum: 14.11.2026", "Summe netto 14,30 EUR"])])
    add("a4_landscape.pdf", [lines_page(A4_LANDSCAPE, ["Querformat", "Seite 1"])])
    add("us_letter.pdf", [lines_page(LETTER, ["Invoice 12", "Total 9.99 USD"])])
    # "Rotated" starts at (100, 700) in user space; the page is shown turned
    # by 90 degrees, so in display space it runs downwards.
    add("rotated.pdf", [Page(A4, [Text(100, 700, "Rotated", size=12),
                                  Text(100, 500, "Second line", size=12)],
                             rotate=90)])
    # A drawn frame and no text; no document information at all.
    add("no_text.pdf", [Page(A4, graphics=b"0 0 1 rg 100 100 200 50 re f\n")], info=None)
    # The media box is inherited from the page tree.
    add("two_pages.pdf", [
        Page(A4, [Text(72, 770, "Erste Seite")], inherit_box=True),
        Page(A4, [Text(72, 770, "Zweite Seite")], inherit_box=True)])
    # A label at the left and a larger bold amount at the right of one row,
    # the amount's baseline 2 points higher.
    add("amount_row.pdf", [Page(A4, [
        Text(72, 400, "Gesamtbetrag", "F1", 12),
        right_aligned(523, 402, "15,30 EUR", "Helvetica-Bold", "F2", 16)])])
    add("nbsp.pdf", [Page(A4, [Text(72, 700, "Summe\u00a0netto 14,30\u00a0EUR")])])
    add("links.pdf", [Page(A4, [
        Text(72, 700, "Beleg online"), Text(72, 650, "Fragen per Mail")], links=[
        Link((70, 695, 160, 712), "https://example.com/receipt"),
        Link((70, 645, 170, 662), "mailto:beleg@example.com")])])
    add("ocr_creator.pdf", [lines_page(A4, ["Gescannter Beleg"])],
        info={"Creator": "ABBYY FineReader 15", "Producer": "ABBYY FineReader 15"})
    add("ocr_producer.pdf", [lines_page(A4, ["Gescannter Beleg"])],
        info={"Creator": "Microsoft Word",
              "Producer": "Adobe Acrobat 9.0 Paper Capture Plug-in"})
    # Characters WinAnsi lacks, through the ToUnicode font F3: "Smile " then
    # U+1F600, "B" -> U+FB01 (the ligature "fi") inside "Pro?t", and a thin
    # space between "10" and "kg".
    add("unicode.pdf", [Page(A4, run(72, 700, ["Smile ", b"A", "ok"]) +
                             run(72, 650, ["Pro", b"B", "t"]) +
                             run(72, 600, ["10", b"C", "kg"]))])
    # The media box does not start at the origin and a crop box cuts it.
    add("offset_box.pdf", [Page(A4, [Text(150, 800, "Versetzt")],
                                media_box=(100, 100, 695, 942),
                                crop_box=(120, 120, 675, 922))])
    add("multipage.pdf", [invoice_page(n) for n in range(1, 16)])
    # Protected files: one that only restricts permissions (empty user
    # password, opens like any other) and one that needs a password to open.
    protected = [lines_page(A4, ["Geschützter Beleg", "Summe 12,50 EUR"])]
    add("protected_permissions.pdf", protected, encryption=Encryption("", "owner"))
    add("protected_password.pdf", protected, encryption=Encryption("secret", "owner"))

    # Failure cases. What is left of a truncated file depends on the reader's
    # repair; its test says what it expects.
    portrait = f["a4_portrait.pdf"]
    f["truncated.pdf"] = portrait[:len(portrait) // 2]
    DESCRIPTIONS["pdf/truncated.pdf"] = {"opens": True, "repaired": True, "pages": None}
    f["garbage.pdf"] = bytes((i * 7919 + 13) % 251 for i in range(2048))
    DESCRIPTIONS["pdf/garbage.pdf"] = {"opens": False}
    # Every offset of the cross-reference table is wrong: readers must
    # rebuild it from the objects themselves.
    f["broken_xref.pdf"] = break_xref(portrait)
    DESCRIPTIONS["pdf/broken_xref.pdf"] = describe(portrait_pages, repaired=True)
    return f


def run(x, y, parts):
    """Texts set one after another on one baseline at 12 points; bytes are
    shown with the ToUnicode font F3 (drawn with Helvetica's glyphs)."""
    texts = []
    for part in parts:
        if isinstance(part, bytes):
            texts.append(Text(x, y, "", "F3", 12, raw=part, joined=bool(texts)))
            x += text_width(part.decode("cp1252"), "Helvetica", 12)
        else:
            texts.append(Text(x, y, part, joined=bool(texts)))
            x += text_width(part, "Helvetica", 12)
    return texts


def invoice_page(n):
    texts = [Text(72, 790, "Rechnung 2026-0815", "F2", 14),
             Text(430, 790, "Seite %d" % n)]
    y = 750
    for item in range(1, 31):
        label = "Pos. %d.%d Beratung Stunde %d" % (n, item, item)
        amount = "%d,%02d EUR" % (item * 7 + n, (item * 13) % 100)
        texts.append(Text(72, y, label))
        texts.append(right_aligned(523, y, amount, "Helvetica", "F1", 12))
        y -= 22
    return Page(A4, texts)


def break_xref(data):
    head, _, tail = data.partition(b"xref\n")
    lines = tail.split(b"\n")
    broken = [b"%010d 00000 n " % (int(line[:10]) + 5)
              if line.endswith(b" n ") else line for line in lines]
    return head + b"xref\n" + b"\n".join(broken)


def sample_receipt():
    """The bundled German bakery receipt of the README's demo."""
    texts = [
        Text(72, 780, "Bäckerei Morgenrot GmbH", "F2", 16),
        Text(72, 760, "Lindenstraße 12"),
        Text(72, 745, "10115 Berlin"),
        Text(72, 700, "Rechnung Nr. 2026-0815", "F2", 12),
        Text(380, 700, "Datum: 14.11.2026"),
    ]
    items = [("2x Roggenbrot 750g", "7,80 €"), ("1x Butterbrezel", "1,45 €"),
             ("3x Dinkelbrötchen", "2,85 €"), ("1x Filterkaffee groß", "3,20 €")]
    y = 660
    for label, amount in items:
        texts.append(Text(72, y, label))
        texts.append(right_aligned(523, y, amount, "Helvetica", "F1", 12))
        y -= 18
    y -= 12
    texts += [
        Text(72, y, "Summe netto"),
        right_aligned(523, y, "14,30 EUR", "Helvetica", "F1", 12),
        Text(72, y - 18, "MwSt. 7%"),
        right_aligned(523, y - 18, "1,00 EUR", "Helvetica", "F1", 12),
        Text(72, y - 40, "Gesamtbetrag", "F2", 12),
        right_aligned(523, y - 38, "15,30 EUR", "Helvetica-Bold", "F2", 16),
        Text(72, y - 90, "Bezahlt mit Karte am 14.11.2026 um 08:12"),
        Text(72, y - 108, "IBAN DE89 3704 0044 0532 0130 00"),
        Text(72, y - 126, "www.baeckerei-morgenrot.example"),
        Text(72, y - 160, "Vielen Dank für Ihren Einkauf!", "F1", 10),
    ]
    info = {"Creator": "Writer", "Producer": "our fixture writer", "Title": "Rechnung 2026-0815"}
    DESCRIPTIONS["sample-receipt.pdf"] = describe([Page(A4, texts)], info=info)
    return make([Page(A4, texts)], info=info)


def rect(x0, y0, x1, y1):
    """A box as origin and size."""
    return [x0, y0, x1 - x0, y1 - y0]


def describe_page(page):
    lines = []
    for t in page.texts:
        text = READS_AS[t.raw] if t.raw else t.text
        if t.joined:
            lines[-1]["text"] += text
        else:
            lines.append({"text": text, "x": t.x, "baseline": t.y,
                          "font": FONT_NAMES[t.font], "size": t.size})
    return {"media_box": rect(*page.media_box), "lines": lines,
            "links": [{"uri": link.uri, "rect": rect(*link.rect)} for link in page.links]}


def describe(pages, info=ORDINARY, encryption=None, repaired=False):
    """What a reader finds in make(pages, info, encryption): a file that
    needs a password does not open; a repaired one opens with one log entry."""
    if encryption and encryption.user_password:
        return {"opens": False}
    info = info or {}
    return {"opens": True, "repaired": repaired, "creator": info.get("Creator"),
            "producer": info.get("Producer"), "pages": [describe_page(p) for p in pages]}


def main():
    os.makedirs(PDF_DIR, exist_ok=True)
    for name, data in sorted(fixtures().items()):
        with open(os.path.join(PDF_DIR, name), "wb") as out:
            out.write(data)
    with open(os.path.join(ROOT, "testdata", "sample-receipt.pdf"), "wb") as out:
        out.write(sample_receipt())
    with open(os.path.join(ROOT, "testdata", "fixtures.json"), "w", encoding="utf-8") as out:
        out.write(descriptions_json())
    return 0


def descriptions_json():
    """DESCRIPTIONS as JSON with one text line or link to a line."""
    def dumps(value):
        return json.dumps(value, ensure_ascii=False)

    fixtures = []
    for name, d in sorted(DESCRIPTIONS.items()):
        head = {k: v for k, v in d.items() if k != "pages"}
        text = "%s: {%s" % (dumps(name), dumps(head)[1:-1])
        if "pages" in d:
            text += ', "pages": '
            if d["pages"] is None:
                text += "null"
            else:
                pages = []
                for page in d["pages"]:
                    items = ",\n".join("    " + dumps(x) for x in page["lines"])
                    links = ",\n".join("    " + dumps(x) for x in page["links"])
                    pages.append('\n  {"media_box": %s,\n   "lines": [\n%s],\n   "links": [%s]}' % (
                        dumps(page["media_box"]), items, "\n" + links if links else ""))
                text += "[" + ",".join(pages) + "]"
        fixtures.append(text + "}")
    return "{\n" + ",\n".join(fixtures) + "\n}\n"


if __name__ == "__main__":
    sys.exit(main())
