#!/usr/bin/python3
# SPDX-License-Identifier: Apache-2.0
"""A command-line SSDP discoverer over the GSSDP library (GObject introspection), for systems
without gupnp-tools' gssdp-discover. Same options and output as that program:

    gssdp_discover.py -i IFACE [-t TARGET] [-n SECONDS] [-m available|unavailable|all]

It searches for TARGET on IFACE and, until SECONDS have passed, prints every resource that
becomes available (USN and location) and, with -m unavailable or all, every one that leaves
(byebye). As with gssdp-discover, the default shows only "available" messages. The SSDP work is
GSSDP's.
"""
import argparse
import sys

import gi

gi.require_version("GSSDP", "1.6")
from gi.repository import GLib, GSSDP  # noqa: E402


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("-i", "--interface", required=True)
    parser.add_argument("-t", "--target", default="ssdp:all")
    parser.add_argument("-n", "--timeout", type=int, default=5)
    parser.add_argument("-m", "--message-type", default="available",
                        choices=("available", "unavailable", "all"))
    args = parser.parse_args()

    client = GSSDP.Client.new_full(args.interface, None, 0, GSSDP.UDAVersion.VERSION_1_0)
    browser = GSSDP.ResourceBrowser.new(client, args.target)

    # gssdp-discover's opening lines, so callers read one format whichever program ran.
    print("Using network interface %s" % client.get_interface())
    print("Scanning for resources matching %s" % args.target)
    print('Showing "%s" messages' % args.message_type)
    sys.stdout.flush()

    # Disposing the browser at the end reports its cache as unavailable; only events seen while
    # listening count.
    listening = [True]

    def available(_browser, usn, locations):
        if not listening[0]:
            return
        print("resource available\n  USN:      %s" % usn)
        for location in locations:
            print("  Location: %s" % location)
        sys.stdout.flush()

    def unavailable(_browser, usn):
        if not listening[0]:
            return
        print("resource unavailable\n  USN:      %s" % usn)
        sys.stdout.flush()

    if args.message_type in ("available", "all"):
        browser.connect("resource-available", available)
    if args.message_type in ("unavailable", "all"):
        browser.connect("resource-unavailable", unavailable)
    browser.set_active(True)
    loop = GLib.MainLoop()

    def finish():
        listening[0] = False
        loop.quit()
        return False

    GLib.timeout_add_seconds(args.timeout, finish)
    loop.run()
    browser.set_active(False)


if __name__ == "__main__":
    main()
