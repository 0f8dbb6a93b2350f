"""What Jupyter's suite does not check: output that streams while a loop runs, interrupts by
message and by SIGINT that leave the kernel answering, errors with stack and causes, and the
workspace's variables in completion."""
import os
import queue
import signal
import time
import unittest

from jupyter_client.manager import start_new_kernel

TIMEOUT = 30
LOOP = "for i = 1:400\n  fprintf('tick %d\\n', i);\n  pause(0.05);\nend"


class QuorlSessionTests(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.km, cls.kc = start_new_kernel(kernel_name=os.environ.get("QUORL_KERNEL_NAME", "quorl"))

    @classmethod
    def tearDownClass(cls):
        cls.kc.stop_channels()
        cls.km.shutdown_kernel()

    def iopub_until_idle(self, msg_id, on_message=None):
        """The iopub messages of a request up to its idle status."""
        messages = []
        while True:
            msg = self.kc.get_iopub_msg(timeout=TIMEOUT)
            if msg["parent_header"].get("msg_id") != msg_id:
                continue
            if on_message:
                on_message(msg)
            if msg["msg_type"] == "status" and msg["content"]["execution_state"] == "idle":
                return messages
            messages.append(msg)

    def shell_reply(self, msg_id):
        while True:
            reply = self.kc.get_shell_msg(timeout=TIMEOUT)
            if reply["parent_header"].get("msg_id") == msg_id:
                return reply

    def run_code(self, code):
        msg_id = self.kc.execute(code)
        messages = self.iopub_until_idle(msg_id)
        return self.shell_reply(msg_id), messages

    def interrupt_loop(self, interrupt):
        msg_id = self.kc.execute(LOOP)
        ticks = []

        def on_message(msg):
            if msg["msg_type"] == "stream":
                ticks.append(msg["content"]["text"])
                if len(ticks) == 3:
                    interrupt()

        started = time.monotonic()
        messages = self.iopub_until_idle(msg_id, on_message)
        reply = self.shell_reply(msg_id)
        elapsed = time.monotonic() - started
        # Output came as it was written, one stream message per tick, and the loop stopped
        # long before its 20 s.
        self.assertGreaterEqual(len(ticks), 3)
        self.assertEqual(ticks[0], "tick 1\n")
        self.assertLess(len(ticks), 400)
        self.assertLess(elapsed, 15)
        self.assertEqual(reply["content"]["status"], "error")
        errors = [m for m in messages if m["msg_type"] == "error"]
        self.assertEqual(len(errors), 1)
        # The kernel carries on with the same workspace.
        reply, messages = self.run_code("i * 10")
        self.assertEqual(reply["content"]["status"], "ok")
        results = [m["content"]["data"]["text/plain"] for m in messages
                   if m["msg_type"] == "execute_result"]
        # The loop stops at a statement boundary: after the last tick shown or just before the
        # next one.
        last = int(ticks[-1].split()[1])
        self.assertIn(results, [["ans = %d" % (10 * last)], ["ans = %d" % (10 * (last + 1))]])

    def test_interrupt_request_stops_a_running_loop(self):
        self.interrupt_loop(self.km.interrupt_kernel)

    def test_sigint_stops_a_running_loop(self):
        self.interrupt_loop(lambda: self.km.signal_kernel(signal.SIGINT))

    def test_error_carries_identifier_stack_and_causes(self):
        code = ("outer(2)\n"
                "function outer(x)\n"
                "  try\n"
                "    inner(x);\n"
                "  catch cause\n"
                "    error('demo:outer', 'outer failed with %d', x);\n"
                "  end\n"
                "end\n"
                "function inner(x)\n"
                "  error('demo:inner', 'inner failed with %d', x);\n"
                "end\n")
        reply, messages = self.run_code(code)
        self.assertEqual(reply["content"]["status"], "error")
        self.assertEqual(reply["content"]["ename"], "demo:outer")
        self.assertEqual(reply["content"]["evalue"], "outer failed with 2")
        error = [m for m in messages if m["msg_type"] == "error"][0]["content"]
        self.assertEqual(error["ename"], "demo:outer")
        trace = "\n".join(error["traceback"])
        self.assertIn("in outer", trace)
        self.assertIn("caused by", trace)
        self.assertIn("demo:inner: inner failed with 2", trace)
        self.assertIn("in inner", trace)

    def test_output_before_an_error_and_values_in_one_cell(self):
        reply, messages = self.run_code("fprintf('before\\n');\nz = [1 2 3]\nnosuchthing + 1")
        self.assertEqual(reply["content"]["status"], "error")
        self.assertEqual(reply["content"]["ename"], "quorl:undefinedFunctionOrVariable")
        kinds = [m["msg_type"] for m in messages if m["msg_type"] != "execute_input"]
        self.assertEqual(kinds[-1], "error")
        text = "".join(m["content"]["text"] for m in messages if m["msg_type"] == "stream")
        self.assertIn("before\n", text)
        self.assertIn("z =", text, "an assignment's display is output, not the cell's value")

    def test_completion_offers_workspace_variables(self):
        self.run_code("zebra_count = 4; zebra_name = 'z';")
        msg_id = self.kc.complete("zebra_", 6)
        content = self.shell_reply(msg_id)["content"]
        self.assertEqual(content["matches"], ["zebra_count", "zebra_name"])
        self.assertEqual((content["cursor_start"], content["cursor_end"]), (0, 6))


if __name__ == "__main__":
    unittest.main()
