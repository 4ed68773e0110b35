"""The sections of documents that scripts renew with what they have measured.

A section is between `<!-- NAME: made by scripts/SCRIPT -->` and `<!-- end of NAME -->`; the
text around it is written by hand.

Usage: documents.py check DOCUMENT
       documents.py renew DOCUMENT NAME     with the text on standard input
"""
import os
import pathlib
import re
import sys

DOCS = pathlib.Path(__file__).resolve().parents[2] / "docs"
LOAD_LIMIT = 1.0


def add_option(parser):
    parser.add_argument("--print", action="store_true", help="print only, renew no document")


def refuse_under_load(document):
    """Ends the program when other work would spoil the figures that the document is to get."""
    load = os.getloadavg()[0]
    if load > LOAD_LIMIT:
        raise SystemExit(
            f"The load is {load:.2f}: docs/{document} is renewed at {LOAD_LIMIT:.1f} or less. Wait "
            "until nothing else has run for some minutes (a build counts, too), or give --print to "
            "measure without renewing it.")


def replace_section(document, name, text):
    """All or nothing: the file is replaced as a whole."""
    path = DOCS / document
    section = rf"(<!-- {name}: made by scripts/[\w-]+ -->\n).*?(<!-- end of {name} -->\n)"
    new, count = re.subn(section, lambda marks: f"{marks[1]}\n{text.strip()}\n\n{marks[2]}",
                         path.read_text(encoding="utf-8"), flags=re.DOTALL)
    if count != 1:
        raise SystemExit(f"docs/{document} has {count} sections {name!r}, wanted: one")
    fresh = path.with_suffix(".new")
    fresh.write_text(new, encoding="utf-8")
    fresh.replace(path)


def main(arguments):
    match arguments:
        case ["check", document]:
            refuse_under_load(document)
        case ["renew", document, name]:
            replace_section(document, name, sys.stdin.read())
        case _:
            raise SystemExit(__doc__)


if __name__ == "__main__":
    main(sys.argv[1:])
