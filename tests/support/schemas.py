#!/usr/bin/python3
"""What the command printed with --json, held against docs/schemas.

    schemas.py DIRECTORY

Each directory in it is a call: its words, and what it printed, out and error. Prints each line that is not as it should
be; a command without a schema has none that is.
"""
import json
import pathlib
import sys

from jsonschema import Draft202012Validator, RefResolver

FOLDER = pathlib.Path(__file__).resolve().parents[2] / "docs/schemas"


def validator(name):
    file = FOLDER / f"{name}.json"
    if not file.exists():
        return None
    schema = json.loads(file.read_text(encoding="utf-8"))
    Draft202012Validator.check_schema(schema)
    return Draft202012Validator(schema, resolver=RefResolver(file.as_uri(), schema))


def wrong(name, line):
    schema = validator(name)
    if not schema:
        return f"there is no docs/schemas/{name}.json"
    try:
        return "; ".join(error.message for error in schema.iter_errors(json.loads(line)))
    except ValueError as error:
        return error


def command(words):
    while words[0].startswith("-"):
        words = words[2 if words[0] in ("--store", "--wait") else 1:]
    return words[0]


for call in pathlib.Path(sys.argv[1]).iterdir():
    words = (call / "words").read_text(encoding="utf-8", errors="replace").split(" ")
    for stream, name in (("out", command(words)), ("error", "error")):
        for line in (call / stream).read_text(encoding="utf-8").splitlines():
            if reason := wrong(name, line):
                print(f"{' '.join(words)}\n{line}\nis not as {name}.json says: {reason}")
