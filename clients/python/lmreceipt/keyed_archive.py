"""Keyed archives: the task and the result as the service reads and writes them.

archive() turns str, int, float, bool, None, bytes, decimal.Decimal,
datetime.datetime, lists and dicts into a keyed archive (a binary property
list, docs/protocol.md); unarchive() reads one back into the same kinds, with
attributed texts as their plain text.
"""

from __future__ import annotations

import datetime
import decimal
import plistlib
import struct
from typing import Any

_REFERENCE_DATE = datetime.datetime(2001, 1, 1, tzinfo=datetime.timezone.utc)


class ArchiveError(ValueError):
    """Bytes that are not a keyed archive this client can read."""


_CLASS_CHAINS = {
    "NSDictionary": ["NSDictionary", "NSObject"],
    "NSArray": ["NSArray", "NSObject"],
    "NSNull": ["NSNull", "NSObject"],
    "NSDate": ["NSDate", "NSObject"],
    "NSDecimalNumber": ["NSDecimalNumber", "NSNumber", "NSValue", "NSObject"],
}


def archive(root: Any) -> bytes:
    """The keyed archive of a tree of plain values.

    Accepts None (only as the root), bool, int (64-bit), float, str, bytes,
    decimal.Decimal, datetime.datetime (naive means UTC), list/tuple and dict
    with str keys.
    """
    objects: list[Any] = ["$null"]
    classes: dict[str, plistlib.UID] = {}
    strings: dict[str, plistlib.UID] = {}

    def add(obj: Any) -> plistlib.UID:
        objects.append(obj)
        return plistlib.UID(len(objects) - 1)

    def of_class(name: str) -> dict:
        if name not in classes:
            classes[name] = add({"$classes": _CLASS_CHAINS[name], "$classname": name})
        return {"$class": classes[name]}

    def member(value: Any) -> plistlib.UID:
        if value is None:
            raise ArchiveError("None cannot stand inside a list or dict")
        return encode(value)

    def encode(value: Any) -> plistlib.UID:
        if value is None:
            return plistlib.UID(0)
        if isinstance(value, bool):
            return add(value)
        if isinstance(value, int):
            if not -(1 << 63) <= value < (1 << 63):
                raise ArchiveError(f"integer {value} does not fit 64 bits")
            return add(value)
        if isinstance(value, float):
            return add(value)
        if isinstance(value, str):
            if value not in strings:
                strings[value] = add(value)
            return strings[value]
        if isinstance(value, (bytes, bytearray)):
            return add(bytes(value))
        if isinstance(value, decimal.Decimal):
            return add({**of_class("NSDecimalNumber"), **_decimal_fields(value)})
        if isinstance(value, datetime.datetime):
            if value.tzinfo is None:
                value = value.replace(tzinfo=datetime.timezone.utc)
            seconds = (value - _REFERENCE_DATE).total_seconds()
            return add({**of_class("NSDate"), "NS.time": seconds})
        if isinstance(value, (list, tuple)):
            slot = add(None)
            refs = [member(item) for item in value]
            objects[slot.data] = {**of_class("NSArray"), "NS.objects": refs}
            return slot
        if isinstance(value, dict):
            slot = add(None)
            keys, refs = [], []
            for key, item in value.items():
                if not isinstance(key, str):
                    raise ArchiveError(f"dict key {key!r} is not a str")
                keys.append(encode(key))
                refs.append(member(item))
            objects[slot.data] = {**of_class("NSDictionary"), "NS.keys": keys, "NS.objects": refs}
            return slot
        raise ArchiveError(f"cannot archive a {type(value).__name__}")

    top = encode(root)
    return plistlib.dumps(
        {"$archiver": "NSKeyedArchiver", "$version": 100000, "$objects": objects,
         "$top": {"root": top}},
        fmt=plistlib.FMT_BINARY, sort_keys=False)


def _decimal_fields(value: decimal.Decimal) -> dict:
    if value.is_nan():
        mantissa, exponent, negative = 0, 0, True  # not-a-number: length 0, negative
    else:
        if value.is_infinite():
            raise ArchiveError("an infinite decimal cannot be archived")
        sign, digits, exponent = value.as_tuple()
        mantissa = int("".join(map(str, digits)) or "0")
        negative = bool(sign) and mantissa != 0
        if mantissa >= 1 << 128 or not -128 <= exponent <= 127:
            raise ArchiveError(f"decimal {value} is out of range")
    words = [(mantissa >> (16 * i)) & 0xFFFF for i in range(8)]
    length = max((i + 1 for i, w in enumerate(words) if w), default=0)
    return {"NS.exponent": exponent, "NS.length": length, "NS.negative": negative,
            "NS.compact": True, "NS.mantissa.bo": 1,
            "NS.mantissa": b"".join(struct.pack("<H", w) for w in words)}


def _signed(value: int) -> int:
    # Integers are archived as unsigned 64-bit; negatives as two's complement.
    return value - (1 << 64) if (1 << 63) <= value < (1 << 64) else value


def unarchive(data: bytes, max_depth: int = 256) -> Any:
    """The plain Python tree of a keyed archive.

    dict/list/str/int/float/bool/bytes as themselves, NSNull as None, NSDate
    as an aware datetime in UTC, NSDecimalNumber as decimal.Decimal (NaN for
    not-a-number), NSAttributedString as its str, any other object (the found
    elements) as a dict of its keys plus "$class" with its class name.
    Raises ArchiveError for anything else.
    """
    try:
        plist = plistlib.loads(data, fmt=plistlib.FMT_BINARY)
    except Exception as e:  # plistlib raises several kinds
        raise ArchiveError(f"not a binary property list: {e}") from None
    if not isinstance(plist, dict) or plist.get("$archiver") != "NSKeyedArchiver":
        raise ArchiveError("not a keyed archive")
    objects = plist.get("$objects")
    top = plist.get("$top")
    if not isinstance(objects, list) or not isinstance(top, dict):
        raise ArchiveError("no $objects or $top")
    memo: dict[int, Any] = {}
    busy: set[int] = set()

    def class_name(node: dict) -> str:
        ref = node.get("$class")
        if not isinstance(ref, plistlib.UID) or ref.data >= len(objects):
            raise ArchiveError("an object without a valid $class")
        entry = objects[ref.data]
        if not isinstance(entry, dict) or not isinstance(entry.get("$classname"), str):
            raise ArchiveError("a class entry without $classname")
        chain = entry.get("$classes")
        for name in [entry["$classname"], *(chain if isinstance(chain, list) else [])]:
            if name in _READERS:
                return name
        return entry["$classname"]

    def refs(node: dict, key: str, depth: int) -> list:
        items = node.get(key, [])
        if not isinstance(items, list):
            raise ArchiveError(f"{key} is not an array")
        return [value(item, depth) for item in items]

    def value(item: Any, depth: int) -> Any:
        if isinstance(item, plistlib.UID):
            return reference(item.data, depth)
        if isinstance(item, bool):
            return item
        if isinstance(item, int):
            return _signed(item)
        return item

    def reference(uid: int, depth: int) -> Any:
        if uid == 0:
            return None
        if uid >= len(objects):
            raise ArchiveError(f"reference {uid} out of range")
        if uid in memo:
            return memo[uid]
        if uid in busy:
            raise ArchiveError(f"object {uid} contains itself")
        if depth > max_depth:
            raise ArchiveError(f"nesting deeper than {max_depth}")
        busy.add(uid)
        node = objects[uid]
        if isinstance(node, dict) and "$class" in node:
            name = class_name(node)
            reader = _READERS.get(name)
            if reader:
                result = reader(node, lambda key: refs(node, key, depth + 1),
                                lambda key: value(node.get(key), depth + 1))
            else:
                result = {key: value(item, depth + 1) for key, item in node.items()
                          if key != "$class"}
                result["$class"] = name
        else:
            result = value(node, depth)
        busy.discard(uid)
        memo[uid] = result
        return result

    root = top.get("root")
    if isinstance(root, plistlib.UID):
        return reference(root.data, 0)
    # Archives with unnamed top objects: every "$top" key and its object.
    return {key: value(item, 0) for key, item in top.items()}


def _read_dictionary(node, refs, field):
    keys, values = refs("NS.keys"), refs("NS.objects")
    if len(keys) != len(values):
        raise ArchiveError("NS.keys and NS.objects differ in length")
    return dict(zip(keys, values))


def _read_string(node, refs, field):
    text = field("NS.string")
    if isinstance(text, str):
        return text
    raw = field("NS.bytes")
    if isinstance(raw, bytes):
        return raw.decode("utf-8", errors="replace")
    raise ArchiveError("a text object without NS.string or NS.bytes")


def _read_data(node, refs, field):
    raw = field("NS.data")
    if not isinstance(raw, bytes):
        raise ArchiveError("a data object without NS.data")
    return raw


def _read_date(node, refs, field):
    seconds = field("NS.time")
    if isinstance(seconds, bool) or not isinstance(seconds, (int, float)):
        raise ArchiveError("a date without NS.time")
    return _REFERENCE_DATE + datetime.timedelta(seconds=seconds)


def _read_decimal(node, refs, field):
    length = field("NS.length") or 0
    negative = bool(field("NS.negative"))
    exponent = field("NS.exponent") or 0
    raw = field("NS.mantissa") or b""
    order = field("NS.mantissa.bo") or 1
    if length == 0:
        return decimal.Decimal("NaN") if negative else decimal.Decimal(0)
    if not 0 < length <= 8 or len(raw) < 2 * length or order not in (1, 2):
        raise ArchiveError("a malformed decimal")
    fmt = "<H" if order == 1 else ">H"
    mantissa = sum(struct.unpack_from(fmt, raw, 2 * i)[0] << (16 * i) for i in range(length))
    digits = tuple(int(d) for d in str(mantissa))
    return decimal.Decimal((1 if negative else 0, digits, exponent))


def _read_attributed_string(node, refs, field):
    text = field("NSString")
    return text if isinstance(text, str) else ""


_READERS = {
    "NSDictionary": _read_dictionary,
    "NSMutableDictionary": _read_dictionary,
    "NSArray": lambda node, refs, field: refs("NS.objects"),
    "NSMutableArray": lambda node, refs, field: refs("NS.objects"),
    "NSSet": lambda node, refs, field: refs("NS.objects"),
    "NSMutableSet": lambda node, refs, field: refs("NS.objects"),
    "NSOrderedSet": lambda node, refs, field: refs("NS.objects"),
    "NSMutableOrderedSet": lambda node, refs, field: refs("NS.objects"),
    "NSString": _read_string,
    "NSMutableString": _read_string,
    "NSData": _read_data,
    "NSMutableData": _read_data,
    "NSNull": lambda node, refs, field: None,
    "NSDate": _read_date,
    "NSDecimalNumber": _read_decimal,
    "NSAttributedString": _read_attributed_string,
    "NSMutableAttributedString": _read_attributed_string,
}
