#!/usr/bin/env python3
"""Mirroring over real-network conditions: nginx serves sample sources on 127.0.0.1, and
bench/latency_proxy.py adds a round trip in front of it. The relay (build/bench/relaymirror)
mirrors each source; its peers `curl --parallel --parallel-max 8` and `aria2c -j 8` fetch the
same URLs through the same proxy to disk, then `sha256sum` the files, as the relay checks every
package. Each figure is the median of RUNS alternating runs (BENCH_RUNS, default 5), printed
beside each peer's with the throughput ratio (peer's time / relay's time: above 1 is faster).

Also: bytes the relay wrote against bytes it downloaded, the total rate under maxbandwidth, the
bytes a run after a SIGKILL half-way through a large package received again, and a run with
nothing to do against fetching the catalog alone; and, through bench/fault_proxy.py, a source
that fails every package once (a dropped connection, or a 503), against the same source healthy."""
import hashlib
import os
import resource
import shutil
import socket
import statistics
import subprocess
import sys
import tempfile
import time

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
from ports import free_port, start_server, stop_server  # noqa: E402

TOP = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
BUILD = os.environ.get("UPDATE_BUILD_DIR", os.path.join(TOP, "build"))
RUNS = int(os.environ.get("BENCH_RUNS", "5"))
ONLY = os.environ.get("BENCH_ONLY", "")  # comma-separated scenario names, empty: all
RELAY = os.path.join(BUILD, "bench", "relaymirror")
MAKESOURCE = os.path.join(BUILD, "tools", "makesource")
LUA = "lua5.2"
COMMAND = os.path.join(TOP, "command", "update-mirror.lua")


class Servers:
    """nginx over HTTP and HTTPS on one root, and latency proxies in front of either."""

    def __init__(self, work, root):
        self.work, self.root, self.children = work, root, []
        self.http, self.https = free_port(), free_port()
        subprocess.run(["openssl", "req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:prime256v1",
                        "-nodes", "-days", "2", "-subj", "/CN=localhost", "-keyout", work + "/key.pem",
                        "-out", work + "/cert.pem"], check=True, capture_output=True)
        with open(work + "/nginx.conf", "w") as conf:
            conf.write("""daemon off; worker_processes 1; error_log %(w)s/error.log; pid %(w)s/nginx.pid;
events { worker_connections 4096; }
http { access_log off; sendfile on; tcp_nopush on; keepalive_requests 1000000; keepalive_timeout 120;
  client_body_temp_path %(w)s/body; proxy_temp_path %(w)s/proxy; fastcgi_temp_path %(w)s/fastcgi;
  uwsgi_temp_path %(w)s/uwsgi; scgi_temp_path %(w)s/scgi;
  server { listen 127.0.0.1:%(http)d; root %(r)s; }
  server { listen 127.0.0.1:%(https)d ssl http2; ssl_certificate %(w)s/cert.pem; ssl_certificate_key %(w)s/key.pem;
           root %(r)s; } }
""" % {"w": work, "r": root, "http": self.http, "https": self.https})
        self.spawn(["/usr/sbin/nginx", "-p", work, "-c", work + "/nginx.conf"], self.http)

    def spawn(self, argv, port):
        process = start_server(argv, port)
        self.children.append(process)
        return process

    def proxy(self, target, rtt_ms, count_file=None):
        port = free_port()
        argv = [sys.executable, os.path.join(TOP, "bench", "latency_proxy.py"), str(port), str(target), str(rtt_ms)]
        self.spawn(argv + ([count_file] if count_file else []), port)
        return port

    def close(self):
        for process in self.children:
            stop_server(process)


def timed(argv, **kwargs):
    """Wall seconds of a command, and the bytes it wrote to storage (its own rusage)."""
    start = time.monotonic()
    process = subprocess.Popen(argv, stdout=subprocess.DEVNULL, stderr=subprocess.PIPE, **kwargs)
    _, status, usage = os.wait4(process.pid, 0)
    seconds = time.monotonic() - start
    if status != 0:
        raise SystemExit("failed (%d): %s\n%s" % (status, " ".join(argv[:3]), process.stderr.read().decode()))
    process.stderr.close()
    return seconds, usage.ru_oublock * 512


def packages(source):
    with open(source + "/server.ini") as catalog:
        return [line.split()[2] for line in catalog if line.startswith("c") and len(line.split()) == 5]


class Scenario:
    def __init__(self, work, source, base, https):
        self.work, self.source, self.base, self.https = work, source, base, https
        self.paths = packages(source)
        self.bytes = sum(os.path.getsize(os.path.join(source, p)) for p in self.paths)

    def fresh(self, name):
        path = os.path.join(self.work, name)
        shutil.rmtree(path, ignore_errors=True)
        os.makedirs(path)
        return path

    def relay(self, bandwidth=0):
        repository = self.fresh("repository")
        seconds, written = timed([RELAY, repository, self.base, self.source + "/server.ini", str(bandwidth),
                                  "0" if self.https else "2"])
        return seconds, written

    def digest(self, directory):
        subprocess.run(["sha256sum"] + [os.path.join(directory, os.path.basename(p)) for p in self.paths],
                       check=True, stdout=subprocess.DEVNULL)

    def curl(self):
        out = self.fresh("curl")
        with open(self.work + "/curl.cfg", "w") as cfg:
            for p in self.paths:
                cfg.write('url = "%s/%s"\noutput = "%s/%s"\n' % (self.base, p, out, os.path.basename(p)))
        start = time.monotonic()
        timed(["curl", "-sSf", "-k", "--parallel", "--parallel-max", "8", "-K", self.work + "/curl.cfg"])
        self.digest(out)
        return time.monotonic() - start

    def aria2(self):
        out = self.fresh("aria2")
        with open(self.work + "/aria2.list", "w") as listing:
            for p in self.paths:
                listing.write("%s/%s\n  out=%s\n" % (self.base, p, os.path.basename(p)))
        start = time.monotonic()
        timed(["aria2c", "-q", "-j", "8", "-x", "1", "-i", self.work + "/aria2.list", "-d", out,
               "--check-certificate=false", "--allow-overwrite=true", "--auto-file-renaming=false",
               "--file-allocation=none", "--console-log-level=error"])
        self.digest(out)
        return time.monotonic() - start


def compare(title, scenario):
    """Medians of alternating runs of the relay and both peers; returns the relay's median run."""
    relay, curl, aria2, written = [], [], [], []
    for _ in range(RUNS):
        seconds, wrote = scenario.relay()
        relay.append(seconds), written.append(wrote)
        curl.append(scenario.curl())
        aria2.append(scenario.aria2())
    r, c, a = statistics.median(relay), statistics.median(curl), statistics.median(aria2)
    print("%-44s relay %7.2f s | curl --parallel 8 %7.2f s  ratio %5.2f | aria2c -j 8 %7.2f s  ratio %5.2f"
          % (title, r, c, c / r, a, a / r))
    print("%-44s wrote %.2fx the bytes downloaded (%d MB written for %d MB)"
          % ("", statistics.median(written) / scenario.bytes, statistics.median(written) / 1e6, scenario.bytes / 1e6))
    sys.stdout.flush()


def holds_all(repository, catalog):
    """Whether the repository holds every package of the catalog, its bytes matching the SHA-256."""
    held = set()
    with open(repository + "/source.ini") as listing:
        for fields in (line.split() for line in listing):
            if len(fields) == 7:
                with open(os.path.join(repository, fields[2]), "rb") as archive:
                    archive.seek(int(fields[5]))
                    if hashlib.sha256(archive.read(int(fields[3]))).hexdigest() == fields[4]:
                        held.add(fields[4])
    with open(catalog) as listing:
        return all(f[4] in held for f in (line.split() for line in listing) if len(f) == 5 and len(f[4]) == 64)


def flaky(work, servers, www):
    """The relay through fault_proxy.py, alternating a healthy source, one that drops every
    package's first response half-way and one that answers every package's first request 503;
    medians of the wall time and of the body bytes the proxy sent. A new proxy for each run, so
    that each run meets every fault."""
    source = www + "/flaky"
    subprocess.run([MAKESOURCE, "--products", "1", "--components", "200", "--size", str(256 << 10), source],
                   check=True, stdout=subprocess.DEVNULL)
    scenario = Scenario(work, source, None, False)
    modes = ("none", "drop", "503")
    seconds, sent, faults = {m: [] for m in modes}, {m: [] for m in modes}, {m: [] for m in modes}
    for _ in range(RUNS):
        for mode in modes:
            counted, port = "%s/count-%s" % (work, mode), free_port()
            proxy = servers.spawn([sys.executable, os.path.join(TOP, "bench", "fault_proxy.py"), str(port),
                                   str(servers.http), mode, counted], port)
            scenario.base = "http://127.0.0.1:%d/flaky" % port
            try:
                seconds[mode].append(scenario.relay()[0])
            except SystemExit as failure:
                raise SystemExit("flaky source (%s): %s" % (mode, failure))
            finally:
                stop_server(proxy), servers.children.remove(proxy)
            if not holds_all(scenario.work + "/repository", source + "/server.ini"):
                raise SystemExit("flaky source (%s): the repository lacks packages" % mode)
            received, made = open(counted).read().split()
            sent[mode].append(int(received)), faults[mode].append(int(made))
    healthy = statistics.median(seconds["none"])
    print("%-44s relay %7.2f s, received %.2fx the packages' bytes"
          % ("200 x 256 KiB, HTTP, healthy source", healthy, statistics.median(sent["none"]) / scenario.bytes))
    for mode, title in (("drop", "the same, each cut once half-way"), ("503", "the same, each answered 503 once")):
        r = statistics.median(seconds[mode])
        print("%-44s relay %7.2f s | healthy %7.2f s  ratio %5.2f | received %.2fx the packages' bytes (target <= 1.6),"
              " %d faults" % (title, r, healthy, healthy / r, statistics.median(sent[mode]) / scenario.bytes,
                              min(faults[mode])))
    sys.stdout.flush()


def wanted(name):
    return not ONLY or name in ONLY.split(",")


def main():
    work = tempfile.mkdtemp(prefix="network-bench-")
    os.chmod(work, 0o755)  # nginx workers may run as another user
    servers = None
    try:
        print("machine: %d cores, load average %.1f (shared with other builds: figures are noisy)"
              % (os.cpu_count(), os.getloadavg()[0]))
        www = work + "/www"
        small, large = www + "/small", www + "/large"
        subprocess.run([MAKESOURCE, "--products", "1", "--components", "2000", "--size", "32768", small],
                       check=True, stdout=subprocess.DEVNULL)
        subprocess.run([MAKESOURCE, "--products", "1", "--components", "200", "--size", str(1 << 20), large],
                       check=True, stdout=subprocess.DEVNULL)
        servers = Servers(work, www)
        plain20 = "http://127.0.0.1:%d" % servers.proxy(servers.http, 20)
        tls20 = "https://127.0.0.1:%d" % servers.proxy(servers.https, 20)
        plain100 = "http://127.0.0.1:%d" % servers.proxy(servers.http, 100)
        tls100 = "https://127.0.0.1:%d" % servers.proxy(servers.https, 100)
        loopback = "http://127.0.0.1:%d" % servers.http
        cases = [
            ("small20", "2,000 x 32 KiB, HTTP, 20 ms", small, plain20 + "/small", False),
            ("small20tls", "2,000 x 32 KiB, HTTPS, 20 ms", small, tls20 + "/small", True),
            ("large20", "200 x 1 MiB, HTTP, 20 ms", large, plain20 + "/large", False),
            ("large100", "200 x 1 MiB, HTTP, 100 ms", large, plain100 + "/large", False),
            # HTTP/2 (curl multiplexes, aria2c speaks HTTP/1.1): every connection starts slow.
            ("large100tls", "200 x 1 MiB, HTTPS (HTTP/2), 100 ms, slow start", large, tls100 + "/large", True),
            ("loopback", "2,000 x 32 KiB, HTTP, plain loopback", small, loopback + "/small", False),
        ]
        for name, title, source, base, https in cases:
            if wanted(name):
                compare(title, Scenario(work, source, base, https))

        if wanted("bandwidth"):
            scenario = Scenario(work, large, loopback + "/large", False)
            seconds, _ = scenario.relay(2048)
            rate = scenario.bytes / 1024 / seconds
            print("%-44s relay %7.0f KiB/s | limit 2048 KiB/s  ratio %5.2f (target 0.9-1.1)"
                  % ("maxbandwidth 2048, 8 parallel, 200 x 1 MiB", rate, rate / 2048))

        if wanted("nochange"):
            # A night with nothing new behind a 20 ms round trip, through the library (relaymirror)
            # and through the command, against curl of the catalog. The repository is mirrored over
            # loopback, then one untimed night through the link (another source address: a full
            # run) leaves the seal the timed nights find, as a nightly job finds it.
            for components in (2000, int(os.environ.get("BENCH_QUIET_COMPONENTS", "20000"))):
                name = "quiet%d" % components
                source = small if components == 2000 else www + "/" + name
                if components != 2000:
                    subprocess.run([MAKESOURCE, "--products", "1", "--components", str(components), "--size", "1024",
                                    source], check=True, stdout=subprocess.DEVNULL)
                directory = os.path.basename(source)
                far, near = plain20 + "/" + directory, loopback + "/" + directory
                catalog = source + "/server.ini"
                repository = os.path.join(work, name + "-repository")
                shutil.rmtree(repository, ignore_errors=True)
                timed([RELAY, repository, near, catalog])
                timed([RELAY, repository, far, catalog])
                relay = statistics.median(timed([RELAY, repository, far, catalog])[0] for _ in range(RUNS))
                command = [LUA, COMMAND, "--repository", repository, "--source", far, "--mirror", "everything",
                           "--product", "c1t100", "--quiet"]
                environment = dict(os.environ, LUA_CPATH=os.path.join(BUILD, "lua", "?.so") + ";;")
                timed(command, env=environment)  # its own options: a full run, then sealed
                through = statistics.median(timed(command, env=environment)[0] for _ in range(RUNS))
                curl = statistics.median(timed(["curl", "-sSf", "-o", work + "/catalog", far + "/server.ini"])[0]
                                         for _ in range(RUNS))
                for what, seconds in (("relay", relay), ("command", through)):
                    print("%-44s %-7s %7.3f s | curl of server.ini %7.3f s  ratio %5.2f (target <= 1.5)"
                          % ("nothing new, %d components, 20 ms" % components, what, seconds, curl, seconds / curl))
                sys.stdout.flush()

        if wanted("resume"):
            big = www + "/big"
            size = int(os.environ.get("BENCH_RESUME_MIB", "512")) << 20
            subprocess.run([MAKESOURCE, "--products", "1", "--components", "1", "--size", str(size), big],
                           check=True, stdout=subprocess.DEVNULL)
            counted = work + "/count"
            base = "http://127.0.0.1:%d/big" % servers.proxy(servers.http, 20, counted)
            repository = os.path.join(work, "resumed")
            run = subprocess.Popen([RELAY, repository, base, big + "/server.ini"], stdout=subprocess.DEVNULL)
            while run.poll() is None:
                try:
                    if int(open(counted).read() or 0) >= size // 2:
                        run.kill()
                        break
                except (OSError, ValueError):
                    pass
                time.sleep(0.01)
            run.wait()
            before = int(open(counted).read())
            timed([RELAY, repository, base, big + "/server.ini"])
            after = int(open(counted).read()) - before
            print("%-44s killed at %d MiB; the next run received %.0f%% of the package (target <= 55%%)"
                  % ("resume after SIGKILL, %d MiB over HTTP" % (size >> 20), before >> 20, 100.0 * after / size))

        if wanted("flaky"):
            flaky(work, servers, www)
    finally:
        if servers:
            servers.close()
        shutil.rmtree(work, ignore_errors=True)


if __name__ == "__main__":
    main()
