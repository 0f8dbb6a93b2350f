"""Helpers of the quorl command-line tests: the program under test, scratch folders and
server processes that say when they listen."""
import os
import shutil
import signal
import subprocess
import tempfile
import time

QUORL = os.environ.get("QUORL", "quorl")
# Every wait in these tests is bounded by this (seconds).
PATIENCE = 20


def scratch():
    """A private scratch folder (mode 0700), short enough for ipc:// paths."""
    return tempfile.mkdtemp(prefix="quorl-cli-", dir="/tmp")


def run(*args, stdin=None, env=None, cwd=None):
    """Runs quorl to its end; returns (exit status, stdout, stderr)."""
    p = subprocess.run([QUORL, *args], input=stdin, capture_output=True, text=True,
                       timeout=PATIENCE, env=env, cwd=cwd)
    return p.returncode, p.stdout, p.stderr


class Server:
    """`quorl serve` on an ipc:// endpoint in its own scratch folder, or on tcp:// with a key."""

    def __init__(self, tcp_port=None, env=None):
        self.dir = scratch()
        if tcp_port:
            self.endpoint = "tcp://127.0.0.1:%d" % tcp_port
            self.key = os.path.join(self.dir, "server.key")
            extra = ["--key-file", self.key]
        else:
            self.endpoint = "ipc://" + os.path.join(self.dir, "server")
            self.key = None
            extra = []
        self.process = subprocess.Popen([QUORL, "serve", "--listen", self.endpoint, *extra],
                                        stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                                        text=True, env=env)
        self.lines = []
        deadline = time.monotonic() + PATIENCE
        for line in self.process.stdout:  # the server announces what it listens on
            self.lines.append(line)
            if "public key in" in line or ("listening on" in line and not tcp_port):
                break
            if time.monotonic() > deadline:
                break
        if not any("listening on " + self.endpoint in l for l in self.lines):
            self.stop()
            raise RuntimeError("server did not start: " + "".join(self.lines))

    def connect(self):
        """The global options that send requests to this server."""
        args = ["--connect", self.endpoint]
        if self.key:
            args += ["--server-key", self.key + ".pub"]
        return args

    def kill(self):
        self.process.kill()
        self.process.wait(timeout=PATIENCE)

    def stop(self):
        """SIGTERM; returns the exit status."""
        if self.process.poll() is None:
            self.process.send_signal(signal.SIGTERM)
        status = self.process.wait(timeout=PATIENCE)
        self.lines += self.process.stdout.readlines()
        self.process.stdout.close()
        shutil.rmtree(self.dir, ignore_errors=True)
        return status
