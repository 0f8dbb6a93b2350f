"""Jupyter's kernel test suite against the quorl kernel named by QUORL_KERNEL_NAME (default
"quorl"), with its samples in the reference language. QUORL_PATH must include tests/kernel/functions
(completion and inspection of function files)."""
import os
import unittest

import jupyter_kernel_test


class QuorlKernelTests(jupyter_kernel_test.KernelTests):
    kernel_name = os.environ.get("QUORL_KERNEL_NAME", "quorl")
    language_name = "quorl"
    file_extension = ".qrl"

    code_hello_world = "fprintf('hello, world\\n')"
    code_stderr = "fprintf(2, 'to the error stream\\n')"
    code_generate_error = "error('kernel:test', 'failed on purpose %d', 42)"

    code_execute_result = [
        {"code": "1 + 1", "result": "ans = 2"},
        {"code": "x = 6; x * 7", "result": "ans = 42"},
        {"code": "y = 3;\ny", "result": "y = 3"},
        {"code": "fprintf('shown first\\n'); 'text'", "result": "ans = 'text'"},
    ]
    code_history_pattern = "1 + *"
    supported_history_operations = ("tail", "range", "search")

    completion_samples = [
        {"text": "fpri", "matches": {"fprintf"}},
        {"text": "addo", "matches": {"addone"}},
        {"text": "whil", "matches": {"while"}},
        {"text": "s.fpri", "matches": set()},
    ]
    complete_code_samples = ["x = 1", "for i = 1:3, disp(i), end", "m = [1 2\n3 4]"]
    incomplete_code_samples = ["for i = 1:3", "if true\n  x = 1;", "m = [1 2", "x = 1 + ..."]
    invalid_code_samples = ["x = = 1", "1 +* 2", "end"]

    code_inspect_sample = "addone"


if __name__ == "__main__":
    unittest.main()
