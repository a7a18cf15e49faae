#!/usr/bin/python3
# SPDX-License-Identifier: Apache-2.0
"""A media server as GUPnP's control point sees it (GObject introspection: GUPnP 1.6 and
GUPnP-AV's DIDL-Lite parser). Run it inside the loopback-only namespace:

    cp_gupnp.py (--udn UUID | --location URL) --folder DIR --expect REL [--bytes N] [--timeout S]
                [--playlist TITLE]

It discovers urn:schemas-upnp-org:device:MediaServer:1 on lo, keeps only the device with the
given UDN or description URL (other servers may be announcing in the same namespace), reads its
friendly name, browses the root, descends into containers until an item that stands for the file
REL of the shared folder DIR turns up (same title as the file's name without extension, or same
size), fetches the first N bytes of its http-get resource with a Range request and compares them
with the file on disk. With --playlist it then looks for the playlist container of that title at
the root (class object.container.playlistContainer), browses it, and fetches and compares the
entry that stands for REL the same way. Every step is printed; exit 0 when all passed, 1 with the
failing step.
"""
import argparse
import os
import sys
import threading
import time
import urllib.request

import gi

gi.require_version("GUPnP", "1.6")
gi.require_version("GUPnPAV", "1.0")
gi.require_version("GSSDP", "1.6")
from gi.repository import GLib, GObject, GSSDP, GUPnP, GUPnPAV  # noqa: E402

MEDIA_SERVER = "urn:schemas-upnp-org:device:MediaServer:1"
DIRECTORY = "urn:schemas-upnp-org:service:ContentDirectory"


class Failed(Exception):
    pass


def say(text):
    print("gupnp: " + text, flush=True)


def discover(context, args, seconds):
    """The device proxy of the wanted server, or a Failed naming what was seen instead."""
    point = GUPnP.ControlPoint.new(context, MEDIA_SERVER)
    loop = GLib.MainLoop()
    found = []
    others = []

    def available(_point, proxy):
        udn, location = proxy.get_udn(), proxy.get_location()
        if (args.udn and udn == args.udn) or (args.location and location == args.location):
            found.append(proxy)
            loop.quit()
        elif (udn, location) not in others:
            others.append((udn, location))

    def give_up():
        loop.quit()
        return False

    point.connect("device-proxy-available", available)
    point.set_active(True)
    timer = GLib.timeout_add(int(seconds * 1000), give_up)
    loop.run()
    if found:
        GLib.source_remove(timer)
    # The control point stays referenced by the proxy's caller frame only through this list.
    discover.point = point
    if not found:
        seen = ", ".join("%s at %s" % o for o in others) or "nothing"
        raise Failed("no MediaServer:1 with %s within %.0f s (seen: %s)" %
                     (args.udn or args.location, seconds, seen))
    return found[0]


def browse(service, object_id):
    """(objects, NumberReturned, TotalMatches) of BrowseDirectChildren of object_id."""
    names = ["ObjectID", "BrowseFlag", "Filter", "StartingIndex", "RequestedCount",
             "SortCriteria"]
    values = [object_id, "BrowseDirectChildren", "*", 0, 0, ""]
    action = GUPnP.ServiceProxyAction.new_from_list("Browse", names, values)
    try:
        service.call_action(action, None)
        ok, out = action.get_result_list(["Result", "NumberReturned", "TotalMatches"],
                                         [GObject.TYPE_STRING, GObject.TYPE_UINT,
                                          GObject.TYPE_UINT])
    except GLib.Error as error:
        raise Failed("Browse %r: %s (%s %d)" % (object_id, error.message, error.domain,
                                                error.code))
    if not ok:
        raise Failed("Browse %r: the answer lacks Result, NumberReturned or TotalMatches" %
                     object_id)
    result, returned, total = out
    objects = []
    parser = GUPnPAV.DIDLLiteParser.new()
    parser.connect("object-available", lambda _p, o: objects.append(o))
    try:
        parser.parse_didl(result or "")
    except GLib.Error as error:
        raise Failed("Browse %r: DIDL-Lite not parsed: %s" % (object_id, error.message))
    if len(objects) != returned:
        raise Failed("Browse %r: NumberReturned %d but %d objects in Result" %
                     (object_id, returned, len(objects)))
    return objects, returned, total


def describe(obj):
    kind = "container" if isinstance(obj, GUPnPAV.DIDLLiteContainer) else "item"
    return "%s %r id=%s class=%s" % (kind, obj.get_title(), obj.get_id(), obj.get_upnp_class())


def http_resource(item):
    for res in item.get_resources():
        info = res.get_protocol_info()
        if info is not None and info.get_protocol() == "http-get" and res.get_uri():
            return res
    return None


def matching(objects, title, size):
    """The item standing for the file: by title first, by size only when no title matches."""
    items = [o for o in objects
             if isinstance(o, GUPnPAV.DIDLLiteItem) and http_resource(o) is not None]
    for item in items:
        if item.get_title() == title:
            return item
    for item in items:
        if size > 0 and http_resource(item).get_size64() == size:
            return item
    return None


def find_item(service, args, title, size, deadline):
    """Root first, then a bounded descent: a container named like the next folder of REL wins,
    else the first container; the item is the first one matching the file."""
    folders = os.path.dirname(args.expect).split("/") if os.path.dirname(args.expect) else []
    object_id, path, visited = "0", "root", 0
    while visited < 8:
        visited += 1
        objects, returned, total = browse(service, object_id)
        # A server that has just started may still be filling its database: its first answers
        # can be empty. Ask again, bounded by the overall deadline.
        while total == 0 and object_id == "0" and time.monotonic() < deadline - 2:
            say("Browse 0 returned no objects yet; asking again in 0.5 s")
            time.sleep(0.5)
            objects, returned, total = browse(service, object_id)
        say("Browse %s (%s): NumberReturned %d, TotalMatches %d" % (object_id, path, returned,
                                                                     total))
        for obj in objects:
            say("  " + describe(obj))
        item = matching(objects, title, size)
        if item is not None:
            return item
        containers = [o for o in objects if isinstance(o, GUPnPAV.DIDLLiteContainer)]
        if not containers:
            raise Failed("no item for %r under %s and no container to descend into" %
                         (args.expect, path))
        named = [c for c in containers if folders and c.get_title() == folders[0]]
        chosen = named[0] if named else containers[0]
        if named:
            folders.pop(0)
        say("  descending into %r (%s)" % (chosen.get_title(),
                                           "named like the folder" if named else "first"))
        object_id, path = chosen.get_id(), path + "/" + chosen.get_title()
    raise Failed("no item for %r within %d levels" % (args.expect, visited))


def ranged_fetch(url, count):
    request = urllib.request.Request(url, headers={"Range": "bytes=0-%d" % (count - 1)})
    opener = urllib.request.build_opener(urllib.request.ProxyHandler({}))
    try:
        with opener.open(request, timeout=5) as answer:
            return answer.status, dict(answer.headers), answer.read()
    except urllib.error.HTTPError as error:
        raise Failed("GET %s with Range: HTTP %d %s" % (url, error.code, error.reason))
    except OSError as error:
        raise Failed("GET %s with Range: %s" % (url, error))


def run(args):
    deadline = time.monotonic() + args.timeout
    path = os.path.join(args.folder, args.expect)
    with open(path, "rb") as f:
        content = f.read()
    title = os.path.splitext(os.path.basename(args.expect))[0]
    say("expecting %r (%d bytes, title %r)" % (args.expect, len(content), title))

    # On lo by name: GUPnP's context manager would skip the loopback interface. GUPnP picks its
    # own HTTP port and fails when another program in the namespace took it in the meantime
    # (tests run in parallel): a fresh context is tried then, three times at most.
    # The port can already be taken when the context is made, or later when it starts serving.
    for attempt in range(3):
        try:
            context = GUPnP.Context.new_full("lo", None, 0, GSSDP.UDAVersion.VERSION_1_0)
            say("context on %s (%s)" % (context.get_interface(), context.get_host_ip()))
            device = discover(context, args, max(1.0, min(8.0, deadline - time.monotonic())))
            break
        except GLib.Error as error:
            if attempt == 2 or "Could not create HTTP server" not in error.message:
                raise
            say("context's HTTP port was taken (%s); another context" % error.message)
    say("found %s at %s" % (device.get_udn(), device.get_location()))
    name = device.get_friendly_name()
    if not name:
        raise Failed("the description has no friendlyName")
    say("description: friendlyName %r, model %r" % (name, device.get_model_name()))
    service = device.get_service(DIRECTORY)
    if service is None:
        raise Failed("the description lists no ContentDirectory service")
    say("ContentDirectory control URL %s" % service.get_control_url())

    item = find_item(service, args, title, len(content), deadline)
    fetch_and_compare(item, args, content)
    if args.playlist:
        entry = find_in_playlist(service, args.playlist, title, len(content))
        fetch_and_compare(entry, args, content)


def find_in_playlist(service, playlist, title, size):
    objects, _, _ = browse(service, "0")
    found = [o for o in objects
             if isinstance(o, GUPnPAV.DIDLLiteContainer) and o.get_title() == playlist]
    if not found:
        raise Failed("no container %r at the root" % playlist)
    say("playlist: " + describe(found[0]))
    if found[0].get_upnp_class() != "object.container.playlistContainer":
        raise Failed("%r is not a playlist container" % playlist)
    entries, returned, total = browse(service, found[0].get_id())
    say("Browse %s (%s): NumberReturned %d, TotalMatches %d" % (found[0].get_id(), playlist,
                                                                 returned, total))
    for entry in entries:
        say("  %s refID=%s" % (describe(entry), entry.get_ref_id()))
    entry = matching(entries, title, size)
    if entry is None:
        raise Failed("no entry of %r stands for the file" % playlist)
    return entry


def fetch_and_compare(item, args, content):
    res = http_resource(item)
    info = res.get_protocol_info()
    say("item %r: res %s" % (item.get_title(), res.get_uri()))
    say("  protocolInfo %s, size %d" % (info.to_string(), res.get_size64()))
    if res.get_size64() not in (-1, len(content)):
        raise Failed("res size %d, the file has %d bytes" % (res.get_size64(), len(content)))

    count = min(args.bytes, len(content))
    status, headers, body = ranged_fetch(res.get_uri(), count)
    say("GET Range: bytes=0-%d -> HTTP %d, Content-Range %s, %d bytes" %
        (count - 1, status, headers.get("Content-Range", "<none>"), len(body)))
    if status != 206:
        raise Failed("a Range request was answered with HTTP %d, not 206" % status)
    if body != content[:count]:
        first = next((i for i, (a, b) in enumerate(zip(body, content)) if a != b), len(body))
        raise Failed("the %d bytes fetched differ from the file (first difference at %d)" %
                     (len(body), first))
    say("bytes 0..%d match the file on disk" % (count - 1))


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    target = parser.add_mutually_exclusive_group(required=True)
    target.add_argument("--udn", help="the server's UDN, uuid:...")
    target.add_argument("--location", help="the server's description URL")
    parser.add_argument("--folder", required=True, help="the folder the server shares")
    parser.add_argument("--expect", required=True, help="a file of it, relative to --folder")
    parser.add_argument("--bytes", type=int, default=4096,
                        help="bytes to fetch (default 4096)")
    parser.add_argument("--timeout", type=float, default=20, help="seconds in all (default 20)")
    parser.add_argument("--playlist", help="a playlist container at the root holding the file")
    args = parser.parse_args()

    # Synchronous SOAP calls and HTTP fetches each have their own bounds; this watchdog holds
    # the whole run to its time whatever call hangs (a thread: a Python signal handler would
    # wait for the blocked C call to return).
    def out_of_time():
        print("gupnp: FAIL: out of time after %.0f s" % args.timeout, flush=True)
        os._exit(1)

    watchdog = threading.Timer(args.timeout + 1, out_of_time)
    watchdog.daemon = True
    watchdog.start()
    try:
        run(args)
    except Failed as failure:
        print("gupnp: FAIL: %s" % failure, flush=True)
        return 1
    except OSError as error:
        print("gupnp: FAIL: %s" % error, flush=True)
        return 1
    print("gupnp: PASS", flush=True)
    return 0


if __name__ == "__main__":
    sys.exit(main())
