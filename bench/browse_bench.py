#!/usr/bin/python3
# SPDX-License-Identifier: Apache-2.0
"""Times ContentDirectory Browse of one folder on a media server (bench/browse_bench.sh runs it
for each server inside the loopback-only namespace):

    browse_bench.py --description URL --folder TITLE --expect COUNT [--runs N] [--wait S]

It reads the description for the ContentDirectory control URL, finds the container titled TITLE
(breadth first from the root, bounded), waits up to S seconds for it to hold COUNT children (a
server may still be scanning), then times N runs of BrowseDirectChildren with RequestedCount 0.
A server that caps the answer gets further pages from the next StartingIndex until it has given
all COUNT; a run is the whole folder. Each request goes over a fresh connection, as most control
points send them. Every run's children are counted; prints one line:

    NAME median_ms=M min_ms=A max_ms=B runs=N requests_per_run=R per_request=C items=COUNT
"""
import argparse
import http.client
import statistics
import sys
import time
import urllib.parse
import urllib.request
import xml.etree.ElementTree as ET

DIRECTORY = "urn:schemas-upnp-org:service:ContentDirectory:1"
DIDL = "{urn:schemas-upnp-org:metadata-1-0/DIDL-Lite/}"
DC = "{http://purl.org/dc/elements/1.1/}"


class Failed(Exception):
    pass


def control_url(description):
    opener = urllib.request.build_opener(urllib.request.ProxyHandler({}))
    with opener.open(description, timeout=5) as answer:
        root = ET.fromstring(answer.read())
    ns = "{urn:schemas-upnp-org:device-1-0}"
    for service in root.iter(ns + "service"):
        if service.findtext(ns + "serviceType") == DIRECTORY:
            return urllib.parse.urljoin(description, service.findtext(ns + "controlURL"))
    raise Failed("no ContentDirectory:1 in " + description)


# RequestedCount of every Browse; 0 asks for everything (--page changes it, to try paging).
PAGE = [0]


def envelope(object_id, start):
    return ('<?xml version="1.0" encoding="utf-8"?>'
            '<s:Envelope xmlns:s="http://schemas.xmlsoap.org/soap/envelope/" '
            's:encodingStyle="http://schemas.xmlsoap.org/soap/encoding/"><s:Body>'
            '<u:Browse xmlns:u="%s"><ObjectID>%s</ObjectID>'
            '<BrowseFlag>BrowseDirectChildren</BrowseFlag><Filter>*</Filter>'
            '<StartingIndex>%d</StartingIndex><RequestedCount>%d</RequestedCount>'
            '<SortCriteria></SortCriteria></u:Browse></s:Body></s:Envelope>' %
            (DIRECTORY, object_id.replace("&", "&amp;").replace("<", "&lt;"), start,
             PAGE[0])).encode()


def post(url, object_id, start):
    """The answer's bytes; the time spent is all network and server (parsing comes later)."""
    parts = urllib.parse.urlsplit(url)
    connection = http.client.HTTPConnection(parts.hostname, parts.port or 80, timeout=10)
    try:
        connection.request("POST", parts.path or "/", envelope(object_id, start), {
            "Content-Type": 'text/xml; charset="utf-8"',
            "SOAPACTION": '"%s#Browse"' % DIRECTORY,
        })
        answer = connection.getresponse()
        body = answer.read()
    finally:
        connection.close()
    if answer.status != 200:
        try:
            fault = {e.tag.split("}")[-1]: e.text for e in ET.fromstring(body).iter()}
            why = "UPnP error %s %s" % (fault.get("errorCode"), fault.get("errorDescription"))
        except ET.ParseError:
            why = repr(body[:120])
        raise Failed("Browse %r from %d: HTTP %d, %s" % (object_id, start, answer.status, why))
    return body


def parse(body):
    """(children as (kind, id, title), NumberReturned, TotalMatches) of a Browse answer."""
    root = ET.fromstring(body)
    result = next((e.text for e in root.iter() if e.tag.split("}")[-1] == "Result"), None)
    returned = next((e.text for e in root.iter() if e.tag.split("}")[-1] == "NumberReturned"),
                    None)
    total = next((e.text for e in root.iter() if e.tag.split("}")[-1] == "TotalMatches"), None)
    if result is None or returned is None or total is None:
        raise Failed("a Browse answer without Result, NumberReturned or TotalMatches")
    children = [(e.tag[len(DIDL):], e.get("id"), e.findtext(DC + "title"))
                for e in ET.fromstring(result) if e.tag in (DIDL + "item", DIDL + "container")]
    if len(children) != int(returned):
        raise Failed("NumberReturned %s but %d objects in Result" % (returned, len(children)))
    return children, int(returned), int(total)


def browse_all(url, object_id):
    """All children of object_id, paging while the server caps; (children, requests, total)."""
    children, requests, total = [], 0, None
    while requests < 1000:
        batch, returned, total = parse(post(url, object_id, len(children)))
        requests += 1
        children += batch
        if returned == 0 or len(children) >= total:
            return children, requests, total
    raise Failed("more than 1000 requests for one folder")


def find_container(url, title):
    queue, browsed = ["0"], 0
    while queue and browsed < 40:
        object_id = queue.pop(0)
        children, _, _ = browse_all(url, object_id)
        browsed += 1
        for kind, child, name in children:
            if kind == "container" and name == title:
                return child
        queue += [child for kind, child, _ in children if kind == "container"]
    raise Failed("no container titled %r within %d browses" % (title, browsed))


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--name", required=True)
    parser.add_argument("--description", required=True)
    parser.add_argument("--folder", required=True)
    parser.add_argument("--expect", type=int, required=True)
    parser.add_argument("--runs", type=int, default=100)
    parser.add_argument("--wait", type=float, default=60)
    parser.add_argument("--page", type=int, default=0, help="RequestedCount (default 0: all)")
    args = parser.parse_args()
    PAGE[0] = args.page
    try:
        url = control_url(args.description)
        deadline = time.monotonic() + args.wait
        while True:
            try:
                object_id = find_container(url, args.folder)
                children, requests, total = browse_all(url, object_id)
                if len(children) == args.expect:
                    break
                state = "%d children of %d expected" % (len(children), args.expect)
            except Failed as failure:
                state = str(failure)
                if time.monotonic() >= deadline or "HTTP" in state:
                    raise
            if time.monotonic() >= deadline:
                raise Failed("after %.0f s: %s" % (args.wait, state))
            time.sleep(0.5)
        # The cap shows in the first page of a run.
        first, _, _ = parse(post(url, object_id, 0))
        times = []
        for run in range(args.runs + 3):
            started = time.perf_counter()
            bodies, got = [], 0
            while True:
                body = post(url, object_id, got)
                bodies.append(body)
                # Counting needs the page's NumberReturned; read it cheaply, outside the timing.
                paused = time.perf_counter()
                _, returned, total = parse(body)
                started += time.perf_counter() - paused
                got += returned
                if returned == 0 or got >= total:
                    break
            elapsed = time.perf_counter() - started
            if got != args.expect:
                raise Failed("run %d gave %d children, not %d" % (run, got, args.expect))
            if run >= 3:  # the first three warm the server's caches
                times.append(elapsed * 1000)
    except (Failed, OSError, ET.ParseError) as failure:
        print("%s FAILED %s" % (args.name, failure))
        return 1
    print("%s median_ms=%.3f min_ms=%.3f max_ms=%.3f runs=%d requests_per_run=%d "
          "per_request=%d items=%d bytes_per_run=%d" %
          (args.name, statistics.median(times), min(times), max(times), len(times),
           len(bodies), len(first), got, sum(len(b) for b in bodies)))
    return 0


if __name__ == "__main__":
    sys.exit(main())
