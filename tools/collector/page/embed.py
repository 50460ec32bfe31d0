#!/usr/bin/env python3
"""Turns the files of the web page into a C++ source.

Usage: embed.py OUT.cpp URL=FILE...

Each FILE is served under its URL. A file with an ending that has no content type here is an error, and so is a
module that is no JavaScript: one of them would leave the page empty.
"""
import os
import subprocess
import sys

TYPES = {
    ".html": "text/html; charset=utf-8",
    ".css": "text/css; charset=utf-8",
    ".js": "text/javascript; charset=utf-8",
    ".svg": "image/svg+xml",
}
PLAIN = {chr(c) for c in range(0x20, 0x7F)} - set('"\\?')


def literal(data):
    """The bytes as C++ string literals, a line of the file each; octal escapes end after three digits."""
    lines = data.split(b"\n")
    ended = [line + b"\n" for line in lines[:-1]] + [lines[-1]]
    pieces = [line[i:i + 4000] for line in ended for i in range(0, len(line), 4000)]
    text = ("".join(chr(b) if chr(b) in PLAIN else "\\n" if b == 10 else f"\\{b:03o}" for b in piece) for piece in pieces)
    return "\n".join(f'    "{line}"' for line in text) or '    ""'


def main():
    out, pairs = sys.argv[1], sorted(arg.split("=", 1) for arg in sys.argv[2:])
    bodies, rows = [], []
    for number, (url, path) in enumerate(pairs):
        kind = TYPES.get(os.path.splitext(path)[1])
        if kind is None:
            sys.exit(f"embed.py: no content type for {path}")
        if path.endswith(".js") and subprocess.run(["node", "--check", path], check=False).returncode:
            sys.exit(f"embed.py: {path} is no JavaScript")
        with open(path, "rb") as file:
            data = file.read()
        bodies.append(f"constexpr char kBody{number}[] =\n{literal(data)};\n")
        rows.append(f'    {{"{url}", "{kind}", {{kBody{number}, {len(data)}}}}},\n')
    with open(out, "w", encoding="ascii") as file:
        file.write('#include "tools/collector/page_files.h"\n\nnamespace vx::collector {\n\nnamespace {\n\n')
        file.writelines(bodies)
        file.write("\nconstexpr PageFile kFiles[] = {\n")
        file.writelines(rows)
        file.write("};\n\n}  // namespace\n\nstd::span<const PageFile> pageFiles() {\n    return kFiles;\n}\n\n")
        file.write("}  // namespace vx::collector\n")


main()
