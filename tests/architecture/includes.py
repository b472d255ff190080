#!/usr/bin/env python3
"""Checks who includes whom: includes run one way through the library.

usage: includes.py <top of the repository>
"""
import functools
import pathlib
import re
import sys

INCLUDE = re.compile(r'^\s*#\s*include\s*[<"]([^>"]+)[>"]', re.MULTILINE)

# What each folder may include of the library. The middle four are one layer.
MIDDLE = {"signalling", "media", "realtime", "monitoring"}
BELOW = {"model", "tracing", "platform"}
MAY_INCLUDE = {
    "platform": {"platform"},
    "tracing": {"tracing", "platform"},
    "model": BELOW,
    **{name: MIDDLE | BELOW for name in MIDDLE},
    "session": {"session"} | MIDDLE | BELOW,
    "inspector": {"inspector", "session", "media"} | BELOW,
}

# Whose headers may be seen where; everywhere else they may not.
ENGINES = [
    ("libwebrtc", re.compile(r"^(api|rtc_base|modules|pc|media/(base|engine)|call|p2p|"
                             r"system_wrappers|common_video|audio|video)/.*\.h$"),
     ["kestrova/platform/linux/", "tests/platform/", "bench/"]),
    ("curl", re.compile(r"^curl/"), ["kestrova/platform/linux/", "tests/platform/", "bench/"]),
    ("Beast", re.compile(r"^boost/beast(/|\.hpp)"),
     ["kestrova/platform/linux/", "kestrova/inspector/*.cpp", "tests/platform/", "bench/",
      "fuzz/"]),
    ("OpenTelemetry", re.compile(r"^opentelemetry/"),
     ["kestrova/tracing/*.cpp", "tests/unit/tracing/", "bench/"]),
    ("protobuf", re.compile(r"^google/protobuf/"),
     ["kestrova/tracing/*.cpp", "tests/unit/tracing/", "tests/fastws/", "bench/"]),
]

# The header to start with. It is read by every source of an application, so all that it leads to
# costs them time: these headers and no others, and nothing of these folders.
START = "kestrova/kestrova.h"
CHEAP = {
    "array", "chrono", "concepts", "cstddef", "cstdint", "exception", "functional",
    "initializer_list", "map", "memory", "optional", "stdexcept", "string", "string_view",
    "type_traits", "utility", "vector", "boost/json/fwd.hpp",
}
NOT_FROM_START = ("kestrova/signalling/", "kestrova/realtime/", "kestrova/inspector/")

# The public headers, all that applications and examples may use: these, and what they lead to.
PUBLIC = [
    START,
    "kestrova/inspector/Inspector.h",
    "kestrova/realtime/Base64.h",
    "kestrova/realtime/PubSub.h",
    "kestrova/realtime/RealtimeStore.h",
    "kestrova/platform/Future.h",
    "kestrova/platform/Queue.h",
    "kestrova/platform/Task.h",
    "kestrova/platform/Values.h",
]


def reach(top, starts):
    """The library's headers that `starts` lead to, and what each includes."""
    reached = {}
    waiting = list(starts)
    while waiting:
        header = waiting.pop()
        if header in reached or not (top / header).is_file():
            continue
        reached[header] = INCLUDE.findall((top / header).read_text(encoding="utf-8"))
        waiting += [name for name in reached[header] if name.startswith("kestrova/")]
    return reached


@functools.lru_cache
def public_headers(top):
    return frozenset(reach(top, PUBLIC))


def costs_of_start(top):
    for header, includes in sorted(reach(top, [START]).items()):
        for include in includes:
            if include not in CHEAP and not include.startswith("kestrova/"):
                yield f"{header}: {include}: too dear for what {START} leads to"
            elif include.startswith(NOT_FROM_START):
                yield f"{header}: {include}: is of the inside, and {START} leads to it"


LINUX_USERS = ("kestrova/platform/linux/", "apps/", "tests/platform/", "tests/integration/",
               "bench/", "fuzz/")


def library_folder(path):
    parts = pathlib.PurePosixPath(path).parts
    return parts[1] if len(parts) > 2 and parts[0] == "kestrova" else None


def allowed(path, places):
    for place in places:
        if place.endswith("/") and path.startswith(place):
            return True
        if pathlib.PurePosixPath(path).match(place):
            return True
    return False


def faults_of(path, include, top):
    beside = (top / path).parent / include
    if not include.startswith("kestrova/") and beside.is_file():
        include = beside.resolve().relative_to(top).as_posix()
    elif (engine := next((e for e in ENGINES if e[1].match(include)), None)):
        if not allowed(path, engine[2]):
            yield f"{engine[0]} headers are not for this place"
        return
    target = library_folder(include)
    if not target:
        return
    source = library_folder(path)
    linux = include.startswith("kestrova/platform/linux/")
    of_linux = path.startswith(LINUX_USERS)
    if linux and not of_linux:
        yield "headers of the Linux platform are for it and the applications only"
    if source and target not in MAY_INCLUDE.get(source, set()):
        yield f"{source} may not include {target}"
    if path.startswith(("apps/", "examples/")) and not linux and include not in public_headers(top):
        yield "applications use the public headers only"


def main():
    top = pathlib.Path(sys.argv[1]).resolve()
    found = 0
    faults = []
    for folder in ("kestrova", "apps", "examples", "tests", "bench", "fuzz"):
        for file in sorted((top / folder).rglob("*")):
            if file.suffix not in {".h", ".cpp", ".inc"}:
                continue
            path = file.relative_to(top).as_posix()
            found += 1
            text = file.read_text(encoding="utf-8")
            for match in INCLUDE.finditer(text):
                line = text.count("\n", 0, match.start(1)) + 1
                faults += [f"{path}:{line}: {match.group(1)}: {fault}"
                           for fault in faults_of(path, match.group(1), top)]
    faults += costs_of_start(top)
    for fault in faults:
        print(fault)
    print(f"{found} files, {len(faults)} faults")
    return 1 if faults or not found else 0


if __name__ == "__main__":
    sys.exit(main())
