#!/usr/bin/python3
"""Checks the links of the README and of the pages in docs/:

- every relative link names a file or folder that exists;
- a link with an #anchor on a Markdown page names a heading of that page
  (anchors as GitHub makes them from the heading's text);
- the pages in docs/ are also read by Doxygen for the API reference, which
  follows a link only to another page of docs/, and no #anchor: those pages
  link nothing else that is relative;
- every page of docs/ is linked from the README and from the API reference's
  main page (docs/mainpage.md), so that none is out of reach.

Names the file, the line, the link and what is wrong with it.

    check-doc-links.py SOURCE_DIR      check the project's README and docs/
    check-doc-links.py --self-test     check that each kind of broken link is caught
"""
import os
import re
import sys
import tempfile
import urllib.parse

MAIN_PAGE = "mainpage.md"

FENCE = re.compile(r"^ {0,3}(`{3,}|~{3,})(.*)$")
ATX_HEADING = re.compile(r"^ {0,3}(#{1,6})(?:[ \t]+(.*?))?(?:[ \t]+#+)?[ \t]*$")
SETEXT_UNDERLINE = re.compile(r"^ {0,3}(=+|-+)[ \t]*$")
CODE_SPAN = re.compile(r"(`+)(.+?)\1", re.S)
INLINE_LINK = re.compile(r"!?\[((?:[^\[\]]|\[[^\[\]]*\])*)\]\(\s*(<[^>]*>|[^\s()]*(?:\([^\s()]*\)[^\s()]*)*)"
                         r"(?:\s+(?:\"[^\"]*\"|'[^']*'|\([^)]*\)))?\s*\)")
REFERENCE_DEFINITION = re.compile(r"^ {0,3}\[[^\]]+\]:[ \t]*(<[^>]*>|\S+)", re.M)
SCHEME = re.compile(r"^[A-Za-z][A-Za-z0-9+.-]*:|^//")


def without_code(text):
    """The text with fenced code blocks and code spans blanked out (line
    breaks kept, so that offsets still give line numbers), and the headings
    found outside code, in order."""
    lines = text.split("\n")
    kept = []
    headings = []
    fence = None
    previous_is_paragraph = False
    for line in lines:
        match = FENCE.match(line)
        if fence is not None:
            if match and match.group(1)[0] == fence[0] and len(match.group(1)) >= len(fence) \
                    and not match.group(2).strip():
                fence = None
            kept.append("")
            continue
        if match and not (match.group(1)[0] == "`" and "`" in match.group(2)):
            fence = match.group(1)
            kept.append("")
            previous_is_paragraph = False
            continue
        heading = ATX_HEADING.match(line)
        if heading:
            headings.append(heading.group(2) or "")
            previous_is_paragraph = False
        elif previous_is_paragraph and SETEXT_UNDERLINE.match(line) and not line.lstrip().startswith("|"):
            headings.append(kept[-1].strip())
            previous_is_paragraph = False
        else:
            previous_is_paragraph = bool(line.strip()) and not line.lstrip().startswith(("|", "-", "*", ">"))
        kept.append(line)
    blanked = CODE_SPAN.sub(lambda m: re.sub(r"[^\n]", " ", m.group(0)), "\n".join(kept))
    return blanked, headings


def slug(heading):
    """The anchor GitHub gives a heading: its text as shown, lower case,
    without punctuation, spaces made hyphens."""
    text = re.sub(r"!?\[([^\]]*)\]\([^)]*\)", r"\1", heading)
    text = text.replace("`", "")
    text = re.sub(r"<[^>]+>", "", text)
    text = text.strip().lower()
    text = "".join(ch for ch in text if ch.isalnum() or ch in "-_ ")
    return text.replace(" ", "-")


def anchors_of(headings):
    anchors = set()
    seen = {}
    for heading in headings:
        base = slug(heading)
        count = seen.get(base, 0)
        seen[base] = count + 1
        anchors.add(base if count == 0 else "%s-%d" % (base, count))
    return anchors


def links_of(text):
    """(line number, target) of every inline link, image and reference
    definition outside code."""
    found = []
    for pattern in (INLINE_LINK, REFERENCE_DEFINITION):
        for match in pattern.finditer(text):
            target = match.group(match.lastindex)
            if target.startswith("<") and target.endswith(">"):
                target = target[1:-1]
            found.append((text.count("\n", 0, match.start()) + 1, target))
    return sorted(found)


class Pages:
    """The Markdown files read so far: their headings' anchors."""

    def __init__(self):
        self.anchors = {}

    def anchors_in(self, path):
        if path not in self.anchors:
            with open(path, encoding="utf-8") as page:
                self.anchors[path] = anchors_of(without_code(page.read())[1])
        return self.anchors[path]


def check(source_dir):
    """The problems found, one message each, and the number of links checked."""
    source_dir = os.path.realpath(source_dir)
    docs_dir = os.path.join(source_dir, "docs")
    readme = os.path.join(source_dir, "README.md")
    doc_pages = sorted(os.path.join(docs_dir, name) for name in os.listdir(docs_dir)
                       if name.endswith(".md")) if os.path.isdir(docs_dir) else []
    pages = Pages()
    problems = []
    linked_from = {}
    checked = 0

    for path in [readme] + doc_pages:
        shown = os.path.relpath(path, source_dir)
        if not os.path.isfile(path):
            problems.append("%s: missing" % shown)
            continue
        in_docs = os.path.dirname(path) == docs_dir
        with open(path, encoding="utf-8") as page:
            text, headings = without_code(page.read())
        pages.anchors[path] = anchors_of(headings)
        for line, target in links_of(text):
            if not target or SCHEME.match(target):
                continue
            checked += 1
            where = "%s:%d: link '%s'" % (shown, line, target)
            file_part, _, anchor = target.partition("#")
            file_part = urllib.parse.unquote(file_part)
            resolved = os.path.normpath(os.path.join(os.path.dirname(path), file_part)) if file_part else path
            if file_part and not os.path.exists(resolved):
                problems.append("%s: %s does not exist" % (where, os.path.relpath(resolved, source_dir)))
                continue
            if resolved != source_dir and not resolved.startswith(source_dir + os.sep):
                problems.append("%s: points outside the source tree" % where)
                continue
            if in_docs and (os.path.dirname(resolved) != docs_dir or not resolved.endswith(".md") or anchor):
                problems.append("%s: a page in docs/ is also a page of the API reference, where Doxygen "
                                "follows only a link to another page in docs/, without an #anchor; "
                                "name the section in the text instead" % where)
                continue
            linked_from.setdefault(resolved, set()).add(path)
            if not anchor:
                continue
            if not resolved.endswith(".md") or os.path.isdir(resolved):
                problems.append("%s: an #anchor only works on a Markdown page" % where)
            elif anchor not in pages.anchors_in(resolved):
                problems.append("%s: %s has no heading with the anchor '%s' (its anchors: %s)"
                                % (where, os.path.relpath(resolved, source_dir), anchor,
                                   ", ".join(sorted(pages.anchors_in(resolved))) or "none"))

    main_page = os.path.join(docs_dir, MAIN_PAGE)
    for page in doc_pages:
        if page == main_page:
            continue
        for origin in (readme, main_page):
            if origin not in linked_from.get(page, set()):
                problems.append("%s: no link to it from %s"
                                % (os.path.relpath(page, source_dir), os.path.relpath(origin, source_dir)))
    return problems, checked


def self_test():
    """Each kind of broken link, in a made-up tree, gives its message; a tree
    whose links are right gives none."""
    right = {
        "README.md": "# Title\n\n## Qt 5 and `Qt 6`!\n\n[a](docs/a.md) [b](docs/b.md#b-page) "
                     "[c](#qt-5-and-qt-6) [d](docs/a.md#second-1) [e](https://example.org/x)\n"
                     "```\n[in code](nothing.md)\n```\n`[in a span](nothing.md)`\n",
        "docs/mainpage.md": "# Main {#mainpage}\n\n[A](a.md), [B](b.md)\n",
        "docs/a.md": "# A\n\n## Second\n\n## Second\n\n[B](b.md)\n",
        "docs/b.md": "B page\n======\n",
        "tool.sh": "#!/bin/sh\n",
    }
    # What each case adds to (or takes out of) a file, and what its message says.
    cases = [
        ("a missing file", "README.md", "[x](docs/gone.md)", "docs/gone.md does not exist"),
        ("a missing anchor", "README.md", "[x](docs/a.md#nowhere)", "has no heading with the anchor 'nowhere'"),
        ("an anchor of the README", "README.md", "[x](#not-here)", "README.md has no heading with the anchor"),
        ("an anchor on a file that is not a page", "README.md", "[x](tool.sh#top)",
         "only works on a Markdown page"),
        ("a page linking outside docs/", "docs/a.md", "[x](../README.md)", "a page in docs/ is also a page"),
        ("a page linking an anchor", "docs/a.md", "[x](b.md#b-page)", "a page in docs/ is also a page"),
        ("a page out of reach", "README.md", "-[b](docs/b.md#b-page) ", "docs/b.md: no link to it from README.md"),
    ]

    def problems_in(changed=None, change=""):
        with tempfile.TemporaryDirectory(prefix="doc-links-") as root:
            os.mkdir(os.path.join(root, "docs"))
            for relative, content in right.items():
                if relative == changed:
                    content = content.replace(change[1:], "") if change.startswith("-") else content + change + "\n"
                with open(os.path.join(root, relative), "w", encoding="utf-8") as out:
                    out.write(content)
            return check(root)[0]

    failures = []
    problems = problems_in()
    if problems:
        failures.append("links that are right were refused: %s" % "; ".join(problems))
    for name, changed, change, expected in cases:
        problems = problems_in(changed, change)
        if not any(expected in problem for problem in problems):
            failures.append("%s: expected a problem saying '%s', got: %s"
                            % (name, expected, "; ".join(problems) or "none"))
    for failure in failures:
        print("doc links self-test: " + failure, file=sys.stderr)
    if not failures:
        print("doc links self-test: %d kinds of broken link caught" % len(cases))
    return 1 if failures else 0


def main():
    if len(sys.argv) != 2:
        print("usage: check-doc-links.py SOURCE_DIR | --self-test", file=sys.stderr)
        return 2
    if sys.argv[1] == "--self-test":
        return self_test()
    problems, checked = check(sys.argv[1])
    for problem in problems:
        print(problem, file=sys.stderr)
    if problems:
        print("doc links: %d problem(s)" % len(problems), file=sys.stderr)
        return 1
    print("doc links: %d relative links in the README and docs/ resolve" % checked)
    return 0


if __name__ == "__main__":
    sys.exit(main())
