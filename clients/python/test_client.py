"""Tests of the Python client: archives on their own, then calls through the
real service executable.

    python3 test_client.py --service PATH/lmreceipt-service \
        --sample testdata/sample-receipt.pdf [--lmreceipt PATH/lmreceipt]

Runs in a private XDG_RUNTIME_DIR, so that the service it starts has a socket
of its own, and ends that service when done.
"""

import argparse
import datetime
import decimal
import json
import os
import plistlib
import shutil
import signal
import socket
import struct
import subprocess
import sys
import tempfile
import time
import unittest

sys.dont_write_bytecode = True  # no __pycache__ in the source tree
sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
from lmreceipt import client  # noqa: E402

ARGS = None


class ArchiveTest(unittest.TestCase):
    def test_plain_values_round_trip(self):
        cases = [
            ("nested", {"data": b"%PDF", "currency": "EUR", "taxes": [7, 19.5],
                        "flags": {"on": True, "off": False}}),
            ("negative integers", {"min": -(1 << 63), "minus one": -1, "max": (1 << 63) - 1}),
            ("decimals", [decimal.Decimal("15.30"), decimal.Decimal("-0.07"),
                          decimal.Decimal("12345678901234567890123456789012345678")]),
            ("date", datetime.datetime(2026, 11, 14, 11, 0, tzinfo=datetime.timezone.utc)),
            ("shared text", ["EUR", "EUR", {"EUR": "EUR"}]),
            ("empty", {}),
        ]
        for name, value in cases:
            with self.subTest(name):
                self.assertEqual(value, client.unarchive(client.archive(value)))

    def test_found_elements_become_dicts_with_their_class(self):
        objects = ["$null",
                   {"$class": plistlib.UID(2), "page": 3, "bbox": plistlib.UID(3),
                    "value": (1 << 64) - 305, "userInfo": plistlib.UID(0)},
                   {"$classname": "LMFoundNumber",
                    "$classes": ["LMFoundNumber", "LMFoundElement", "NSObject"]},
                   "{{1, 2}, {3, 4}}"]
        data = plistlib.dumps({"$archiver": "NSKeyedArchiver", "$version": 100000,
                               "$objects": objects, "$top": {"root": plistlib.UID(1)}},
                              fmt=plistlib.FMT_BINARY)
        self.assertEqual({"page": 3, "bbox": "{{1, 2}, {3, 4}}", "value": -305,
                          "userInfo": None, "$class": "LMFoundNumber"},
                         client.unarchive(data))

    def test_bad_archives_are_refused(self):
        def archived(objects, root=1):
            return plistlib.dumps({"$archiver": "NSKeyedArchiver", "$version": 100000,
                                   "$objects": objects, "$top": {"root": plistlib.UID(root)}},
                                  fmt=plistlib.FMT_BINARY)
        array_class = {"$classname": "NSArray", "$classes": ["NSArray", "NSObject"]}
        cases = [
            ("garbage", b"not a plist at all"),
            ("other archiver", plistlib.dumps({"$archiver": "X", "$objects": [], "$top": {}},
                                              fmt=plistlib.FMT_BINARY)),
            ("reference out of range", archived(["$null"], root=5)),
            ("cycle", archived(["$null", {"$class": plistlib.UID(2),
                                          "NS.objects": [plistlib.UID(1)]}, array_class])),
            ("class without name", archived(["$null", {"$class": plistlib.UID(2)}, {}])),
        ]
        for name, data in cases:
            with self.subTest(name):
                with self.assertRaises(client.ArchiveError):
                    client.unarchive(data)


def serving_pid(socket_file):
    """The process listening on `socket_file`, or None."""
    with socket.socket(socket.AF_UNIX, socket.SOCK_STREAM) as sock:
        try:
            sock.connect(socket_file)
        except OSError:
            return None
        creds = sock.getsockopt(socket.SOL_SOCKET, socket.SO_PEERCRED, struct.calcsize("3i"))
        return struct.unpack("3i", creds)[0]


class ServiceTest(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.runtime = tempfile.mkdtemp(prefix="lmreceipt-pytest-")  # mode 0700
        cls.saved_runtime = os.environ.get("XDG_RUNTIME_DIR")
        os.environ["XDG_RUNTIME_DIR"] = cls.runtime
        cls.client = client.ServiceClient(executable=ARGS.service)

    @classmethod
    def tearDownClass(cls):
        if cls.client.started:
            cls.client.started.terminate()
            cls.client.started.wait(timeout=30)
        # Also a service some other step started (e.g. lmreceipt call).
        pid = serving_pid(client.socket_path())
        if pid:
            os.kill(pid, signal.SIGTERM)
            for _ in range(300):
                try:
                    os.kill(pid, 0)
                except ProcessLookupError:
                    break
                time.sleep(0.1)
        if cls.saved_runtime is None:
            del os.environ["XDG_RUNTIME_DIR"]
        else:
            os.environ["XDG_RUNTIME_DIR"] = cls.saved_runtime
        shutil.rmtree(cls.runtime, ignore_errors=True)

    def test_1_boot_starts_the_service(self):
        self.assertEqual({"boot": "success"}, self.client.boot())
        self.assertIsNotNone(self.client.started)
        self.assertEqual(os.path.join(self.runtime, "lmreceipt-service.sock"),
                         client.socket_path())

    def test_2_analyses_the_sample(self):
        result = self.client.analyze(ARGS.sample, currency="", taxes=[7])
        self.assertEqual(decimal.Decimal("15.3"), result["gross"])
        self.assertEqual("EUR", result["currency"])
        self.assertEqual(decimal.Decimal("1.00"), result["tax"])
        self.assertIsInstance(result["date"], datetime.datetime)
        self.assertEqual(datetime.timezone.utc, result["date"].tzinfo)
        self.assertEqual(datetime.date(2026, 11, 14), result["date"].astimezone().date())
        self.assertTrue(result["pages"] and all(isinstance(p, str) for p in result["pages"]))
        self.assertTrue(any("15,30" in page for page in result["pages"]))
        numbers = result["numbers"]
        self.assertTrue(numbers)
        self.assertTrue(all(n["$class"] == "LMFoundNumber" for n in numbers))
        self.assertIn(1530, [n["value"] for n in numbers])
        self.assertNotIn("facts", result)

    def test_2b_facts_come_as_decimals_and_days(self):
        facts = self.client.analyze(ARGS.sample, facts=True)["facts"]
        self.assertEqual(("text", decimal.Decimal("15.3"), "EUR", "2026-11-14"),
                         (facts["source"], facts["gross"], facts["currency"], facts["issueDate"]))
        with self.assertRaises(client.ServiceError) as caught:
            self.client.analyze(ARGS.sample, facts=True, facts_from="pdf")
        self.assertIn("factsFrom", str(caught.exception))

    def test_3_garbage_gets_the_service_error(self):
        with tempfile.NamedTemporaryFile(suffix=".pdf") as garbage:
            garbage.write(b"garbage, not a PDF\n" * 10)
            garbage.flush()
            with self.assertRaises(client.ServiceError) as caught:
                self.client.analyze(garbage.name)
        self.assertNotIsInstance(caught.exception, client.ServiceNotReachable)
        self.assertEqual("Could not open document", str(caught.exception))
        self.assertEqual(client.ERROR_DOMAIN, caught.exception.domain)
        self.assertEqual(101, caught.exception.code)

    def test_4_a_task_without_data(self):
        with self.assertRaises(client.ServiceError) as caught:
            self.client.call({"currency": "EUR"})
        self.assertEqual("data required", caught.exception.message)

    def test_5_lmreceipt_call_prints_what_analyze_prints(self):
        if not ARGS.lmreceipt:
            self.skipTest("no --lmreceipt given")
        with tempfile.NamedTemporaryFile(suffix=".pdf") as garbage:
            garbage.write(b"garbage")
            garbage.flush()
            outputs = {}
            for command in ("analyze", "call"):
                run = subprocess.run(
                    [ARGS.lmreceipt, command, "--format", "summary", "--tax", "7",
                     ARGS.sample, garbage.name],
                    capture_output=True, text=True, timeout=120)
                outputs[command] = (run.returncode, run.stdout)
        self.assertEqual(outputs["analyze"], outputs["call"])
        self.assertEqual(1, outputs["call"][0])
        self.assertIn("gross 15.30", outputs["call"][1])
        self.assertIn("error: Could not open document", outputs["call"][1])

    def test_5b_python_m_lmreceipt_prints_what_lmreceipt_call_prints(self):
        if not ARGS.lmreceipt:
            self.skipTest("no --lmreceipt given")
        found_elements = {"numbers", "dates", "terms", "taxTerms", "currencies"}
        env = dict(os.environ, LM_SERVICE_DIR=os.path.dirname(os.path.abspath(ARGS.service)),
                   PYTHONPATH=os.path.dirname(os.path.abspath(__file__)),
                   PYTHONDONTWRITEBYTECODE="1")
        with tempfile.NamedTemporaryFile(suffix=".pdf") as garbage:
            garbage.write(b"garbage")
            garbage.flush()
            for files in ([ARGS.sample], [ARGS.sample, garbage.name, "/nonexistent.pdf"]):
                with self.subTest(files=len(files)):
                    runs = [subprocess.run(command + ["--tax", "7"] + files, capture_output=True,
                                           text=True, timeout=120, env=env)
                            for command in ([sys.executable, "-m", "lmreceipt"],
                                            [ARGS.lmreceipt, "call"])]
                    self.assertEqual(runs[1].returncode, runs[0].returncode)
                    printed = [[{k: v for k, v in json.loads(line).items()
                                 if k not in found_elements}
                                for line in ([r.stdout] if len(files) == 1
                                             else r.stdout.splitlines())]
                               for r in runs]
                    self.assertEqual(printed[1], printed[0])
                    self.assertIn("15.30", runs[0].stdout)


    def test_6_a_stopped_service_times_out(self):
        pid = serving_pid(client.socket_path())
        self.assertIsNotNone(pid)
        os.kill(pid, signal.SIGSTOP)
        try:
            stopped = client.ServiceClient(executable=ARGS.service, timeout=0.5)
            with self.assertRaises(client.ServiceNotReachable) as caught:
                stopped.boot()
            self.assertEqual("Service not reachable: The service did not answer within 0.5 s",
                             caught.exception.message)
            if ARGS.lmreceipt:
                run = subprocess.run([ARGS.lmreceipt, "call", "--timeout", "0.5", "--format",
                                      "summary", ARGS.sample],
                                     capture_output=True, text=True, timeout=60)
                self.assertEqual(1, run.returncode)
                self.assertIn("error: Service not reachable: The service did not answer within "
                              "0.5 s", run.stdout)
        finally:
            os.kill(pid, signal.SIGCONT)


class UnreachableTest(unittest.TestCase):
    def test_the_service_in_the_build_folder_is_found(self):
        built = os.path.normpath(os.path.join(os.path.dirname(os.path.abspath(__file__)),
                                              "..", "..", "build", "lmreceipt-service"))
        if not os.path.exists(built):
            self.skipTest("no build/ in this checkout")
        saved = os.environ.pop("LM_SERVICE_DIR", None)
        try:
            self.assertEqual(built, client.find_service_executable())
        finally:
            if saved is not None:
                os.environ["LM_SERVICE_DIR"] = saved

    def test_a_socket_folder_others_may_enter_is_named(self):
        name = f"lmreceipt-pytest-{os.getpid()}"
        folder = f"/tmp/{name}-{os.geteuid()}"
        saved = os.environ.pop("XDG_RUNTIME_DIR", None)
        os.mkdir(folder, 0o755)
        os.chmod(folder, 0o755)
        try:
            with self.assertRaises(client.ServiceNotReachable) as caught:
                client.socket_path(name)
            self.assertIn(f"{folder} has mode 0755, so others may enter it; run chmod 700",
                          caught.exception.message)
        finally:
            os.rmdir(folder)
            if saved is not None:
                os.environ["XDG_RUNTIME_DIR"] = saved

    def test_a_service_that_cannot_start(self):
        runtime = tempfile.mkdtemp(prefix="lmreceipt-pytest-")
        saved = os.environ.get("XDG_RUNTIME_DIR")
        os.environ["XDG_RUNTIME_DIR"] = runtime
        try:
            missing = client.ServiceClient(executable=os.path.join(runtime, "no-such-service"))
            with self.assertRaises(client.ServiceNotReachable) as caught:
                missing.boot()
            self.assertTrue(caught.exception.message.startswith("Service not reachable: "))
            self.assertEqual(101, caught.exception.code)
        finally:
            if saved is None:
                del os.environ["XDG_RUNTIME_DIR"]
            else:
                os.environ["XDG_RUNTIME_DIR"] = saved
            shutil.rmtree(runtime, ignore_errors=True)


def main():
    global ARGS
    parser = argparse.ArgumentParser()
    parser.add_argument("--service", required=True, help="the lmreceipt-service executable")
    parser.add_argument("--sample", required=True, help="testdata/sample-receipt.pdf")
    parser.add_argument("--lmreceipt", help="the lmreceipt executable, to compare call and analyze")
    ARGS, rest = parser.parse_known_args()
    unittest.main(argv=[sys.argv[0], *rest], verbosity=2)


if __name__ == "__main__":
    main()
