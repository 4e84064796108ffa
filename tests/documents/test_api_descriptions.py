"""What the descriptions of both interfaces claim. tests/e2e holds the daemon against them."""

from __future__ import annotations

from pathlib import Path
from typing import Any

import jsonschema
import pytest
from velm_harness.openapi import DOCUMENT, SCHEMA_KEYS, Contract

DOCS = Path(__file__).resolve().parents[2] / "docs"
HTTP = Contract(DOCS / "http-api.yaml")
CONTROL = Contract(DOCS / "control-api.yaml")

each_contract = pytest.mark.parametrize("contract", [HTTP, CONTROL], ids=["http", "control"])


def schemas_of(contract: Contract) -> list[dict[str, Any]]:
    return [schema for schema in contract.schemas() if "$ref" not in schema]


@each_contract
def test_the_document_is_well_formed(contract: Contract) -> None:
    jsonschema.Draft7Validator(DOCUMENT).validate(contract.document)


@each_contract
def test_every_reference_leads_to_something_and_every_component_is_used(
    contract: Contract,
) -> None:
    used = set(contract.references())
    for reference in used:
        assert isinstance(contract.resolve({"$ref": reference}), dict)
    named = {
        f"#/components/{kind}/{name}"
        for kind, parts in contract.document["components"].items()
        for name in parts
    }
    assert used == named


@each_contract
def test_every_schema_is_a_schema(contract: Contract) -> None:
    for schema in schemas_of(contract):
        jsonschema.Draft4Validator.check_schema(schema)
        assert set(schema) <= SCHEMA_KEYS, schema
        assert set(schema.get("required", [])) <= set(schema.get("properties", {})), schema


def test_every_member_of_the_control_socket_is_always_there() -> None:
    for schema in schemas_of(CONTROL):
        if schema["type"] == "object":
            assert set(schema["required"]) == set(schema["properties"]), schema


@pytest.mark.parametrize(
    ("value", "good"), [(None, True), ("2026-11-22T12:03:10.123Z", True), ("now", False)]
)
def test_what_may_be_null_may_be_nothing_else(value: Any, good: bool) -> None:
    schema = {"$ref": "#/components/schemas/MomentOrNull"}
    if good:
        CONTROL.validate(value, schema)
    else:
        with pytest.raises(jsonschema.ValidationError):
            CONTROL.validate(value, schema)
