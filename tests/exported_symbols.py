#!/usr/bin/env python3
"""Fails when the shared library exports a name that no exported header marks with VIDORA_API.

Arguments: the shared library, and the folder of the exported headers. A private record inside an exported class counts
as a name of its own: its operations are no business of a host.
"""
import pathlib
import re
import subprocess
import sys

CLASS = re.compile(r"\b(?:class|struct)\s+VIDORA_API\s+(\w+)")
FUNCTION_OR_DATA = re.compile(r"\bVIDORA_API\s+(?!class|struct)[^;{(]*?(\w+)\s*[(\[;]")
NAMESPACES = {"Kavio", "Vidora", "Tramel", "Ostra", "Flumen", "Memory", "Utils"}
PREFIX = re.compile(r"^(?:vtable for|VTT for|typeinfo name for|typeinfo for|guard variable for|"
                    r"construction vtable for|(?:non-)?virtual thunk to|covariant return thunk to) ")


def exported_by_headers(folder):
    classes, others = set(), set()
    for header in pathlib.Path(folder).rglob("*.h"):
        text = header.read_text(encoding="utf-8")
        classes.update(CLASS.findall(text))
        others.update(FUNCTION_OR_DATA.findall(text))
    return classes, others


def dynamic_symbols(library):
    out = subprocess.run(["nm", "-DC", "--defined-only", library], check=True, capture_output=True, text=True).stdout
    for line in out.splitlines():
        yield line.split(" ", 2)[2]


def is_allowed(symbol, classes, others):
    name = PREFIX.sub("", symbol)
    parts = name.split("(")[0].split("[")[0].split("::")
    while parts and parts[0] in NAMESPACES:
        parts.pop(0)
    if not parts or not name.startswith("Kavio::"):
        return False
    if PREFIX.match(symbol) and "thunk" not in symbol:
        return len(parts) == 1 and parts[0] in classes
    return parts[0] in (classes if len(parts) == 2 else others) and len(parts) <= 2


def main():
    classes, others = exported_by_headers(sys.argv[2])
    symbols = list(dynamic_symbols(sys.argv[1]))
    wrong = [symbol for symbol in symbols if not is_allowed(symbol, classes, others)]
    for symbol in wrong:
        print("exported by no header:", symbol)
    print(f"{len(symbols)} symbols, {len(classes)} classes")
    sys.exit(1 if wrong or not symbols else 0)


if __name__ == "__main__":
    main()
