"""Is docs/control-api.yaml what it claims to be? tests/e2e holds the daemon against it."""

from __future__ import annotations

from pathlib import Path
from typing import Any

import jsonschema
import pytest
from velm_harness.openapi import DOCUMENT, SCHEMA_KEYS, Contract

CONTRACT = Contract(Path(__file__).resolve().parents[2] / "docs" / "control-api.yaml")


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


def test_every_schema_is_a_schema_and_every_member_is_always_there() -> None:
    for schema in CONTRACT.schemas():
        if "$ref" in schema:
            continue
        jsonschema.Draft4Validator.check_schema(schema)
        assert set(schema) <= SCHEMA_KEYS, schema
        if schema["type"] == "object":
            assert set(schema["required"]) == set(schema["properties"]), schema


@pytest.mark.parametrize(
    ("value", "good"), [(None, True), ("2026-11-22T12:03:10.123Z", True), ("now", False)]
)
def test_what_may_be_null_may_be_nothing_else(value: Any, good: bool) -> None:
    schema = {"$ref": "#/components/schemas/MomentOrNull"}
    if good:
        CONTRACT.validate(value, schema)
    else:
        with pytest.raises(jsonschema.ValidationError):
            CONTRACT.validate(value, schema)
