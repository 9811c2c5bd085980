"""The vntr command line as a user runs it: arguments, help, and a request that waits in the
queue, is listed, and is sent by `vntr flush` to a sandbox server on 127.0.0.1."""

import json
import os
import re
import subprocess
import tempfile
import unittest

VNTR = os.environ["VNTR_CLI"]
SANDBOX = os.environ["VNTR_SANDBOX"]


def vntr(*args, env=None):
    return subprocess.run([VNTR, *args], capture_output=True, text=True, timeout=120, env=env)


class Arguments(unittest.TestCase):
    def test_usage_and_help(self):
        cases = [  # arguments, exit status, pattern in stdout + stderr
            (["help"], 0, r"Subcommands:(.|\n)*flush(.|\n)*vntr help COMMAND"),
            (["help", "queue"], 0, r"--list(.|\n)*timeStampRaw"),
            (["help", "nope"], 2, r"vntr help: unknown command: nope"),
            (["nope"], 2, r"unknown command: nope \(commands: demo, fire, flush, queue\)"),
            (["fire", "a", "--group", "g", "--wait", "-1"], 2,
             r"--wait: expected a number from 0 to 3600, got -1"),
            (["demo", "--events", "0"], 2, r"expected a number from 1 to 200,000, got 0"),
            (["queue", "--list", "--limit", "0"], 2, r"from 1 to 1,000,000"),
            (["flush", "--server", "ftp://x"], 2, r"expected an http:// or https:// URL"),
        ]
        for args, status, pattern in cases:
            with self.subTest(args=args):
                run = vntr(*args)
                self.assertEqual(run.returncode, status, run.stdout + run.stderr)
                self.assertRegex(run.stdout + run.stderr, pattern)


class QueueAndFlush(unittest.TestCase):
    def setUp(self):
        self.dir = tempfile.TemporaryDirectory()
        root = self.dir.name
        self.env = dict(os.environ, XDG_DATA_HOME=f"{root}/data", XDG_CONFIG_HOME=f"{root}/config")
        self.common = ["--dir", f"{root}/queue", "--assume-online"]
        self.sandbox = subprocess.Popen([SANDBOX, "--port", "0", "--quiet"],
                                        stdout=subprocess.PIPE, text=True)
        self.base = re.search(r"serving on (\S+)", self.sandbox.stdout.readline()).group(1)

    def tearDown(self):
        self.sandbox.terminate()
        self.sandbox.wait(timeout=10)
        self.dir.cleanup()

    def test_a_request_waits_is_listed_and_is_flushed(self):
        # Port 9 on loopback refuses: the request stays queued.
        fire = vntr("fire", "launch", "--group", "cli", "--data", '{"n": 1}', "--site-id", "77",
                    "--not-subject-to-gdpr", "--server", "http://127.0.0.1:9/tags", "--wait", "0",
                    *self.common, env=self.env)
        self.assertEqual(fire.returncode, 1, fire.stdout + fire.stderr)
        self.assertIn("stored: launch (group cli)", fire.stdout)

        listed = vntr("queue", "--list", "--json", "--dir", self.common[1], env=self.env)
        self.assertEqual(listed.returncode, 0, listed.stderr)
        report = json.loads(listed.stdout)
        self.assertEqual((report["count"], report["listed"]), (1, 1))
        request = report["requests"][0]
        self.assertRegex(request["timeStamp"], r"^\d{4}-\d\d-\d\dT\d\d:\d\d:\d\dZ$")
        self.assertIsInstance(request["timeStampRaw"], float)
        self.assertEqual(request["payload"]["params"]["events"], ["launch"])
        self.assertEqual(request["payload"]["params"]["siteId"], "77")
        text = vntr("queue", "--list", "--dir", self.common[1], env=self.env)
        self.assertRegex(text.stdout, r"UTC  id \S+  \d+ bytes\n  \{")

        flush = vntr("flush", "--server", self.base + "/tags", "--wait", "60", *self.common,
                     env=self.env)
        self.assertEqual(flush.returncode, 0, flush.stdout + flush.stderr)
        self.assertIn("sending 1 queued request", flush.stdout)
        self.assertIn("delivered: the queue is empty", flush.stdout)
        after = json.loads(vntr("queue", "--json", "--dir", self.common[1], env=self.env).stdout)
        self.assertEqual(after["count"], 0)
        again = vntr("flush", "--server", self.base + "/tags", *self.common, env=self.env)
        self.assertEqual(again.returncode, 0)
        self.assertIn("nothing to send", again.stdout)


if __name__ == "__main__":
    unittest.main()
