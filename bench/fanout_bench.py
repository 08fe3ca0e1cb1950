#!/usr/bin/env python3
"""A tree of mirrors over ordinary web caches. A vendor source (tools/makesource) feeds a central
repository (update-mirror, default settings), served by nginx with examples/nginx-serve.conf as
shipped. An nginx proxy_cache that follows the origin's headers stands in front of it, and
BRANCHES branch mirrors (BENCH_BRANCHES, default 16) pull through it with update-mirror; with
squid installed, as many branches pull through squid as a forward proxy in front of the same
cache. Nights: a first mirror (branches in parallel), a new release (in sequence), a night with
nothing new (in parallel).

Per night: the origin's egress over the data the night brought, package bytes and catalog bytes
apart; the cache's hit ratio; wall time; and the check that every branch holds exactly what the
central holds (identity, version, size, SHA-256 of every held version). Target: egress at most
1.1x per release, 0 package bytes on a night with nothing new."""
import os
import re
import shutil
import socket
import subprocess
import sys
import tempfile
import threading
import time

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
from ports import free_port, start_server, stop_server  # noqa: E402

TOP = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
BUILD = os.environ.get("UPDATE_BUILD_DIR", os.path.join(TOP, "build"))
BRANCHES = int(os.environ.get("BENCH_BRANCHES", "16"))
MAKESOURCE = os.path.join(BUILD, "tools", "makesource")
COMMAND = os.path.join(TOP, "command", "update-mirror.lua")
SQUID = shutil.which("squid") or ("/usr/sbin/squid" if os.path.exists("/usr/sbin/squid") else None)


NGINX = """daemon off; worker_processes 1; %(user)s error_log %(w)s/error.log; pid %(w)s/nginx.pid;
events { worker_connections 1024; }
http { client_body_temp_path %(w)s/body; proxy_temp_path %(w)s/proxy; fastcgi_temp_path %(w)s/fastcgi;
  uwsgi_temp_path %(w)s/uwsgi; scgi_temp_path %(w)s/scgi;
  log_format bytes '$uri $status $bytes_sent $upstream_cache_status';
  access_log %(w)s/access.log bytes;
  %(body)s }
"""

# A reverse cache as an administrator sets one up: no lifetimes of its own (the origin's headers
# decide), one request to the origin per missing object however many ask at once.
CACHE = """proxy_cache_path %(w)s/cache levels=1:2 keys_zone=tree:10m max_size=4g inactive=7d use_temp_path=off;
  server { listen 127.0.0.1:%(port)d;
    location / { proxy_pass http://127.0.0.1:%(origin)d; proxy_cache tree; proxy_cache_lock on;
                 proxy_cache_lock_timeout 60s; proxy_cache_revalidate on; proxy_http_version 1.1;
                 proxy_set_header Connection ""; } }"""

SQUID_CONF = """http_port 127.0.0.1:%(port)d
pid_filename %(w)s/squid.pid
cache_log %(w)s/cache.log
access_log stdio:%(w)s/access.log squid
cache_dir ufs %(w)s/spool 1000 16 256
coredump_dir %(w)s
http_access allow all
include %(snippet)s
"""


class Servers:
    def __init__(self, work):
        self.work, self.children = work, []

    def nginx(self, name, body, port):
        w = os.path.join(self.work, name)
        os.makedirs(w)
        with open(w + "/nginx.conf", "w") as conf:
            conf.write(NGINX % {"w": w, "body": body, "user": "user root;" if os.geteuid() == 0 else ""})
        self.spawn(["/usr/sbin/nginx", "-p", w, "-c", w + "/nginx.conf"], port)
        return w + "/access.log"

    def squid(self, port):
        w = os.path.join(self.work, "squid")
        os.makedirs(w)
        with open(w + "/squid.conf", "w") as conf:
            conf.write(SQUID_CONF % {"w": w, "port": port, "snippet": os.path.join(TOP, "examples", "squid-branch.conf")})
        if os.geteuid() == 0:  # squid drops to its own user
            shutil.chown(w, "proxy")
        subprocess.run([SQUID, "-z", "-N", "-f", w + "/squid.conf"], check=True, capture_output=True)
        self.spawn([SQUID, "-N", "-f", w + "/squid.conf"], port)
        return w + "/access.log"

    def spawn(self, argv, port):
        process = start_server(argv, port)
        self.children.append(process)

    def close(self):
        for process in self.children:
            stop_server(process)


def mirror(repository, source, proxy=None):
    argv = ["lua5.2", COMMAND, "--repository", repository, "--source", source]  # patterns of every product
    if proxy:
        argv += ["--proxy", proxy]
    env = dict(os.environ, LUA_CPATH=os.path.join(BUILD, "lua", "?.so") + ";;")
    done = subprocess.run(argv, env=env, capture_output=True, text=True)
    if done.returncode != 0:
        raise SystemExit("update-mirror failed (%d) for %s:\n%s%s" % (done.returncode, repository, done.stdout, done.stderr))


def held(repository):
    """Every held version: identity, version, size and SHA-256, from the catalog it serves."""
    lines = set()
    with open(os.path.join(repository, "source.ini")) as catalog:
        for line in catalog:
            fields = line.split()
            if len(fields) >= 5 and line.startswith("c") and re.match(r"^\d+$", fields[3]):
                lines.add((fields[0], fields[1], fields[3], fields[4]))
    return lines


class Log:
    """What a server's access log gained since the last look."""

    def __init__(self, path):
        self.path, self.offset = path, 0

    def since(self):
        with open(self.path) as log:
            log.seek(self.offset)
            text = log.read()
            self.offset = log.tell()
        return [line.split() for line in text.splitlines() if line.strip()]


def night(name, central, branches, origin, cache, parallel, squid=None):
    start = time.monotonic()
    if parallel:
        failures = []
        def one(b, url, proxy):
            try:
                mirror(b, url, proxy)
            except SystemExit as failure:
                failures.append(str(failure))
        threads = [threading.Thread(target=one, args=branch) for branch in branches]
        for t in threads:
            t.start()
        for t in threads:
            t.join()
        if failures:
            raise SystemExit(failures[0])
    else:
        for b, url, proxy in branches:
            mirror(b, url, proxy)
    seconds = time.monotonic() - start
    packages = catalogs = 0
    for uri, status, sent, _ in origin.since():
        if uri.startswith("/packages/"):
            packages += int(sent)
        else:
            catalogs += int(sent)
    served = cache.since()
    hits = sum(1 for entry in served if entry[0].startswith("/packages/") and entry[3] == "HIT")
    asked = sum(1 for entry in served if entry[0].startswith("/packages/"))
    want = held(central)
    same = sum(1 for b, _, _ in branches if held(b) == want)
    return {"night": name, "seconds": seconds, "packages": packages, "catalogs": catalogs, "hits": hits,
            "asked": asked, "same": same, "count": len(branches)}


def report(result, data):
    ratio = result["packages"] / data if data else 0.0
    hit = "%.2f" % (result["hits"] / result["asked"]) if result["asked"] else "-"
    print("%-26s %6.2f s  package egress %9d B = %5.2fx of %d B new  (target <= 1.1x%s)  catalogs %7d B  "
          "cache hit ratio %s  branches identical %d/%d" %
          (result["night"], result["seconds"], result["packages"], ratio, data,
           "" if data else "; 0 B when nothing is new", result["catalogs"], hit, result["same"], result["count"]))
    return result["same"] == result["count"]


def new_bytes(central, before):
    """The bytes of the versions the central holds now and did not hold before."""
    return sum(int(size) for _, _, size, _ in held(central) - before)


def main():
    work = tempfile.mkdtemp(prefix="fanout-bench.")
    os.chmod(work, 0o755)  # squid runs as its own user
    servers = Servers(work)
    ok = True
    try:
        vendor, central = work + "/vendor", work + "/central"
        make = lambda seed: subprocess.run([MAKESOURCE, "--products", "4", "--components", "8", "--size", "262144",
                                            "--seed", str(seed), vendor], check=True, capture_output=True)
        make(1)
        mirror(central, vendor)
        data = new_bytes(central, set())
        origin_port, cache_port = free_port(), free_port()
        with open(os.path.join(TOP, "examples", "nginx-serve.conf")) as block:
            serve = block.read().replace("@LISTEN@", "127.0.0.1:%d" % origin_port).replace("@ROOT@", central)
        origin = Log(servers.nginx("origin", serve, origin_port))
        cache = Log(servers.nginx("cache", CACHE % {"w": work + "/cache", "port": cache_port, "origin": origin_port},
                                  cache_port))
        url = "http://127.0.0.1:%d" % cache_port
        branches = [(work + "/branch%02d" % i, url, None) for i in range(BRANCHES)]
        if SQUID:
            squid_port = free_port()
            servers.squid(squid_port)
            branches += [(work + "/squid%02d" % i, url, "http://127.0.0.1:%d" % squid_port) for i in range(BRANCHES)]
        print("fan-out: %d branches through nginx proxy_cache%s; central %s" %
              (BRANCHES, ", as many through squid in front of it" if SQUID else " (squid not installed)", central))
        ok &= report(night("first night, parallel", central, branches, origin, cache, True), data)
        make(2)  # a new release: every component at a newer version
        before = held(central)
        mirror(central, vendor)
        data = new_bytes(central, before)
        ok &= report(night("new release, sequence", central, branches, origin, cache, False), data)
        mirror(central, vendor)
        ok &= report(night("nothing new, parallel", central, branches, origin, cache, True), 0)
        # Three levels: central -> regional -> branch, each through a cache of its own in front.
        regional = work + "/regional"
        mirror(regional, url)
        regional_port = free_port()
        serve_regional = serve.replace("127.0.0.1:%d" % origin_port, "127.0.0.1:%d" % regional_port).replace(central, regional)
        servers.nginx("regional-server", serve_regional, regional_port)
        leaf = work + "/leaf"
        mirror(leaf, "http://127.0.0.1:%d" % regional_port)
        chained = held(leaf) == held(central)
        print("three levels: the branch below the regional holds every version the central holds: %s" %
              ("yes" if chained else "NO"))
        ok &= chained
    finally:
        servers.close()
        if os.environ.get("BENCH_KEEP") is None:
            shutil.rmtree(work, ignore_errors=True)
    return 0 if ok else 1


if __name__ == "__main__":
    sys.exit(main())
