#!/usr/bin/env python3
"""blocks.py PAGE FOLDER: writes each block of a page to a file of its own, FOLDER/cpp-1.cpp and so on, and prints
their names. What is there already and the same stays untouched, so that nothing is compiled anew."""
import pathlib
import re
import sys

page, folder = map(pathlib.Path, sys.argv[1:])
folder.mkdir(parents=True, exist_ok=True)
count = {}
names = []
for language, text in re.findall(r"```(\w+)\n(.*?)```", page.read_text(encoding="utf-8"), re.S):
    count[language] = count.get(language, 0) + 1
    file = folder / f"{language}-{count[language]}.{language}"
    if not file.exists() or file.read_text(encoding="utf-8") != text:
        file.write_text(text, encoding="utf-8")
    names.append(file.as_posix())
print(";".join(names), end="")
