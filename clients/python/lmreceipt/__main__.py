"""python3 -m lmreceipt [options] FILE...: each file through the service,
printed as JSON as `lmreceipt call` prints it.

The found elements (numbers, dates, terms, taxTerms, currencies) are
printed with the keys they travel with (see clients/python/README.md),
which differ from the C++ client's projection; every other key is the same.
"""

from __future__ import annotations

import argparse
import base64
import datetime
import decimal
import json
import sys

from .client import DEFAULT_TIMEOUT, ServiceClient, ServiceError

# Facts keys whose decimals are money, wherever they stand.
_MONEY_KEYS = {"gross", "net", "tax", "due", "amount", "unitPrice", "value", "eInvoice", "text"}
_NO_MINOR_UNIT = {"BIF", "CLP", "DJF", "GNF", "ISK", "JPY", "KMF", "KRW", "PYG", "RWF", "UGX",
                  "UYI", "VND", "VUV", "XAF", "XOF"}
_THREE_PLACES = {"BHD", "IQD", "JOD", "KWD", "LYD", "OMR", "TND"}


def _places(currency: object) -> int:
    if currency in _NO_MINOR_UNIT:
        return 0
    return 3 if currency in _THREE_PLACES else 2


def _decimal_text(value: decimal.Decimal) -> str:
    text = format(value, "f")
    if "." in text:
        text = text.rstrip("0").rstrip(".")
    return text


def _money_text(value: decimal.Decimal, places: int) -> str:
    """Trailing zeros beyond the currency's places dropped, missing ones added."""
    if value.is_nan():
        return "NaN"
    text = format(value, "f")
    whole, _, fraction = text.partition(".")
    fraction = fraction[:places] + fraction[places:].rstrip("0")
    return whole + "." + fraction.ljust(places, "0") if places or fraction else whole


def _json(value, money: bool = False, places: int | None = None):
    """`value` as lmreceipt prints it: decimals and dates as text, money in
    facts (places not None) with the currency's places."""
    if isinstance(value, decimal.Decimal):
        if money and places is not None:
            return _money_text(value, places)
        return "NaN" if value.is_nan() else _decimal_text(value)
    if isinstance(value, datetime.datetime):
        return str(int(value.timestamp()))
    if isinstance(value, (bytes, bytearray)):
        return base64.b64encode(value).decode()
    if isinstance(value, dict):
        return {k: _json(v, places is not None and k in _MONEY_KEYS, places)
                for k, v in value.items()}
    if isinstance(value, list):
        return [_json(v, money, places) for v in value]
    return value


def _result_json(result: dict) -> dict:
    out = {}
    for key, value in result.items():
        if key == "facts" and isinstance(value, dict):
            out[key] = _json(value, places=_places(value.get("currency")))
        else:
            out[key] = _json(value)
    return out


def _rate(text: str):
    try:
        rate = decimal.Decimal(text)
    except decimal.InvalidOperation:
        raise argparse.ArgumentTypeError(f"--tax needs a rate in percent, not '{text}'")
    if not rate.is_finite() or rate < 0:
        raise argparse.ArgumentTypeError(f"--tax needs a rate in percent, not '{text}'")
    return int(rate) if rate == rate.to_integral_value() and "." not in text else float(text)


def main(argv: list[str] | None = None) -> int:
    parser = argparse.ArgumentParser(
        prog="python3 -m lmreceipt",
        description="Analyses receipt and invoice PDFs (and e-invoice XML) through the "
                    "lmreceipt service and prints the results as JSON, as `lmreceipt call` does.")
    parser.add_argument("files", nargs="+", metavar="FILE")
    parser.add_argument("--currency", default="", metavar="CODE",
                        help="default currency when the document names none (e.g. EUR)")
    parser.add_argument("--tax", type=_rate, action="append", default=[], metavar="RATE",
                        help="a tax rate in percent that applies to you; repeat for several")
    facts = parser.add_mutually_exclusive_group()
    facts.add_argument("--no-facts", action="store_true", help="the standard result alone")
    facts.add_argument("--facts-from", choices=["best", "text", "e-invoice"], default="best",
                       help="where the facts come from (default best)")
    parser.add_argument("--timeout", type=float, default=DEFAULT_TIMEOUT, metavar="SECONDS",
                        help="give up on a file after this long (default 120; 0: never)")
    args = parser.parse_args(argv)

    client = ServiceClient(timeout=args.timeout)
    several = len(args.files) > 1
    failed = False
    for path in args.files:
        try:
            out = {"file": path} if several else {}
            out.update(_result_json(client.analyze(path, args.currency, args.tax,
                                                   not args.no_facts, args.facts_from)))
        except (ServiceError, OSError) as e:
            failed = True
            message = e.message if isinstance(e, ServiceError) else (
                "Could not read file: " + (e.strerror or str(e)))
            out = {"file": path, "error": message}
        print(json.dumps(out, ensure_ascii=False, indent=None if several else 2))
    return 1 if failed else 0


if __name__ == "__main__":
    sys.exit(main())
