#!/usr/bin/env python3
"""readme.py TOP: the README shows the example that is compiled, to the letter."""
import pathlib
import re
import sys

top = pathlib.Path(sys.argv[1])
shown = re.search(r"```cpp\n(.*?)```", (top / "README.md").read_text(), re.S)
compiled = (top / "examples/first-meeting/main.cpp").read_text()
body = compiled.split("\n", 1)[1]  # its first line tells how it is called
if not shown or shown[1] != body:
    sys.exit("README.md shows another program than examples/first-meeting/main.cpp")
