#!/usr/bin/env python3
"""Holds a file of the Trace Event form to its rules, and prints what it has:
   slices B, arrows A (between processes P), counters C, threads NAME,NAME,...
"""

import json
import sys


def check(events):
    names, stacks, last, arrows, counters = {}, {}, None, {}, 0
    slices = 0
    for event in events:
        phase, pid, tid = event["ph"], event["pid"], event.get("tid")
        assert isinstance(pid, int) and pid > 0
        if phase == "M":
            assert event["name"] in ("process_name", "thread_name") and event["args"]["name"]
            names[(event["name"], pid, tid)] = event["args"]["name"]
            continue
        time = event["ts"]
        assert time >= 0 and (last is None or time >= last), f"{time} after {last}"
        last = time
        stack = stacks.setdefault((pid, tid), [])
        if phase == "B":
            assert event["name"] and ("thread_name", pid, tid) in names
            stack.append(event)
            slices += 1
        elif phase == "E":
            assert stack, f"an end without a begin at {time}"
            assert time >= stack.pop()["ts"]
        elif phase in ("s", "f"):
            assert stack, f"an arrow outside of a slice at {time}"
            assert stack[-1]["ts"] == time
            assert phase not in arrows.setdefault(event["id"], {})
            assert phase == "s" or event["bp"] == "e"
            arrows[event["id"]][phase] = event
        elif phase == "C":
            assert all(isinstance(value, int) and value >= 0 for value in event["args"].values())
            counters += 1
        else:
            raise AssertionError(f"phase {phase}")
    assert not any(stacks.values()), "a slice without an end"
    for ends in arrows.values():
        assert set(ends) == {"s", "f"}, "an arrow with one end"
        assert ends["s"]["ts"] <= ends["f"]["ts"]
        assert ends["s"]["name"] == ends["f"]["name"] and ends["s"]["cat"] == ends["f"]["cat"]
    across = sum(ends["s"]["pid"] != ends["f"]["pid"] for ends in arrows.values())
    threads = sorted({name for (kind, _, _), name in names.items() if kind == "thread_name"})
    return (f"slices {slices}, arrows {len(arrows)} (between processes {across}), "
            f"counters {counters}, threads {','.join(threads)}")


if __name__ == "__main__":
    with open(sys.argv[1], encoding="utf-8") as file:
        print(check(json.load(file)["traceEvents"]))
