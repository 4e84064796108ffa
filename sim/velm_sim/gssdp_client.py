"""A program: looks for a device type with libgssdp and prints what it finds as JSON.

    gssdp_client.py INTERFACE TARGET SECONDS

Ends with the first device, or with an empty list when the seconds are over.
"""

from __future__ import annotations

import json
import sys

import gi

gi.require_version("GSSDP", "1.6")
from gi.repository import GLib, GSSDP  # noqa: E402  (the version must be chosen first)


def main() -> None:
    interface, target, seconds = sys.argv[1:]
    found: list[dict[str, object]] = []
    loop = GLib.MainLoop()

    def available(_: object, usn: str, locations: list[str]) -> None:
        found.append({"usn": usn, "locations": list(locations)})
        loop.quit()

    client = GSSDP.Client.new_full(interface, None, 0, GSSDP.UDAVersion.VERSION_1_0)
    browser = GSSDP.ResourceBrowser.new(client, target)
    browser.connect("resource-available", available)
    browser.set_active(True)
    GLib.timeout_add(int(float(seconds) * 1000), loop.quit)
    loop.run()
    print(json.dumps(found))


if __name__ == "__main__":
    main()
