#!/usr/bin/env python3
"""HTTPGET$ throughput on loopback against the curl tool, on the same
server (servers.py, route /exact: 1 MiB of body). Both keep their
connection between fetches. Usage: bench_http.py path/to/tambril [fetches]"""
import os
import resource
import subprocess
import sys
import tempfile
import time

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
import servers  # noqa: E402

exe = sys.argv[1]
n = int(sys.argv[2]) if len(sys.argv) > 2 else 100
url = servers.start()["http"] + "/exact"
prog = os.path.join(tempfile.mkdtemp(), "bench.bas")
with open(prog, "w") as f:
    f.write('10 T = TIMER: FOR I = 1 TO %d: A$ = HTTPGET$("%s"): NEXT: PRINT LEN(A$); TIMER - T\r\n' % (n, url))


def cpu():
    r = resource.getrusage(resource.RUSAGE_CHILDREN)
    return r.ru_utime + r.ru_stime


for _ in range(3):
    c0 = cpu()
    out = subprocess.run([exe, "--headless", "--batch", prog], capture_output=True, text=True).stdout.split()
    c1 = cpu()
    curl = ["curl", "-s"]
    for _ in range(n):
        curl += ["-o", "/dev/null", url]
    t = time.time()
    subprocess.run(curl)
    wall = time.time() - t
    c2 = cpu()
    print("HTTPGET$ %.2f ms/fetch (cpu %.2f) | curl %.2f ms/fetch (cpu %.2f)"
          % (float(out[1]) * 1000 / n, (c1 - c0) * 1000 / n, wall * 1000 / n, (c2 - c1) * 1000 / n))
