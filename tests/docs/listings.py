#!/usr/bin/env python3
"""Writes the C++ listings of documents to a folder, each under the name in its first line, `// name: ...`, which it
has to have.
Prints the names. Arguments: folder, documents."""

import os
import re
import sys


def main():
    folder, *documents = sys.argv[1:]
    listings = []
    for document in documents:
        with open(document, encoding="utf-8") as file:
            text = file.read()
        named = re.findall(r"^```cpp\n(// (\w+): .*?)^```", text, flags=re.M | re.S)
        if len(named) != len(re.findall(r"^ *```(?:cpp|c\+\+)", text, flags=re.M)):
            sys.exit(f"{document}: a listing does not begin with // NAME: and what it shows")
        listings += named
    os.makedirs(folder, exist_ok=True)
    for text, name in listings:
        path = os.path.join(folder, name + ".cpp")
        # An unchanged one is not built again.
        if os.path.exists(path) and open(path, encoding="utf-8").read() == text:
            continue
        with open(path, "w", encoding="utf-8") as file:
            file.write(text)
    print(";".join(name for _, name in listings), end="")


main()
