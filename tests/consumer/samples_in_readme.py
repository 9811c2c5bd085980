"""The README shows the samples in examples/ verbatim (less their first comment line)."""
import pathlib
import sys

root = pathlib.Path(__file__).resolve().parents[2]
readme = (root / "README.md").read_text()
stale = []
for name in ("hello.cpp", "hello.c"):
    lines = (root / "examples" / name).read_text().splitlines(keepends=True)
    body = "".join(lines[1:])  # the first line says what the file is
    if body not in readme:
        stale.append(name)
if stale:
    sys.exit(f"README.md does not show examples/{' and examples/'.join(stale)} as they are")
