"""What a session with a client of the protocol is made of, for tests of where it stops."""
from __future__ import absolute_import, division, print_function

import os

from .dapclient import DapClient, kSeconds


class Stop(object):
    """One stop: the event's body, and the innermost frame."""

    def __init__(self, client, body):
        self.body = body
        self.reason = str(body["reason"])
        self.thread_id = body["threadId"]
        self.ids = body.get("hitBreakpointIds")
        self.frame = client.stack(self.thread_id, levels=1)[0]
        self.name = str(self.frame["name"])
        self.line = self.frame["line"]
        self.mark = DapClient.line_name(self.frame)
        self.path = (self.frame.get("source") or {}).get("path")

    def __repr__(self):
        return "Stop({}, {}, {}, {})".format(self.reason, self.name, self.mark, self.ids)


def next_stop(client):
    """The next Stop, or None when the program ends."""
    def find():
        for event in client.events:
            if event["event"] in ("stopped", "terminated"):
                client.events.remove(event)
                return event
        return {"event": "terminated"} if client.at_end else None

    event = client._wait(find, "stop or end", kSeconds)
    return Stop(client, event["body"]) if event["event"] == "stopped" else None


def run_to_end(client, look=None, command="continue"):
    """Every Stop until the program ends.  look(stop): at each; a true result: it has resumed."""
    stops = []
    while True:
        stop = next_stop(client)
        if stop is None:
            return stops
        stops.append(stop)
        if look is None or not look(stop):
            client.request(command, {"threadId": stop.thread_id})


def value_at(client, stop, expression):
    return str(client.evaluate(expression, stop.frame["id"]))


def output_of(client, category="console"):
    """[(text, base name of the source, line)] of the output events of a category so far."""
    rows = []
    for body in client.seen_events("output"):
        if body.get("category", "console") == category:
            source = (body.get("source") or {}).get("path") or ""
            rows.append((body["output"], os.path.basename(source), body.get("line")))
    return rows
