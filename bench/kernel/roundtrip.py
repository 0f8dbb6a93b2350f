#!/usr/bin/python3
"""Round trip of a trivial execute request ("1+1"), measured with jupyter_client, against
quorl-kernel and, in the same run, against Debian's ipykernel (the floor to beat). One round
trip: execute sent on shell -> execute_reply received and the request's idle status seen on
iopub. The kernels are measured in alternating blocks so that machine noise falls on both.

    JUPYTER_PATH=PREFIX/share/jupyter bench/kernel/roundtrip.py [--rounds N] [--blocks B]
"""
import argparse
import statistics
import time

from jupyter_client.manager import start_new_kernel


def round_trip(kc, code):
    started = time.perf_counter()
    msg_id = kc.execute(code, store_history=False)
    replied = idle = False
    while not (replied and idle):
        if not replied:
            reply = kc.get_shell_msg(timeout=10)
            replied = reply["parent_header"].get("msg_id") == msg_id
            if replied and reply["content"]["status"] != "ok":
                raise RuntimeError("execute failed: %s" % reply["content"])
        if not idle:
            msg = kc.get_iopub_msg(timeout=10)
            idle = (msg["parent_header"].get("msg_id") == msg_id and msg["msg_type"] == "status"
                    and msg["content"]["execution_state"] == "idle")
    return time.perf_counter() - started


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--rounds", type=int, default=200, help="round trips per block")
    parser.add_argument("--blocks", type=int, default=5, help="alternating blocks per kernel")
    parser.add_argument("--quorl", default="quorl", help="kernel name of quorl-kernel")
    parser.add_argument("--floor", default="python3", help="kernel name of ipykernel")
    args = parser.parse_args()

    kernels = {}
    for name in (args.quorl, args.floor):
        km, kc = start_new_kernel(kernel_name=name)
        kernels[name] = (km, kc, [])
        for _ in range(50):  # warm up
            round_trip(kc, "1+1")
    try:
        for _ in range(args.blocks):
            for name, (_, kc, samples) in kernels.items():
                samples.extend(round_trip(kc, "1+1") for _ in range(args.rounds))
    finally:
        for km, kc, _ in kernels.values():
            kc.stop_channels()
            km.shutdown_kernel(now=True)

    def line(name):
        s = kernels[name][2]
        q = statistics.quantiles(s, n=10)
        return "%-8s n=%d  median %7.1f us  mean %7.1f us  p10 %7.1f us  p90 %7.1f us" % (
            name, len(s), statistics.median(s) * 1e6, statistics.mean(s) * 1e6, q[0] * 1e6,
            q[-1] * 1e6)

    print(line(args.quorl))
    print(line(args.floor) + "  (floor: ipykernel)")
    ratio = statistics.median(kernels[args.quorl][2]) / statistics.median(kernels[args.floor][2])
    print("ratio quorl/ipykernel (median): %.2f" % ratio)


if __name__ == "__main__":
    main()
