"""Is docs/http-api.yaml what it claims to be? tests/e2e holds the daemon against it."""

from __future__ import annotations

from pathlib import Path

import jsonschema
from velm_harness.openapi import DOCUMENT, SCHEMA_KEYS, Contract

CONTRACT = Contract(Path(__file__).resolve().parents[2] / "docs" / "http-api.yaml")


def test_the_document_is_well_formed() -> None:
    jsonschema.Draft7Validator(DOCUMENT).validate(CONTRACT.document)


def test_every_reference_leads_to_something_and_every_component_is_used() -> None:
    used = set(CONTRACT.references())
    for reference in used:
        assert isinstance(CONTRACT.resolve({"$ref": reference}), dict)
    named = {
        f"#/components/{kind}/{name}"
        for kind, parts in CONTRACT.document["components"].items()
        for name in parts
    }
    assert used == named


def test_every_schema_is_a_schema() -> None:
    for schema in CONTRACT.schemas():
        if "$ref" not in schema:
            jsonschema.Draft4Validator.check_schema(schema)
            assert set(schema) <= SCHEMA_KEYS, schema
            assert set(schema.get("required", [])) <= set(schema.get("properties", {})), schema
