"""The vntr package against a real library and a sandbox tag server on 127.0.0.1.

Environment: VNTR_LIBRARY (the library to test), VNTR_SANDBOX (the vntr-sandbox program).
One process holds one library instance, so the tests share it and run in the order below.
"""

import json
import os
import pathlib
import re
import subprocess
import sys
import tempfile
import threading
import unittest
import urllib.request

import vntr

WAIT_SECONDS = 30


def wait_until(predicate, seconds=WAIT_SECONDS):
    """Waits on `predicate` (re-checked when signalled or every 50 ms) up to `seconds`."""
    event = threading.Event()
    for _ in range(int(seconds / 0.05)):
        if predicate():
            return True
        event.wait(0.05)
    return predicate()


class Sandbox:
    def __init__(self):
        self.process = subprocess.Popen(
            [os.environ["VNTR_SANDBOX"], "--port", "0", "--batch-interval", "100", "--quiet"],
            stdout=subprocess.PIPE, text=True)
        first = self.process.stdout.readline()
        self.base = re.search(r"serving on (\S+)", first).group(1)

    def batches(self):
        with urllib.request.urlopen(self.base + "/api/batches", timeout=5) as answer:
            return json.load(answer)["batches"]

    def members(self):
        return [m for b in self.batches() for m in b["members"] if m.get("method") == "syncEvent"]

    def stop(self):
        self.process.terminate()
        self.process.wait(timeout=10)


class Log:
    def __init__(self):
        self.lock = threading.Lock()
        self.lines = []

    def __call__(self, level, strings):
        with self.lock:
            self.lines.append((level, ",".join(strings)))

    def has(self, text):
        with self.lock:
            return any(text in line for _, line in self.lines)


class VntrPackage(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.dir = tempfile.TemporaryDirectory()
        cls.sandbox = Sandbox()
        root = pathlib.Path(cls.dir.name)
        cls.log = Log()
        cls.statistics = []
        vntr.set_log_level(vntr.LOG_VERBOSE)
        vntr.set_logging_callback(cls.log)
        vntr.set_delegate(lambda s, a: cls.statistics.append((s, a)))
        assert vntr.set_main_bundle_path(str(root))  # no property list there
        assert vntr.set_documents_directory(str(root / "data"))
        assert vntr.set_user_defaults_path(str(root / "defaults.json"))
        vntr.set_server_url(cls.sandbox.base + "/tags")
        vntr.user_defaults_set_string("IABConsent_SubjectToGDPR", "0")

    @classmethod
    def tearDownClass(cls):
        cls.sandbox.stop()
        cls.dir.cleanup()

    def test_1_version_and_site_id(self):
        self.assertRegex(vntr.version(), r"^\d+\.\d+\.\d+$")
        self.assertFalse(vntr.set_site_id(""))
        self.assertTrue(vntr.set_site_id("py-site"))

    def test_2_arguments_that_can_never_work_raise(self):
        cases = [
            (TypeError, ("launch", "g", None)),
            (TypeError, ([b"launch"], "g", None)),
            (TypeError, (["launch"], "g", [1, 2])),
            (ValueError, (["launch"], "g", "[1, 2]")),
            (ValueError, (["launch"], "g", {"x": float("nan")})),
            (ValueError, (["la\0unch"], "g", None)),
        ]
        for error, arguments in cases:
            with self.subTest(arguments=arguments), self.assertRaises(error):
                vntr.fire_events(*arguments)

    def test_3_events_reach_the_server_with_the_site_id(self):
        self.assertTrue(vntr.fire_events(["launch"], "", None))  # refused: logged, not raised
        for i in range(3):
            vntr.fire_events(["launch", "checkout"], "shop", {"seq": i, "name": "ü"})
        self.assertTrue(wait_until(lambda: len(self.sandbox.members()) == 3), self.sandbox.batches())
        members = self.sandbox.members()
        self.assertEqual({m["siteId"] for m in members}, {"py-site"})
        self.assertEqual(sorted(m["eventData"]["seq"] for m in members), [0, 1, 2])
        self.assertTrue(wait_until(lambda: self.log.has("No event group provided")))
        self.assertTrue(self.log.has("Using the site ID set by the application."))
        created = vntr.Statistic.EVENT_CREATED
        self.assertTrue(wait_until(lambda: sum(a for s, a in list(self.statistics) if s == created) == 3))
        self.assertTrue(vntr.has_gdpr_consent())
        self.assertFalse(vntr.set_site_id("too-late"))

    def test_4_flush_and_shutdown(self):
        vntr.fire_events(["before-exit"], "shop", None)
        self.assertTrue(vntr.flush(timeout=10))
        self.assertTrue(any(m["events"] == ["before-exit"] for m in self.sandbox.members()))
        self.assertTrue(vntr.shutdown(timeout=10))
        self.assertFalse(vntr.fire_events(["after"], "shop", None))
        self.assertFalse(vntr.flush(timeout=1))

    def test_5_a_missing_library_is_a_clear_import_error(self):
        env = dict(os.environ, VNTR_LIBRARY="/nonexistent/libVNTRTagManager.so.0")
        run = subprocess.run([sys.executable, "-c", "import vntr"], env=env, capture_output=True,
                             text=True, timeout=60)
        self.assertNotEqual(run.returncode, 0)
        self.assertIn("LibraryNotFoundError: vntr: cannot load libVNTRTagManager.so.0", run.stderr)
        self.assertIn("/nonexistent/libVNTRTagManager.so.0", run.stderr)


if __name__ == "__main__":
    unittest.main()
