#!/usr/bin/env python3
"""Fails when a source of a layer includes a header of a layer that it doesn't build on.

Arguments: the project's root, and a file whose first line is "layer NAME" and whose further lines are "LAYER FILE" for
each file of that layer and of the layers below it.
"""
import os
import re
import sys

INCLUDE = re.compile(r'^\s*#\s*include\s*"([^"]+)"')


def main(root, list_path):
    with open(list_path, encoding="utf-8") as handle:
        lines = handle.read().splitlines()
    name = lines[0].split(" ", 1)[1]
    pairs = [line.split(" ", 1) for line in lines[1:]]
    allowed = {os.path.realpath(path) for _, path in pairs}
    own = [path for layer, path in pairs if layer == name and path.startswith(root)]
    faults = 0
    for path in own:
        with open(path, encoding="utf-8") as handle:
            for number, line in enumerate(handle, 1):
                match = INCLUDE.match(line)
                if not match:
                    continue
                header = match.group(1)
                if header.startswith("Vidora/"):
                    continue  # exported headers belong to every layer
                places = [os.path.join(root, folder, header) for folder in ("Src", "base")]
                places.append(os.path.join(os.path.dirname(path), header))
                found = [os.path.realpath(place) for place in places if os.path.isfile(place)]
                if found and not any(place in allowed for place in found):
                    print(f"{path}:{number}: layer {name} may not include {header}", file=sys.stderr)
                    faults += 1
    return 1 if faults else 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1], sys.argv[2]))
