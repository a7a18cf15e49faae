#!/usr/bin/env python3
"""What a control point sees of the example server (make run): one Browse of the root, one of
its first folder, and a ranged fetch of the first item found. Standard library only; meant to
run inside the private namespace next to the server."""
import sys
import urllib.request
import xml.etree.ElementTree as ET

CDS = "urn:schemas-upnp-org:service:ContentDirectory:1"
DIDL = "{urn:schemas-upnp-org:metadata-1-0/DIDL-Lite/}"
DC = "{http://purl.org/dc/elements/1.1/}"


def browse(base, object_id):
    body = (
        '<?xml version="1.0" encoding="utf-8"?>'
        '<s:Envelope xmlns:s="http://schemas.xmlsoap.org/soap/envelope/" '
        's:encodingStyle="http://schemas.xmlsoap.org/soap/encoding/"><s:Body>'
        f'<u:Browse xmlns:u="{CDS}"><ObjectID>{object_id}</ObjectID>'
        "<BrowseFlag>BrowseDirectChildren</BrowseFlag><Filter>*</Filter>"
        "<StartingIndex>0</StartingIndex><RequestedCount>0</RequestedCount>"
        "<SortCriteria></SortCriteria></u:Browse></s:Body></s:Envelope>"
    ).encode()
    request = urllib.request.Request(
        base + "ContentDirectory/Control",
        data=body,
        headers={"Content-Type": 'text/xml; charset="utf-8"', "SOAPACTION": f'"{CDS}#Browse"'},
    )
    with urllib.request.urlopen(request, timeout=5) as answer:
        envelope = ET.fromstring(answer.read())
    result = envelope.find(".//Result").text
    return ET.fromstring(result)


def show(didl):
    for node in didl:
        kind = "folder" if node.tag == DIDL + "container" else "item"
        title = node.find(DC + "title").text
        res = node.find(DIDL + "res")
        extra = ""
        if res is not None:
            facts = [res.get("protocolInfo").split(":")[2], res.get("size") + " bytes"]
            facts += [res.get(name) for name in ("duration", "resolution") if res.get(name)]
            extra = "  " + ", ".join(facts)
        print(f"  {kind:6} {title:12}{extra}")


def main():
    base = sys.argv[1] if len(sys.argv) > 1 else "http://127.0.0.1:9000/"
    root = browse(base, "0")
    print(f"---- Browse of the root ({base}ContentDirectory/Control):")
    show(root)
    items = [n for n in root if n.tag == DIDL + "item"]
    folders = [n for n in root if n.tag == DIDL + "container"]
    if folders:
        inner = browse(base, folders[0].get("id"))
        print(f"---- Browse of {folders[0].find(DC + 'title').text}:")
        show(inner)
        items += [n for n in inner if n.tag == DIDL + "item"]
    if not items:
        print("(no media items to fetch)")
        return
    url = items[0].find(DIDL + "res").text
    request = urllib.request.Request(
        url, headers={"Range": "bytes=0-15", "getContentFeatures.dlna.org": "1"}
    )
    with urllib.request.urlopen(request, timeout=5) as answer:
        print(f"---- GET {url}  (Range: bytes=0-15)")
        print(f"  {answer.status} {answer.reason}")
        for name in ("Content-Type", "Content-Range", "contentFeatures.dlna.org"):
            print(f"  {name}: {answer.headers.get(name)}")
        print(f"  bytes: {answer.read().hex(' ')}")


if __name__ == "__main__":
    main()
