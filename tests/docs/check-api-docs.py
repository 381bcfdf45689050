#!/usr/bin/python3
"""Checks the API reference's XML output: every operation (function,
constructor, destructor, signal, slot) of the public headers has a "Threads:"
and a "Logs:" paragraph, and says what it returns: a \\return section, or
"Returns nothing" where it returns void. Names every member that lacks one.

    check-api-docs.py XML_DIR
"""
import os
import sys
import xml.etree.ElementTree as ET

OPERATION_KINDS = {"function", "signal", "slot"}


def text_of(element):
    return "".join(element.itertext()) if element is not None else ""


def paragraph_titles(description):
    return {text_of(sect.find("title")).strip()
            for sect in description.iter("simplesect") if sect.get("kind") == "par"}


def has_return_section(description):
    return any(sect.get("kind") == "return" for sect in description.iter("simplesect"))


def problems_of(compound_name, member):
    name = member.findtext("name", "")
    short_class = compound_name.split("::")[-1]
    description = member.find("detaileddescription")
    titles = paragraph_titles(description)
    problems = []
    for title in ("Threads:", "Logs:"):
        if title not in titles:
            problems.append("no '%s' paragraph" % title)
    is_structor = name in (short_class, "~" + short_class)
    return_type = text_of(member.find("type")).strip()
    if not is_structor:
        if return_type == "void":
            if "Returns nothing" not in text_of(description):
                problems.append("returns void but does not say 'Returns nothing'")
        elif not has_return_section(description):
            problems.append("no \\return section")
    return problems


def main():
    if len(sys.argv) != 2:
        print("usage: check-api-docs.py XML_DIR", file=sys.stderr)
        return 2
    xml_dir = sys.argv[1]
    index = ET.parse(os.path.join(xml_dir, "index.xml")).getroot()
    checked = 0
    failures = []
    seen = set()
    for compound in index.findall("compound"):
        if compound.get("kind") not in ("class", "struct"):
            continue
        root = ET.parse(os.path.join(xml_dir, compound.get("refid") + ".xml")).getroot()
        for definition in root.findall("compounddef"):
            compound_name = definition.findtext("compoundname", "")
            for member in definition.iter("memberdef"):
                # Doxygen's XML lists private members too; they are not part of the reference.
                if member.get("kind") not in OPERATION_KINDS or member.get("prot") == "private":
                    continue
                if member.get("id") in seen:
                    continue
                seen.add(member.get("id"))
                checked += 1
                for problem in problems_of(compound_name, member):
                    failures.append("%s::%s%s: %s" % (compound_name, member.findtext("name", ""),
                                                       member.findtext("argsstring", ""), problem))
    if checked == 0:
        print("API reference: no operation found in %s" % xml_dir, file=sys.stderr)
        return 1
    for failure in failures:
        print(failure, file=sys.stderr)
    if failures:
        print("API reference: %d of %d operations lack a required paragraph" % (len(failures), checked),
              file=sys.stderr)
        return 1
    print("API reference: %d operations, each with its Threads, Logs and return paragraphs" % checked)
    return 0


if __name__ == "__main__":
    sys.exit(main())
