#!/usr/bin/env python3
"""Prints a day's failed operations, page by page, with the standard library alone.

    pages.py ADDRESS TOKEN [CONDITION]

ADDRESS is one of the agent's, for example http://127.0.0.1:7481.
"""
import http.client
import json
import sys
import urllib.parse


def pages(address, token, view, **question):
    """Each page of an answer, as the agent tells it."""
    place = urllib.parse.urlsplit(address)
    connect = http.client.HTTPSConnection if place.scheme == "https" else http.client.HTTPConnection
    connection = connect(place.hostname, place.port, timeout=60)
    try:
        while True:
            connection.request("GET", f"/v1/views/{view}/rows?" + urllib.parse.urlencode(question),
                               headers={"Authorization": "Bearer " + token})
            answer = connection.getresponse()
            document = json.load(answer)
            if answer.status != 200:
                raise RuntimeError(f"{document['code']}: {document['detail']}")
            yield document
            question["after"] = document["page"]["next"]
            if question["after"] is None:
                return
    finally:
        connection.close()


def main():
    address, token = sys.argv[1:3]
    condition = sys.argv[3] if len(sys.argv) > 3 else "status <> 0 and time > now() - 1d"
    rows = 0
    for page in pages(address, token, "vOpLog", fields="time,op,package,status", where=condition, sort="-time", limit=100):
        for row in page["rows"]:
            print("\t".join("" if value is None else str(value) for value in row))
        rows += page["page"]["returned"]
    print(f"{rows} rows", file=sys.stderr)


main()
