#!/usr/bin/python3
"""Judges every manifest case with the manifest's JSON Schema.

    schema_cases_test.py SCHEMA CASES_DIR PAGE

The same files are parsed by the tool's manifest parser in test_manifest; the
folder of a case says who accepts it. A file the validator cannot read as JSON
text (not UTF-8, too deeply nested for Python's json) counts as rejected: that
is what an operator validating it would see. Every case on which the parser
and the schema disagree must be linked from PAGE, which explains why, and
every such link must lead to a case. The page's complete example must be the
text of one of the valid cases.
"""
import json
import pathlib
import re
import sys

import jsonschema

SCHEMA_ACCEPTS = {
    "valid": True,
    "invalid": False,
    "parser-only-invalid": True,
    "schema-only-invalid": False,
}
DISAGREEING = ("parser-only-invalid", "schema-only-invalid")
# The complete example that PAGE shows, verbatim.
EXAMPLE = "valid/example.json"


def judge(validator, path):
    """Why the schema rejects one file; empty when it accepts it."""
    try:
        document = json.loads(path.read_bytes().decode("utf-8"))
    except (UnicodeDecodeError, ValueError, RecursionError) as error:
        return "not readable as JSON: %s" % type(error).__name__
    error = jsonschema.exceptions.best_match(validator.iter_errors(document))
    return "" if error is None else "%s at %s" % (error.message[:120], error.json_path)


def main(schema_path, cases_dir, page_path):
    schema = json.loads(pathlib.Path(schema_path).read_text())
    jsonschema.Draft202012Validator.check_schema(schema)
    validator = jsonschema.Draft202012Validator(schema)
    cases = pathlib.Path(cases_dir)
    failures = []

    for folder, expected in SCHEMA_ACCEPTS.items():
        files = sorted((cases / folder).glob("*.json"))
        if not files:
            failures.append("%s: no cases" % folder)
        for path in files:
            why = judge(validator, path)
            accepted = not why
            print("%s/%s: the schema %s" % (folder, path.name, "rejects (%s)" % why if why else "accepts"))
            # Only where the validator's reader is the point may it fail to read:
            # elsewhere a typo in a case would make its rejection meaningless.
            if why.startswith("not readable") and folder != "schema-only-invalid":
                failures.append("%s/%s: not JSON text" % (folder, path.name))
            elif accepted != expected:
                failures.append("%s/%s: the schema should %s it" %
                                (folder, path.name, "accept" if expected else "reject"))

    page = pathlib.Path(page_path).read_text()
    linked = set(re.findall(r"cases/((?:%s)/[\w.-]+\.json)" % "|".join(DISAGREEING), page))
    present = {"%s/%s" % (f, p.name) for f in DISAGREEING for p in (cases / f).glob("*.json")}
    failures += ["%s: not explained in %s" % (c, page_path) for c in sorted(present - linked)]
    failures += ["%s: linked from %s but missing" % (c, page_path) for c in sorted(linked - present)]
    if (cases / EXAMPLE).read_text() not in page:
        failures.append("%s: not shown verbatim in %s" % (EXAMPLE, page_path))

    for failure in failures:
        print("FAIL " + failure)
    return 1 if failures else 0


if __name__ == "__main__":
    if len(sys.argv) != 4:
        sys.exit(__doc__)
    sys.exit(main(*sys.argv[1:]))
