#!/usr/bin/python3
"""One client that lists N distinct documents, each with a 64 KiB member, and
drops every list it gets: what the engine keeps of dropped lists is all that
can grow. Usage: pool_memory_client.py N"""
import sys

import gi

gi.require_version("Gio", "2.0")
from gi.repository import Gio, GLib  # noqa: E402

NAME, PATH, IFACE = "com.orvia.mox.engine", "/com/orvia/mox/engine", "com.orvia.mox.engine"
bus = Gio.bus_get_sync(Gio.BusType.SYSTEM, None)
loop = GLib.MainLoop()
answers = []


def on_signal(_conn, _sender, _path, _iface, _name, params):
    answers.append(params.unpack()[0])
    loop.quit()


bus.signal_subscribe(NAME, IFACE, "mox_request_normal_complete", PATH, None, 0, on_signal)


def call(method, sig, *args):
    return bus.call_sync(NAME, PATH, IFACE, method, GLib.Variant(sig, args), None, 0, 60000, None)


handle = call("connect", "(s)", "libmox_test_source.so").unpack()[0]
pad = "x" * 65536
lists = 0
for i in range(int(sys.argv[1])):
    doc = '{"mox_command":"mox_requestlist","mox_source":["mox_test_source"],"n":%d,"pad":"%s"}' % (i, pad)
    answers.clear()
    call("get_partial_list", "(uuus)", handle, 0, 0, doc)
    GLib.timeout_add(30000, loop.quit)
    loop.run()
    if not answers or '"mox_result_list_block_name":""' in answers[0]:
        continue
    name = answers[0].split('"mox_result_list_block_name":"')[1].split('"')[0]
    answers.clear()
    call("drop_partial_list", "(us)", handle, name)
    loop.run()
    lists += 1
print("lists built and dropped: %d" % lists)
