#!/usr/bin/python3
# SPDX-License-Identifier: Apache-2.0
"""Helper of bench/nginx_bench.sh (run inside the loopback-only namespace):

    nginx_bench.py urls PORT TITLE...      resource URL of each titled item of the root, one a line
    nginx_bench.py check URL FILE [START]  exits 1 unless GET answers 200 (206 from START on)
                                           with FILE's bytes and the right Content-Length
    nginx_bench.py ssdp RUNS TIMEOUT       times M-SEARCH to first unicast answer; one JSON line
    nginx_bench.py table RESULTS SSDP JSON MACHINE   prints the Markdown table, writes JSON

RESULTS holds one line per wrk run: "workload server round seconds requests bytes connect read
write status timeout" (the counts are those of wrk's own summary).
"""
import http.client
import json
import socket
import statistics
import sys
import time
import urllib.parse
import xml.etree.ElementTree as ET

DIRECTORY = "urn:schemas-upnp-org:service:ContentDirectory:1"
BROWSE = ('<?xml version="1.0" encoding="utf-8"?>'
          '<s:Envelope xmlns:s="http://schemas.xmlsoap.org/soap/envelope/" '
          's:encodingStyle="http://schemas.xmlsoap.org/soap/encoding/"><s:Body>'
          '<u:Browse xmlns:u="%s"><ObjectID>0</ObjectID>'
          '<BrowseFlag>BrowseDirectChildren</BrowseFlag><Filter>*</Filter>'
          '<StartingIndex>0</StartingIndex><RequestedCount>0</RequestedCount>'
          '<SortCriteria></SortCriteria></u:Browse></s:Body></s:Envelope>' % DIRECTORY)
SEARCH = ('M-SEARCH * HTTP/1.1\r\nHOST: 239.255.255.250:1900\r\nMAN: "ssdp:discover"\r\n'
          'MX: 1\r\nST: urn:schemas-upnp-org:device:MediaServer:1\r\n\r\n').encode()


def urls(port, titles):
    connection = http.client.HTTPConnection("127.0.0.1", int(port), timeout=10)
    connection.request("POST", "/ContentDirectory/Control", BROWSE.encode(), {
        "Content-Type": 'text/xml; charset="utf-8"', "SOAPACTION": '"%s#Browse"' % DIRECTORY})
    answer = connection.getresponse()
    body = answer.read()
    if answer.status != 200:
        sys.exit("Browse answered HTTP %d: %r" % (answer.status, body[:200]))
    # ElementTree undoes the escaping of the DIDL-Lite inside Result.
    result = next(e.text for e in ET.fromstring(body).iter() if e.tag.endswith("Result"))
    found = {}
    for item in ET.fromstring(result):
        title = next((e.text for e in item if e.tag.endswith("}title")), None)
        res = next((e.text for e in item if e.tag.endswith("}res")), None)
        if title and res:
            found[title] = res.strip()
    for title in titles:
        if title not in found:
            sys.exit("no item titled %r in the root (found %s)" % (title, sorted(found)))
        print(found[title])


def check(url, path, start=None):
    """A fast server sending the wrong bytes would measure nothing: the body is compared too."""
    parts = urllib.parse.urlsplit(url)
    connection = http.client.HTTPConnection(parts.hostname, parts.port, timeout=30)
    headers = {} if start is None else {"Range": "bytes=%s-" % start}
    connection.request("GET", parts.path, headers=headers)
    answer = connection.getresponse()
    with open(path, "rb") as f:
        f.seek(int(start or 0))
        expected = f.read()
    want = (200 if start is None else 206, len(expected), True)
    got = (answer.status, int(answer.getheader("Content-Length", "-1")))
    got += (answer.read() == expected,)
    connection.close()
    if got != want:
        sys.exit("%s%s: status %d, Content-Length %d, body as the file's: %s; expected %d, %d" %
                 (url, " " + headers["Range"] if headers else "", *got, *want[:2]))


def ssdp(runs, timeout):
    times, missed = [], 0
    for _ in range(int(runs)):
        with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as sock:
            sock.bind(("127.0.0.1", 0))
            started = time.perf_counter()
            sock.sendto(SEARCH, ("239.255.255.250", 1900))
            deadline = started + float(timeout)
            while True:
                left = deadline - time.perf_counter()
                if left <= 0:
                    missed += 1
                    break
                sock.settimeout(left)
                try:
                    data, _ = sock.recvfrom(2048)
                except socket.timeout:
                    missed += 1
                    break
                if data.startswith(b"HTTP/1.1 200"):
                    times.append((time.perf_counter() - started) * 1000)
                    break
        time.sleep(0.05)  # the answer's repeats go to a closed port, not into the next run
    print(json.dumps({"runs": int(runs), "missed": missed, "ms": times}))


def table(results, ssdp_file, json_out, machine):
    runs = {}
    with open(results) as lines:
        for line in lines:
            workload, server, _, seconds, requests, size, *errors = line.split()
            runs.setdefault(workload, {}).setdefault(server, []).append(
                (float(seconds), int(requests), int(size), [int(e) for e in errors]))
    # Per run: seconds, requests, bytes, errors (connect, read, write, non-2xx, timeout).
    report = {"machine": machine, "runs": runs, "workloads": {}}
    rows = []
    for workload, servers in runs.items():
        streaming = workload.startswith("256_MiB")
        # Requests per second for small bodies, megabytes (10^6 bytes) per second for streams.
        rate = {s: [(b / 1e6 if streaming else r) / t for t, r, b, _ in v]
                for s, v in servers.items()}
        errors = {s: [sum(x) for x in zip(*(e for _, _, _, e in v))] for s, v in servers.items()}
        ng, ours = (statistics.median(rate[s]) for s in ("nginx", "tw"))
        per_round = [o / n for n, o in zip(rate["nginx"], rate["tw"])]
        unit = "MB/s" if streaming else "req/s"
        note = "; ".join("%s errors connect/read/write/non-2xx/timeout %s" %
                         (s, "/".join(map(str, e))) for s, e in errors.items() if any(e))
        rows.append("| %s | %.0f %s | %.0f %s%s | %.2f | %.2f-%.2f |" %
                    (workload.replace("_", " "), ng, unit, ours, unit,
                     " (" + note + ")" if note else "", ours / ng, min(per_round),
                     max(per_round)))
        report["workloads"][workload] = {"unit": unit, "nginx": rate["nginx"], "tw": rate["tw"],
                                         "ratio_median": ours / ng, "errors": errors}
    with open(ssdp_file) as f:
        search = json.load(f)
    report["ssdp_search_to_answer"] = search
    if search["ms"]:
        ms = search["ms"]
        rows.append("| SSDP search to answer (MX 1) | - | %.2f ms median (%.2f-%.2f, %d of %d "
                    "answered) | - | - |" % (statistics.median(ms), min(ms), max(ms), len(ms),
                                            search["runs"]))
    else:
        rows.append("| SSDP search to answer (MX 1) | - | no answer in %d runs | - | - |" %
                    search["runs"])
    print("| workload | nginx | tarnwick-mediaserver | ratio | spread |")
    print("|---|---|---|---|---|")
    print("\n".join(rows))
    with open(json_out, "w") as f:
        json.dump(report, f, indent=1)


if __name__ == "__main__":
    command, args = sys.argv[1], sys.argv[2:]
    {"urls": lambda: urls(args[0], args[1:]), "check": lambda: check(*args),
     "ssdp": lambda: ssdp(*args), "table": lambda: table(*args)}[command]()
