"""What the site, the link checker and the tests of the code blocks know of a page."""

import os
import re
from dataclasses import dataclass, field
from pathlib import Path

ROOT = Path(__file__).resolve().parents[2]

FENCE = re.compile(r"^(\s*)```(.*)$")
HEADING = re.compile(r"^(#{1,6})\s+(.*?)\s*$")
COMMENT = re.compile(r"^\s*<!--\s*(.*?)\s*-->\s*$")
LINK = re.compile(r"(!?)\[((?:[^\[\]]|\[[^\[\]]*\])*)\]\(([^()\s]+)\)")


@dataclass
class Block:
    """A fenced block, with the comments that stand directly before it."""

    page: Path
    line: int  # of its first line of text
    tag: str
    text: str
    directives: dict = field(default_factory=dict)
    follows: bool = False  # nothing but blank lines between it and the block before
    introduction: str = ""  # the text between it and the block before

    def place(self):
        return f"{relative(self.page)}:{self.line}"


def relative(path):
    return os.path.relpath(path, ROOT)


def pages(root=ROOT):
    """Every page of the repository, the built and the installed ones left out."""
    found = []
    for folder, folders, files in os.walk(root):
        folders[:] = sorted(name for name in folders if name not in ("build", ".git"))
        found += [Path(folder) / name for name in sorted(files) if name.endswith(".md")]
    return found


def site_pages():
    """Those that the site has: not the notes beside tests' data."""
    return {page for page in pages() if ROOT / "tests" not in page.parents}


def label(page, anchor=""):
    """What Doxygen calls a page or a heading of it, and the page's file."""
    if page == ROOT / "docs" / "README.md" and not anchor:
        return "mainpage"
    name = re.sub(r"\W+", "-", relative(page)[: -len(".md")]).strip("-").lower()
    return f"page-{name}" + (f"--{anchor}" if anchor else "")


def directives_of(comment):
    """`in: checker, run` as {"in": "checker", "run": ""}."""
    directives = {}
    for part in comment.split(","):
        name, _, value = part.partition(":")
        directives[name.strip()] = value.strip()
    return directives


def blocks(page, text=None):
    found = []
    lines = (page.read_text() if text is None else text).split("\n")
    directives, since, index = {}, [], 0
    while index < len(lines):
        opening = FENCE.match(lines[index])
        comment = COMMENT.match(lines[index])
        if opening:
            indent, tag = len(opening[1]), opening[2].strip()
            begin = index + 1
            index = begin
            while index < len(lines) and lines[index].strip() != "```":
                index += 1
            if index == len(lines):
                raise SystemExit(f"{relative(page)}:{begin}: the block has no end")
            body = "".join(line[indent:] + "\n" for line in lines[begin:index])
            between = "\n".join(since).strip()
            found.append(Block(page, begin + 1, tag, body, directives, bool(found) and not between, between))
            directives, since = {}, []
        elif comment:
            directives.update(directives_of(comment[1]))
        elif lines[index].strip():
            directives = {}
            since.append(lines[index])
        index += 1
    return found


def prose(text):
    """The lines of a page with their numbers, those of fenced blocks and comments left out."""
    fenced = False
    for number, line in enumerate(text.split("\n"), 1):
        if FENCE.match(line):
            fenced = not fenced
        elif not fenced and not COMMENT.match(line):
            yield number, line


def slug(heading):
    """The anchor that repository browsers give to a heading."""
    plain = re.sub(r"\[([^\]]*)\]\([^)]*\)", r"\1", heading).replace("`", "").strip().lower()
    return re.sub(r"[^\w\- ]", "", plain).replace(" ", "-")


def headings(text):
    """(line, level, title, anchor) of each heading; the second one of a name has the anchor `name-1`."""
    seen = {}
    for number, line in prose(text):
        match = HEADING.match(line)
        if match:
            anchor = slug(match[2])
            count = seen.get(anchor, 0)
            seen[anchor] = count + 1
            yield number, len(match[1]), match[2], anchor if count == 0 else f"{anchor}-{count}"


def anchors(text):
    return {anchor for _, _, _, anchor in headings(text)}


def without_code(line):
    """The line with its code spans blanked out, so that what looks like a link in them is none."""
    return re.sub(r"(`+)(?:(?!\1).)*\1", lambda span: " " * len(span[0]), line)


def links(text):
    """(line, target) of each link."""
    for number, line in prose(text):
        bare = without_code(line)
        for match in LINK.finditer(line):
            if bare[match.end() - 1] == ")":
                yield number, match[3]


def target_of(page, link):
    """The file that a relative link leads to, and the anchor in it. A folder's page is its README.md."""
    path, _, anchor = link.partition("#")
    target = (page.parent / path).resolve() if path else page
    if target.is_dir() and (target / "README.md").exists():
        target = target / "README.md"
    return target, anchor


def is_external(link):
    return re.match(r"[a-z]+:", link) is not None
