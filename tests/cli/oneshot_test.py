"""quorl's one-shot subcommands end to end: outputs, errors and exit codes, on the embedded
interpreter and through a `quorl serve`, and the bad inputs each with one clear line."""
import os
import shutil
import signal
import socket
import subprocess
import time
import unittest

from clitesting import PATIENCE, QUORL, Server, run, scratch


class Roads:
    """The same checks on both roads: embedded (no options) and through a server."""

    def connect(self):
        return []

    def test_eval_shows_values_and_output_and_exits_0(self):
        status, out, err = run(*self.connect(), "eval", "x = 6 * 7\ndisp(x + 1); y = 3;")
        self.assertEqual((status, err), (0, ""))
        self.assertEqual(out, "x = 42\n43\n")

    def test_error_of_the_code_has_its_stack_on_stderr_and_exits_1(self):
        code = ("half(7)\n"
                "function h = half(n)\n"
                "  if mod(n, 2), error('demo:odd', '%d is odd', n); end\n"
                "  h = n / 2;\n"
                "end")
        status, out, err = run(*self.connect(), "eval", code)
        self.assertEqual(status, 1)
        self.assertEqual(out, "")
        self.assertIn("error: 7 is odd [demo:odd]\n", err)
        self.assertIn("  in half at line 3", err)

    def test_syntax_error_exits_1(self):
        status, _, err = run(*self.connect(), "eval", "x = (1 +")
        self.assertEqual(status, 1)
        self.assertIn("error:", err)

    def test_feval_calls_the_function_with_literal_arguments(self):
        status, out, _ = run(*self.connect(), "feval", "max", "[3 9 4]")
        self.assertEqual((status, out), (0, "ans = 9\n"))
        status, out, _ = run(*self.connect(), "feval", "strrep", "'a-b-c'", "'-'", "'+'")
        self.assertEqual((status, out), (0, "ans = 'a+b+c'\n"))
        status, _, err = run(*self.connect(), "feval", "no_such_function", "1")
        self.assertEqual(status, 1)
        self.assertIn("no_such_function", err)

    def test_time_limit_interrupts_a_long_loop_with_130(self):
        started = time.monotonic()
        status, out, err = run(*self.connect(), "--timeout", "0.5", "eval",
                               "disp('spinning'); while true, end")
        self.assertEqual(status, 130)
        self.assertEqual(out, "spinning\n")
        self.assertIn("interrupted", err)
        self.assertLess(time.monotonic() - started, 5)


class Embedded(Roads, unittest.TestCase):

    def test_run_finds_function_files_beside_the_script(self):
        folder = scratch()
        try:
            with open(os.path.join(folder, "twice.qrl"), "w") as f:
                f.write("function y = twice(x)\n  y = 2 * x;\nend\n")
            with open(os.path.join(folder, "main.qrl"), "w") as f:
                f.write("fprintf('%d\\n', twice(21));\n")
            status, out, err = run("run", os.path.join(folder, "main.qrl"), cwd="/")
            self.assertEqual((status, out, err), (0, "42\n", ""))
        finally:
            shutil.rmtree(folder)

    def test_commands_on_a_pipe_run_as_a_script(self):
        status, out, _ = run(stdin="a = 2;\nfor k = 1:2\n  disp(a * k)\nend\n")
        self.assertEqual((status, out), (0, "2\n4\n"))
        status, out, _ = run("repl", stdin="disp('piped')\nerror('x:y', 'stop')\ndisp('not')\n")
        self.assertEqual((status, out), (1, "piped\n"))

    def test_sigint_interrupts_the_running_request_with_130(self):
        p = subprocess.Popen([QUORL, "eval", "disp('started'); while true, end"],
                             stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
        self.assertEqual(p.stdout.readline(), "started\n")
        p.send_signal(signal.SIGINT)
        self.assertEqual(p.wait(timeout=PATIENCE), 130)
        p.stdout.close()
        p.stderr.close()

    def test_bad_input_gets_one_line_and_its_exit_code(self):
        cases = [
            (["--frobnicate", "eval", "1"], 2, "--frobnicate"),
            (["eval"], 2, "CODE"),
            (["run", "/no/such/file.qrl"], 2, "cannot read /no/such/file.qrl"),
            (["feval", "not-a-name"], 2, "not a function name"),
            (["--timeout", "-1", "eval", "1"], 2, "--timeout"),
            (["--server-key", "/k.pub", "eval", "1"], 2, "--server-key needs --connect"),
            (["--connect", "nowhere", "eval", "1"], 2, "not an ipc:// or tcp:// endpoint"),
            (["--connect", "tcp://127.0.0.1:9", "--server-key", "/no/key.pub", "eval", "1"], 2,
             "cannot read the server key"),
            (["serve"], 2, "--listen"),
            (["serve", "--listen", "udp://x"], 2, "not an ipc:// or tcp:// endpoint"),
        ]
        for args, expected, words in cases:
            with self.subTest(args=args):
                status, out, err = run(*args)
                self.assertEqual(status, expected)
                self.assertEqual(out, "")
                self.assertEqual(len(err.splitlines()), 1, err)
                self.assertIn(words, err)

    def test_help_and_version(self):
        status, out, _ = run("--help")
        self.assertEqual(status, 0)
        for word in ("eval", "run", "feval", "repl", "serve", "--connect", "130"):
            self.assertIn(word, out)
        status, out, _ = run("--version")
        self.assertEqual(status, 0)
        self.assertRegex(out, r"^quorl \d")


class ThroughIpcServer(Roads, unittest.TestCase):

    @classmethod
    def setUpClass(cls):
        cls.server = Server()

    @classmethod
    def tearDownClass(cls):
        status = cls.server.stop()
        if status != 0:
            raise AssertionError("server exit status %d: %s" % (status, cls.server.lines))

    def connect(self):
        return self.server.connect()

    def test_workspace_lives_on_the_server_between_clients(self):
        self.assertEqual(run(*self.connect(), "eval", "kept = 17;")[0], 0)
        self.assertEqual(run(*self.connect(), "eval", "disp(kept)")[1], "17\n")


def free_port():
    with socket.socket() as s:
        s.bind(("127.0.0.1", 0))
        return s.getsockname()[1]


class ThroughTcpServer(Roads, unittest.TestCase):

    @classmethod
    def setUpClass(cls):
        cls.server = Server(tcp_port=free_port())

    @classmethod
    def tearDownClass(cls):
        cls.server.stop()

    def connect(self):
        return self.server.connect()

    def test_a_wrong_server_key_is_refused_with_one_line_and_3(self):
        other = scratch()
        try:
            # A key pair of another server: made by starting one and stopping it.
            stranger = Server(tcp_port=free_port())
            wrong = stranger.key + ".pub"
            shutil.copy(wrong, os.path.join(other, "wrong.pub"))
            stranger.stop()
            status, out, err = run("--connect", self.server.endpoint, "--server-key",
                                   os.path.join(other, "wrong.pub"), "eval", "disp(1)")
            self.assertEqual((status, out), (3, ""))
            self.assertEqual(len(err.splitlines()), 1, err)
            self.assertIn("public key", err)
        finally:
            shutil.rmtree(other)


class ServerFailures(unittest.TestCase):

    def test_an_unreachable_endpoint_is_one_line_and_3(self):
        folder = scratch()
        try:
            started = time.monotonic()
            status, out, err = run("--connect", "ipc://" + folder + "/nobody", "eval", "1")
            self.assertEqual((status, out), (3, ""))
            self.assertEqual(len(err.splitlines()), 1, err)
            self.assertIn("cannot reach", err)
            self.assertLess(time.monotonic() - started, 10)
        finally:
            shutil.rmtree(folder)

    def test_a_server_killed_during_a_request_is_reported_with_3(self):
        server = Server()
        try:
            p = subprocess.Popen([QUORL, *server.connect(), "eval",
                                  "disp('running'); while true, pause(0.05); end"],
                                 stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
            self.assertEqual(p.stdout.readline(), "running\n")
            server.kill()
            started = time.monotonic()
            self.assertEqual(p.wait(timeout=PATIENCE), 3)
            self.assertLess(time.monotonic() - started, 10)
            err = p.stderr.read()
            self.assertIn(server.endpoint, err)
            p.stdout.close()
            p.stderr.close()
        finally:
            server.stop()

    def test_serve_stops_on_sigterm_with_0(self):
        server = Server()
        self.assertEqual(server.stop(), 0)
        self.assertTrue(any("shutting down" in line for line in server.lines), server.lines)


if __name__ == "__main__":
    unittest.main()
