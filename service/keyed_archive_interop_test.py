#!/usr/bin/env python3
"""Checks our keyed archives with Python's own property-list reader.

Usage: keyed_archive_interop_test.py PATH/TO/lm_archive_tool

The tool's sample result is read with plistlib: the archive layout ($archiver,
$version, $top, $objects, every class entry with its exact $classes, what is
written once) and every value, resolved through plistlib.UID references, must
be what the tool wrote.

Standard library only; exits non-zero on the first failure.
"""
import datetime
import decimal
import plistlib
import subprocess
import sys

UID = plistlib.UID


class Failure(Exception):
    pass


def check(condition, message):
    if not condition:
        raise Failure(message)


class Element:
    """A found element as archived: its class and its keys."""

    def __init__(self, class_name, fields):
        self.class_name = class_name
        self.fields = fields

    def __eq__(self, other):
        return (isinstance(other, Element) and self.class_name == other.class_name
                and strict_equal(self.fields, other.fields))

    def __repr__(self):
        return "Element(%r, %r)" % (self.class_name, self.fields)


class AttributedText:
    def __init__(self, text, runs):
        self.text = text
        self.runs = runs  # [(location, length, attributes)]

    def __eq__(self, other):
        return (isinstance(other, AttributedText) and self.text == other.text
                and strict_equal(self.runs, other.runs))

    def __repr__(self):
        return "AttributedText(%r, %r)" % (self.text, self.runs)


class Null:
    def __eq__(self, other):
        return isinstance(other, Null)

    def __repr__(self):
        return "NSNull"


REFERENCE_DATE = datetime.datetime(2001, 1, 1, tzinfo=datetime.timezone.utc)

# The classes we write, each with its exact "$classes".
CLASS_CHAINS = {
    "NSDictionary": ["NSDictionary", "NSObject"],
    "NSArray": ["NSArray", "NSObject"],
    "NSNull": ["NSNull", "NSObject"],
    "NSDate": ["NSDate", "NSObject"],
    "NSDecimalNumber": ["NSDecimalNumber", "NSNumber", "NSValue", "NSObject"],
    "NSAttributedString": ["NSAttributedString", "NSObject"],
    "LMFoundElement": ["LMFoundElement", "NSObject"],
    "LMFoundNumber": ["LMFoundNumber", "LMFoundElement", "NSObject"],
    "LMFoundDate": ["LMFoundDate", "LMFoundElement", "NSObject"],
    "LMFoundTerm": ["LMFoundTerm", "LMFoundElement", "NSObject"],
}


def strict_equal(a, b):
    """Equality that tells True from 1 and 1 from 1.0."""
    if type(a) is not type(b):
        return False
    if isinstance(a, dict):
        return a.keys() == b.keys() and all(strict_equal(a[k], b[k]) for k in a)
    if isinstance(a, (list, tuple)):
        return len(a) == len(b) and all(strict_equal(x, y) for x, y in zip(a, b))
    if isinstance(a, decimal.Decimal):
        return (a.is_nan() and b.is_nan()) or a.as_tuple() == b.as_tuple()
    return a == b


def utf16_length(text):
    return len(text.encode("utf-16-le")) // 2


def read_varints(data):
    values, value, shift = [], 0, 0
    for byte in data:
        value |= (byte & 0x7F) << shift
        shift += 7
        if not byte & 0x80:
            values.append(value)
            value, shift = 0, 0
    check(shift == 0, "NSAttributeInfo ends inside a varint")
    return values


class Resolver:
    """Turns a keyed archive into Python values, checking its layout."""

    def __init__(self, archive):
        check(archive.get("$archiver") == "NSKeyedArchiver", "$archiver")
        check(archive.get("$version") == 100000, "$version")
        self.objects = archive["$objects"]
        check(self.objects[0] == "$null", "$objects[0] is not $null")
        self.top = archive["$top"]
        check(list(self.top) == ["root"] and isinstance(self.top["root"], UID), "$top")
        self.class_use = {}

    def class_of(self, obj):
        entry = self.objects[obj["$class"].data]
        name = entry["$classname"]
        check(entry["$classes"] == CLASS_CHAINS.get(name),
              "$classes of %s: %r" % (name, entry["$classes"]))
        return name

    def value(self, ref):
        check(isinstance(ref, UID), "expected a reference, found %r" % (ref,))
        if ref.data == 0:
            return None
        obj = self.objects[ref.data]
        if not isinstance(obj, dict):
            check(isinstance(obj, (str, int, float, bool, bytes)), "plain value %r" % (obj,))
            return obj
        name = self.class_of(obj)
        if name in ("NSDictionary", "NSMutableDictionary"):
            keys, values = obj["NS.keys"], obj["NS.objects"]
            check(len(keys) == len(values), "NS.keys and NS.objects differ")
            return {self.value(k): self.value(v) for k, v in zip(keys, values)}
        if name in ("NSArray", "NSMutableArray"):
            return [self.value(v) for v in obj["NS.objects"]]
        if name == "NSNull":
            return Null()
        if name == "NSDate":
            return REFERENCE_DATE + datetime.timedelta(seconds=obj["NS.time"])
        if name == "NSDecimalNumber":
            check(obj["NS.mantissa.bo"] == 1 and len(obj["NS.mantissa"]) == 16, "mantissa")
            length = obj["NS.length"]
            if length == 0:
                return decimal.Decimal("NaN") if obj["NS.negative"] else decimal.Decimal(0)
            mantissa = int.from_bytes(obj["NS.mantissa"][:2 * length], "little")
            return decimal.Decimal((1 if obj["NS.negative"] else 0,
                                    tuple(int(d) for d in str(mantissa)), obj["NS.exponent"]))
        if name == "NSAttributedString":
            text = self.value(obj["NSString"])
            if "NSAttributes" not in obj:
                return AttributedText(text, [])
            attributes = self.value(obj["NSAttributes"])
            if "NSAttributeInfo" not in obj:
                return AttributedText(text, [(0, utf16_length(text), attributes)])
            pairs = read_varints(self.value(obj["NSAttributeInfo"]))
            runs, at = [], 0
            for length, slot in zip(pairs[::2], pairs[1::2]):
                runs.append((at, length, attributes[slot]))
                at += length
            check(at == utf16_length(text), "runs do not cover the text")
            return AttributedText(text, runs)
        if name.startswith("LMFound"):
            fields = {}
            for key, item in obj.items():
                if key != "$class":
                    fields[key] = self.value(item) if isinstance(item, UID) else item
            return Element(name, fields)
        raise Failure("unexpected class " + name)

    def root(self):
        return self.value(self.top["root"])


def decimal_of(text):
    """The decimal without trailing zeros, as our decimals are always kept."""
    return decimal.Decimal(text).normalize(decimal.Context(prec=60))


def date_of(seconds):
    return REFERENCE_DATE + datetime.timedelta(seconds=seconds)


def element(name, **fields):
    base = {"page": 0, "pageBox": "{{0, 0}, {0, 0}}", "bbox": "{{0, 0}, {0, 0}}",
            "userInfo": None, "string": None, "key": None}
    base.update(fields)
    return Element(name, base)


def expected_sample():
    number = element("LMFoundNumber", page=1, pageBox="{{0, 0}, {595.28, 841.89}}",
                     bbox="{{400.5, 120.25}, {42, 11.5}}", string="-12,50", key="amount",
                     value=-1250, numberString="-12,50", debugInfo={"score": 0.75})
    line_one = {"LMPDFLineBox": "{{72, 400}, {40.5, 12}}"}
    line_two = {"LMPDFLineBox": "{{120, 400}, {30, 12}}", "bold": True}
    return {
        "text": "Grüße, 😀 Summe 12,50 €",
        "ocr": False,
        "letter": True,
        "count": 42,
        "negative": -305,
        "min": -2**63,
        "max": 2**63 - 1,
        "ratio": 0.1,
        "negativeReal": -2.5,
        "gross": decimal_of("12.5"),
        "tax": decimal_of("-0.019"),
        "large": decimal_of("12345678901234567890123456789012345678"),
        "notANumber": decimal.Decimal("NaN"),
        "zero": decimal.Decimal(0),
        "date": date_of(631152000.123456),
        "data": bytes([0x00, 0xFF, 0x10, 0x80]),
        "taxPercent": Null(),
        "taxValues": Null(),
        "dollarNull": "$null",
        "taxes": [19, 7, 7.7],
        "nested": {"list": [[1, "a"], {"k": "v"}], "emptyArray": [], "emptyDictionary": {}},
        "pages": [AttributedText("Summe\n12,50 😀",
                                 [(0, 5, line_one), (5, 1, {}), (6, 8, line_two)]),
                  AttributedText("x" * 200, [(0, 150, {"size": 9.5}), (150, 50, {"size": 12})]),
                  AttributedText("", [])],
        "numbers": [number],
        "dates": [element("LMFoundDate", bbox="{{50, 700}, {60, 10}}",
                          date=date_of(636249600.5), dateString="01.03.2021")],
        "terms": [element("LMFoundTerm", string="Gesamtbetrag", key="gross")],
        "currencies": [element("LMFoundElement", string="€", key="EUR", userInfo=Null())],
        "chosen": number,
    }


def check_sample(tool):
    data = subprocess.run([tool], check=True, stdout=subprocess.PIPE).stdout
    check(data.startswith(b"bplist00"), "not a binary property list")
    archive = plistlib.loads(data)
    resolver = Resolver(archive)
    check(archive["$top"]["root"] == UID(1), "root is not object 1")
    got = resolver.root()
    want = expected_sample()
    check(got.keys() == want.keys(), "keys differ: %s" % (set(got) ^ set(want)))
    for key in want:
        check(strict_equal(got[key], want[key]),
              "%s: got %r, want %r" % (key, got[key], want[key]))

    objects = archive["$objects"]
    names = [o["$classname"] for o in objects if isinstance(o, dict) and "$classname" in o]
    check(len(names) == len(set(names)), "a class entry is written twice: %r" % names)
    numbers = [o for o in objects if isinstance(o, dict) and "$class" in o
               and objects[o["$class"].data]["$classname"] == "LMFoundNumber"]
    check(len(numbers) == 1, "the shared element is written %d times" % len(numbers))
    root = objects[1]
    by_key = {objects[k.data]: v for k, v in zip(root["NS.keys"], root["NS.objects"])}
    first_number = objects[by_key["numbers"].data]["NS.objects"][0]
    check(first_number == by_key["chosen"], "the shared element has two references")
    nulls = [o for o in objects if isinstance(o, dict) and "$class" in o
             and objects[o["$class"].data]["$classname"] == "NSNull"]
    check(len(nulls) == 1, "NSNull is written %d times" % len(nulls))
    texts = [o for o in objects if o == "-12,50"]
    check(len(texts) == 1, "equal texts are written %d times" % len(texts))


def main():
    if len(sys.argv) != 2:
        print(__doc__, file=sys.stderr)
        return 2
    try:
        check_sample(sys.argv[1])
    except (Failure, KeyError, TypeError, IndexError, subprocess.CalledProcessError) as e:
        print("FAIL: %s: %s" % (type(e).__name__, e), file=sys.stderr)
        return 1
    print("plistlib reads our keyed archive")
    return 0


if __name__ == "__main__":
    sys.exit(main())
