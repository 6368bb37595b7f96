"""How long a /metrics scrape of vdxd takes on a quiet node (the baseline) and while 1,500
idle connections, 16 clients that send a header byte every 200 ms and one endless header
stream are open against it, in the same run. Run it in the simulator as root:

  build/sim/vdx-sim -- /usr/bin/python3 bench/metrics_under_load.py build/tools/vdxd [SCRAPES [IDLE]]

IDLE (default 1500) sets how many idle connections are opened.
"""
import os
import resource
import socket
import statistics
import subprocess
import sys
import threading
import time
import urllib.request

vdxd = sys.argv[1]
scrapes = int(sys.argv[2]) if len(sys.argv) > 2 else 200
idle_count = int(sys.argv[3]) if len(sys.argv) > 3 else 1500
URL = "http://127.0.0.1:9464/metrics"
stop = threading.Event()
socket.setdefaulttimeout(10)


def scrape_times(count):
    times = []
    for _ in range(count):
        start = time.perf_counter()
        with urllib.request.urlopen(URL, timeout=10) as answer:
            answer.read()
        times.append(time.perf_counter() - start)
    return times


def slow_client():
    while not stop.is_set():
        try:
            with socket.create_connection(("127.0.0.1", 9464)) as s:
                for byte in b"GET /metrics HTTP/1.1\r\nHost: slow\r\nX-Slow: " + b"a" * 10000:
                    if stop.wait(0.2):
                        return
                    s.send(bytes([byte]))
        except OSError:
            continue  # cut off: start again


def endless_head():
    line = b"X-Filler: " + b"a" * 1000 + b"\r\n"
    while not stop.is_set():
        try:
            with socket.create_connection(("127.0.0.1", 9464)) as s:
                s.sendall(b"GET /metrics HTTP/1.1\r\n")
                while not stop.is_set():
                    s.sendall(line * 64)
        except OSError:
            continue  # cut off: start another


def resident_kib(pid):
    with open(f"/proc/{pid}/status") as f:
        return int(next(l for l in f if l.startswith("VmRSS:")).split()[1])


soft, hard = resource.getrlimit(resource.RLIMIT_NOFILE)
resource.setrlimit(resource.RLIMIT_NOFILE, (hard, hard))
subprocess.run([os.path.join(os.path.dirname(vdxd), "vdxctl"), "create", "0", "--count", "2"],
               check=True, stdout=subprocess.DEVNULL)
daemon = subprocess.Popen([vdxd, "--interval", "1"], stdout=subprocess.DEVNULL,
                          stderr=subprocess.DEVNULL,
                          preexec_fn=lambda: resource.setrlimit(resource.RLIMIT_NOFILE, (1024, 1024)))
try:
    for _ in range(100):
        try:
            scrape_times(1)
            break
        except OSError:
            time.sleep(0.05)
    quiet = scrape_times(scrapes)
    resident_before = resident_kib(daemon.pid)
    threads = [threading.Thread(target=slow_client) for _ in range(16)]
    threads.append(threading.Thread(target=endless_head))
    for t in threads:
        t.start()
    idle = [socket.create_connection(("127.0.0.1", 9464), timeout=5) for _ in range(idle_count)]
    time.sleep(0.5)
    loaded = scrape_times(scrapes)
    resident_after = resident_kib(daemon.pid)
    stop.set()
    for t in threads:
        t.join()
    for s in idle:
        s.close()
finally:
    daemon.terminate()
    daemon.wait()

for name, times in (("quiet (baseline)", quiet), ("under load", loaded)):
    print(f"{name:17} median {statistics.median(times) * 1e3:7.2f} ms  "
          f"max {max(times) * 1e3:7.2f} ms  "
          f"ratio {statistics.median(times) / statistics.median(quiet):5.2f}")
print(f"vdxd resident {resident_before} KiB before the load, {resident_after} KiB under it")
