#!/usr/bin/python3
"""Looks for memory that is managed by hand: only src/handles and src/malloc may allocate and free.

usage: check-ownership.py [ROOT]

Prints FILE:LINE: NAME for each `new`, `delete`, `malloc`, `calloc`, `realloc`, `free` and `*_free` in
the code of src, platform and tools, and exits 1 when there is one. Comments, texts, includes and
deleted functions (`= delete`) do not count, and neither do src/handles and src/malloc. What else may
stand is in `allowed` with its reason; a row that is used no more is reported too.
"""
import collections
import pathlib
import re
import sys

folders = ("src", "platform", "tools")
allocators = ("src/handles/", "src/malloc/")

# (file without its ending, name): why it may stand there.
allowed = {
    ("src/http/http_client", "http_client_connection_free"): "public: ends a connection",
    ("src/http/http_client", "http_client_context_free"): "takes a request out of the list of them",
    ("src/ios_validation/ios_app_validate", "ios_app_validator_free"): "public, held by a handle",
}

names = re.compile(r"\b(?:new|delete|malloc|calloc|realloc|free|\w+_free)\b")
# What is not code, in the order in which a compiler would meet it.
not_code = re.compile(
    r"""//[^\n]*|/\*.*?\*/
        |R"(?P<mark>[^\s()\\]{0,16})\(.*?\)(?P=mark)"
        |"(?:[^"\\\n]|\\.)*"
        |(?<!\w)'(?:[^'\\\n]|\\.)+'
        |^[ \t]*\#[ \t]*include[^\n]*
        |=\s*delete\b""",
    re.DOTALL | re.MULTILINE | re.VERBOSE,
)


def code_of(text: str) -> str:
    """The text with all that is not code blanked; every line stays where it was."""
    return not_code.sub(lambda match: re.sub(r"[^\n]", " ", match.group()), text)


def find_names(text: str) -> list[tuple[int, str]]:
    """Line and name of each place where memory is managed by hand."""
    lines = enumerate(code_of(text).splitlines(), 1)
    return [(number, name) for number, line in lines for name in names.findall(line)]


def check(root: pathlib.Path) -> list[str]:
    """A line for each complaint."""
    complaints = []
    used: collections.Counter[tuple[str, str]] = collections.Counter()
    files = [path for folder in folders for path in sorted((root / folder).rglob("*"))]
    for path in files:
        place = path.relative_to(root).as_posix()
        if path.suffix not in (".c", ".cpp", ".h") or place.startswith(allocators):
            continue
        for number, name in find_names(path.read_text(encoding="utf-8")):
            key = (place.removesuffix(path.suffix), name)
            used[key] += 1
            if key not in allowed:
                complaints.append(f"{place}:{number}: {name} stands outside src/handles/")
    complaints += [f"{place}: {name} is allowed but not used" for place, name in allowed
                   if not used[place, name]]
    return complaints


def main() -> int:
    root = pathlib.Path(sys.argv[1]) if len(sys.argv) > 1 else pathlib.Path(__file__).parents[1]
    complaints = check(root)
    print("\n".join(complaints), end="\n" if complaints else "")
    return 1 if complaints else 0


if __name__ == "__main__":
    sys.exit(main())
