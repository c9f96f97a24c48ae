"""Reads Prometheus's text format 0.0.4 strictly: prints each sample as "series value", or says which line is wrong."""
import re
import sys

NAME = r"[a-zA-Z_:][a-zA-Z0-9_:]*"
LABEL = r'[a-zA-Z_][a-zA-Z0-9_]*="(?:[^"\\\n]|\\["\\n])*"'
SAMPLE = re.compile(rf"({NAME})(?:\{{({LABEL}(?:,{LABEL})*)\}})? (\S+)")


def wrong(number, line, why):
    sys.exit(f"line {number}: {why}: {line}")


def series_of(name, kind):
    if kind == "histogram":
        return {name + "_bucket", name + "_sum", name + "_count"}
    return {name}


def check_histogram(name, samples):
    """Buckets grow up to +Inf, which is the count."""
    rows = {}
    for (series, labels), value in samples.items():
        others = tuple(label for label in labels if not label.startswith("le="))
        row = rows.setdefault(others, {"buckets": []})
        if series.endswith("_bucket"):
            bound = next(label for label in labels if label.startswith("le="))[4:-1]
            row["buckets"].append((float(bound), value))
        else:
            row[series.removeprefix(name)] = value
    for others, row in rows.items():
        bounds = [bound for bound, _ in row["buckets"]]
        counts = [count for _, count in row["buckets"]]
        if bounds != sorted(set(bounds)) or bounds[-1] != float("inf"):
            sys.exit(f"{name}{others}: buckets {bounds}")
        if counts != sorted(counts) or counts[-1] != row["_count"] or "_sum" not in row:
            sys.exit(f"{name}{others}: counts {counts} of {row.get('_count')}")


text = sys.stdin.buffer.read().decode("utf-8")
if not text.endswith("\n"):
    sys.exit("the last line has no end")
families = {}
helped = None
current = None
for number, line in enumerate(text.split("\n")[:-1], 1):
    if match := re.fullmatch(rf"# HELP ({NAME}) (.+)", line):
        helped = match[1]
        if helped in families:
            wrong(number, line, "the family comes again")
        families[helped] = None
        continue
    if match := re.fullmatch(rf"# TYPE ({NAME}) (counter|gauge|histogram)", line):
        current = match[1]
        if current != helped or families[current] is not None:
            wrong(number, line, "the type is not behind its help")
        families[current] = (match[2], {})
        if (match[2] == "counter") != current.endswith("_total"):
            wrong(number, line, "counters, and they alone, are called totals")
        continue
    match = SAMPLE.fullmatch(line)
    if not match:
        wrong(number, line, "no sample")
    kind, samples = families[current] if current else (None, {})
    if match[1] not in series_of(current, kind):
        wrong(number, line, "not of the family before it")
    labels = tuple(re.findall(LABEL, match[2] or ""))
    if (match[1], labels) in samples:
        wrong(number, line, "the series comes again")
    if len({label.split("=")[0] for label in labels}) != len(labels):
        wrong(number, line, "a label comes again")
    value = float(match[3])
    if kind == "counter" and value < 0:
        wrong(number, line, "a counter below 0")
    samples[(match[1], labels)] = value
    print(line)
for name, family in families.items():
    if family is None:
        sys.exit(f"{name}: no type")
    if family[0] == "histogram":
        check_histogram(name, family[1])
