"""The C++ files of the repository and what both checks do with them."""

import pathlib
import re
import subprocess

ROOT = pathlib.Path(__file__).resolve().parents[2]
SUFFIXES = (".cpp", ".h")


def tracked():
    """Paths of all tracked C++ files, relative to the root."""
    listed = subprocess.run(["git", "ls-files", "-z"], cwd=ROOT, check=True, capture_output=True)
    names = listed.stdout.decode().split("\0")
    return [name for name in names if name.endswith(SUFFIXES) and (ROOT / name).is_file()]


def read(name):
    return (ROOT / name).read_text(encoding="utf-8")


_TOKENS = re.compile(
    r'//[^\n]*|/\*.*?\*/|R"(?P<tag>[^(\s]*)\(.*?\)(?P=tag)"'
    r'|"(?:\\.|[^"\\\n])*"|(?<![0-9a-fA-F])\'(?:\\.|[^\'\\\n])+\'',
    re.DOTALL)


def without_comments_and_literals(text):
    """The text with comments and literals blanked out; lines and columns stay."""
    return _TOKENS.sub(lambda found: re.sub(r"[^\n]", " ", found.group()), text)
