"""An OpenAPI 3.0 document as a contract: is it well formed, and does an answer keep to it?"""

from __future__ import annotations

from collections.abc import Iterator
from dataclasses import dataclass
from pathlib import Path
from typing import Any, Protocol

import jsonschema
import yaml

METHODS = ("get", "put", "post", "delete", "options", "head", "patch", "trace")
SCHEMA_KEYS = {
    "type", "required", "properties", "additionalProperties", "items", "minItems", "enum",
    "pattern", "minLength", "maxLength", "minimum", "maximum", "description", "oneOf", "allOf",
    "nullable",
}  # fmt: skip

_TEXT = {"type": "string", "minLength": 1}
_REFERENCE = {
    "type": "object",
    "required": ["$ref"],
    "properties": {"$ref": {"type": "string", "pattern": "^#/components/"}},
    "additionalProperties": False,
}


def _object(needed: list[str], **properties: Any) -> dict[str, Any]:
    return {
        "type": "object",
        "required": needed,
        "properties": properties,
        "additionalProperties": False,
    }


def _named(content: dict[str, Any]) -> dict[str, Any]:
    return {"type": "object", "minProperties": 1, "additionalProperties": content}


def _or_reference(content: dict[str, Any]) -> dict[str, Any]:
    return {"oneOf": [_REFERENCE, content]}


_CONTENT = _named(_object(["schema"], schema={"type": "object"}))
_RESPONSE = _object(["description"], description=_TEXT, content=_CONTENT)
_BODY = _object(["content"], required={"type": "boolean"}, content=_CONTENT)
_PARAMETER = _object(
    ["name", "in", "schema"],
    name=_TEXT,
    **{"in": {"enum": ["query", "header", "path", "cookie"]}},
    required={"type": "boolean"},
    description=_TEXT,
    schema={"type": "object"},
)
_RESPONSES = {
    **_named(_or_reference(_RESPONSE)),
    "propertyNames": {"pattern": "^[1-5][0-9][0-9]$"},
}
_OPERATION = _object(
    ["responses"],
    summary=_TEXT,
    description=_TEXT,
    parameters={"type": "array", "items": _or_reference(_PARAMETER)},
    requestBody=_or_reference(_BODY),
    responses=_RESPONSES,
)
# The parts of OpenAPI 3.0 that the document uses; anything else in it is taken for a typing error.
DOCUMENT = _object(
    ["openapi", "info", "paths"],
    openapi={"type": "string", "pattern": r"^3\.0\.[0-9]+$"},
    info=_object(["title", "version"], title=_TEXT, version=_TEXT, description=_TEXT),
    servers={
        "type": "array",
        "items": _object(["url"], url=_TEXT, variables=_named(_object(["default"], default=_TEXT))),
    },
    paths={
        **_named(_object([], **dict.fromkeys(METHODS, _OPERATION))),
        "propertyNames": {"pattern": "^/"},
    },
    components=_object(
        [],
        parameters=_named(_PARAMETER),
        requestBodies=_named(_BODY),
        responses=_named(_RESPONSE),
        schemas=_named({"type": "object"}),
    ),
)


class Answer(Protocol):
    """What both APIs answer."""

    @property
    def status(self) -> int: ...

    @property
    def headers(self) -> dict[str, str]: ...

    @property
    def body(self) -> bytes: ...

    def json(self) -> Any: ...


def _with_null(part: Any) -> Any:
    """JSON Schema has no "nullable"."""
    if isinstance(part, list):
        return [_with_null(one) for one in part]
    if not isinstance(part, dict):
        return part
    made = {name: _with_null(value) for name, value in part.items() if name != "nullable"}
    return {"anyOf": [made, {"enum": [None]}]} if part.get("nullable") is True else made


class ContractError(AssertionError):
    """An answer that the document does not allow."""


@dataclass(frozen=True)
class TextLimit:
    """How long one text of a request may be. `where` is a header's name or a path in the body."""

    path: str
    where: str
    shortest: int
    longest: int | None

    def __str__(self) -> str:
        return f"{self.path} {self.where}"


class Contract:
    def __init__(self, file: Path) -> None:
        self.document: dict[str, Any] = yaml.safe_load(file.read_text(encoding="utf-8"))

    # The document itself.

    def references(self, part: Any = None) -> Iterator[str]:
        part = self.document if part is None else part
        if isinstance(part, dict):
            if "$ref" in part:
                yield part["$ref"]
            for value in part.values():
                yield from self.references(value) if isinstance(value, (dict, list)) else ()
        elif isinstance(part, list):
            for value in part:
                yield from self.references(value) if isinstance(value, (dict, list)) else ()

    def resolve(self, part: dict[str, Any]) -> dict[str, Any]:
        """The part, or what its reference leads to; `KeyError` for one that leads nowhere."""
        while "$ref" in part:
            found: Any = self.document
            for name in part["$ref"].removeprefix("#/").split("/"):
                found = found[name]
            part = found
        return part

    def schemas(self) -> Iterator[dict[str, Any]]:
        """Every schema with all that it contains."""

        def inside(schema: dict[str, Any]) -> Iterator[dict[str, Any]]:
            yield schema
            for child in schema.get("properties", {}).values():
                yield from inside(child)
            if "items" in schema:
                yield from inside(schema["items"])
            for name in ("oneOf", "allOf"):
                for child in schema.get(name, []):
                    yield from inside(child)

        def outermost(part: Any) -> Iterator[dict[str, Any]]:
            if isinstance(part, dict):
                for name, value in part.items():
                    if name == "schema":
                        yield value
                    elif name == "schemas":
                        yield from value.values()
                    else:
                        yield from outermost(value)

        for schema in outermost(self.document):
            yield from inside(schema)
        for operation in self.operations().values():
            for parameter in operation.get("parameters", []):
                if "schema" in parameter:
                    yield from inside(parameter["schema"])

    def operations(self) -> dict[str, dict[str, Any]]:
        """The one operation of each path: every method is answered alike."""
        made = {}
        for path, methods in self.document["paths"].items():
            (made[path],) = methods.values()
        return made

    def responses(self, path: str) -> dict[int, dict[str, Any]]:
        """Every answer that a path may give, by status."""
        listed = self.operations()[path]["responses"]
        return {int(status): self.resolve(response) for status, response in listed.items()}

    # Answers.

    def check(self, path: str, reply: Answer) -> None:
        """`ContractError` for an answer that is not documented."""
        allowed = self.responses(path)
        if reply.status not in allowed:
            raise ContractError(f"{path} answered {reply.status}, not one of {sorted(allowed)}")
        content = allowed[reply.status].get("content")
        if content is None:
            if reply.body:
                raise ContractError(f"{path} answered {reply.status} with a body: {reply.body!r}")
            return
        kind = reply.headers.get("content-type")
        if kind not in content:
            raise ContractError(f"{path} answered {reply.status} as {kind}")
        said = reply.json() if kind == "application/json" else reply.body.decode()
        self.validate(said, content[kind]["schema"])

    def validate(self, instance: Any, schema: dict[str, Any]) -> None:
        """`jsonschema.ValidationError` for what breaks a schema of the document."""
        whole = _with_null({"allOf": [schema], "components": self.document["components"]})
        jsonschema.Draft4Validator(whole).validate(instance)

    # Requests.

    def body_schema(self, path: str) -> dict[str, Any] | None:
        operation = self.operations()[path]
        if "requestBody" not in operation:
            return None
        content = self.resolve(operation["requestBody"])["content"]
        return dict(content["application/json"]["schema"])

    def headers(self, path: str) -> list[str]:
        """Those that the document names for a request, needed or not."""
        parameters = self.operations()[path].get("parameters", [])
        return [self.resolve(parameter)["name"] for parameter in parameters]

    def text_limits(self, path: str) -> list[TextLimit]:
        """Every limited text of a request: headers first, then the body's members."""
        limits = []
        for parameter in self.operations()[path].get("parameters", []):
            found = self.resolve(parameter)
            limits += self._limits(path, found["name"], found["schema"])
        schema = self.body_schema(path)
        return limits + (self._limits(path, "", schema) if schema else [])

    def _limits(self, path: str, where: str, schema: dict[str, Any]) -> list[TextLimit]:
        schema = self.resolve(schema)
        if "minLength" in schema or "maxLength" in schema:
            return [TextLimit(path, where, schema.get("minLength", 0), schema.get("maxLength"))]
        limits = []
        for name, child in schema.get("properties", {}).items():
            limits += self._limits(path, f"{where}.{name}".lstrip("."), child)
        for child in schema.get("allOf", []):
            limits += self._limits(path, where, child)
        return limits
