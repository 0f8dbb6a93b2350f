"""The command window under a pseudo-terminal (pexpect): prompt, multi-line blocks, history,
output while a command runs, Ctrl-C, Ctrl-D, the diary and log, and a server that dies."""
import os
import shutil
import time
import unittest

import pexpect

from clitesting import PATIENCE, QUORL, Server, scratch

PROMPT = ">> "


class CommandWindow(unittest.TestCase):

    def setUp(self):
        self.dir = scratch()
        self.history = os.path.join(self.dir, "history")
        self.windows = []

    def tearDown(self):
        for window in self.windows:
            window.close(force=True)
        shutil.rmtree(self.dir)

    def open(self, *args):
        window = pexpect.spawn(QUORL, [*args, "repl", "--history", self.history],
                               encoding="utf-8", timeout=PATIENCE, dimensions=(24, 200),
                               env=dict(os.environ, TERM="xterm"))
        self.windows.append(window)
        window.expect_exact(PROMPT)
        return window

    def leave(self, window, status=0):
        window.sendeof()
        window.expect(pexpect.EOF)
        window.close()
        self.assertEqual(window.exitstatus, status)

    def test_values_blocks_and_history(self):
        w = self.open()
        w.sendline("x = 40 + 2")
        w.expect_exact("x = 42\r\n")
        w.expect_exact(PROMPT)
        # An open block continues on the next line, under the continuation prompt.
        w.sendline("for k = 1:3")
        w.expect_exact(".. ")
        w.sendline("  fprintf('k%d\\n', k * x)")
        w.expect_exact(".. ")
        w.sendline("end")
        w.expect_exact("k42\r\nk84\r\nk126\r\n")
        w.expect_exact(PROMPT)
        w.sendline("error('my:id', 'went wrong')")
        w.expect_exact("error: went wrong [my:id]")
        w.expect_exact(PROMPT)
        w.sendline("disp(6 * 7 + 1)")
        w.expect_exact("43\r\n")
        w.expect_exact(PROMPT)
        # A Ctrl-D typed while a command runs (the terminal in its ordinary mode) ends the
        # session once the command has.
        w.sendline("disp('begun'); pause(0.5); disp('paused')")
        w.expect_exact("begun\r\n")
        w.sendeof()
        w.expect_exact("paused\r\n")
        w.expect(pexpect.EOF)
        w.close()
        self.assertEqual(w.exitstatus, 0)
        # The history file brings the last line back in the next session: up, Enter.
        w = self.open()
        w.send("\x1b[A\r")
        w.expect_exact("paused\r\n")
        w.expect_exact(PROMPT)
        self.leave(w)

    def test_ctrl_c_interrupts_the_running_command_and_the_session_goes_on(self):
        diary = os.path.join(self.dir, "diary.txt")
        log = os.path.join(self.dir, "output.log")
        w = pexpect.spawn(QUORL, ["repl", "--history", self.history, "--diary", diary,
                                  "--log", log],
                          encoding="utf-8", timeout=PATIENCE)
        self.windows.append(w)
        w.expect_exact(PROMPT)
        w.sendline("n = 5;")
        w.expect_exact(PROMPT)
        # Output of a command that has not ended shows at once.
        w.sendline("fprintf('started\\n'); while true, end")
        w.expect_exact("started\r\n")
        self.assertTrue(w.isalive())
        sent = time.monotonic()
        w.sendintr()
        w.expect_exact("interrupted")
        w.expect_exact(PROMPT)
        self.assertLess(time.monotonic() - sent, 0.5)
        w.sendline("disp(n * 2)")
        w.expect_exact("10\r\n")
        w.expect_exact(PROMPT)
        # At the prompt, Ctrl-C drops the line being typed.
        w.send("disp('dropped')")
        w.sendintr()
        w.expect_exact(PROMPT)
        w.sendline("disp('kept')")
        w.expect_exact("kept\r\n")
        w.expect_exact(PROMPT)
        self.leave(w)
        with open(diary) as f:
            text = f.read()
        for piece in (">> n = 5;\n", ">> fprintf('started\\n'); while true, end\nstarted\n",
                      "interrupted\n", ">> disp(n * 2)\n10\n", ">> disp('kept')\nkept\n"):
            self.assertIn(piece, text)
        self.assertNotIn("dropped", text)
        with open(log) as f:
            text = f.read()
        self.assertIn(">> disp(n * 2)\n10\n", text)
        self.assertIn("started\n", text)

    def test_a_server_that_dies_is_reported_and_the_window_stays(self):
        server = Server()
        try:
            w = self.open(*server.connect())
            w.sendline("disp('reached')")
            w.expect_exact("reached\r\n")
            w.expect_exact(PROMPT)
            w.sendline("disp('remote'); while true, pause(0.05); end")
            w.expect_exact("remote\r\n")
            server.kill()
            w.expect_exact("lost the server at " + server.endpoint)
            w.expect_exact(PROMPT)
            self.leave(w, status=3)
        finally:
            server.stop()


if __name__ == "__main__":
    unittest.main()
