#!/usr/bin/env python3
"""Prints operations as they are stored, with the standard library alone.

    follow.py ADDRESS TOKEN [AFTER [COUNT]]

ADDRESS is one of the agent's, for example http://127.0.0.1:7481. AFTER is "beginning" or the id of an event; COUNT ends it
after so many operations. Where the connection breaks it goes on behind the last event, and misses nothing.
"""
import http.client
import json
import sys
import time
import urllib.parse


class Refused(Exception):
    """What asking again does not help against."""


def events(answer):
    """(name, id, data) of each event, until the connection ends."""
    event = {}
    for line in answer:
        name, _, value = line.decode().rstrip("\r\n").partition(": ")
        if name:
            event[name] = value
        elif event:
            yield event.get("event"), event.get("id"), json.loads(event.get("data", "null"))
            event = {}


def follow(address, token, after, **question):
    """The records that come, for as long as somebody takes them."""
    place = urllib.parse.urlsplit(address)
    connect = http.client.HTTPSConnection if place.scheme == "https" else http.client.HTTPConnection
    while True:
        # Longer than the agent's heartbeats are apart.
        connection = connect(place.hostname, place.port, timeout=60)
        wait = 1
        try:
            headers = {"Authorization": "Bearer " + token}
            if after:
                question["after"] = after
            connection.request("GET", "/v1/follow?" + urllib.parse.urlencode(question), headers=headers)
            answer = connection.getresponse()
            if answer.status in (429, 503):
                wait = int(answer.headers["Retry-After"])
            elif answer.status != 200:
                problem = json.load(answer)
                raise Refused(f"{problem['code']}: {problem['detail']}")
            for name, event_id, data in events(answer) if answer.status == 200 else ():
                after = event_id or after
                if name == "end" and data["code"] == "revoked":
                    raise Refused(data["detail"])
                if name in ("operations", "events", "backups", "environments"):
                    yield data
        except (OSError, http.client.HTTPException) as failure:
            print(f"asking again: {failure}", file=sys.stderr)
        finally:
            connection.close()
        time.sleep(wait)


def main():
    address, token = sys.argv[1:3]
    after = sys.argv[3] if len(sys.argv) > 3 else None
    count = int(sys.argv[4]) if len(sys.argv) > 4 else None
    for number, record in enumerate(follow(address, token, after, source="operations", fields="id,status"), 1):
        print(record["id"], record["status"], flush=True)
        if number == count:
            return


try:
    main()
except Refused as refusal:
    sys.exit(str(refusal))
