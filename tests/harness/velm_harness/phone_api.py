"""The phone API as docs/http-api.yaml describes it, and its paths by what a request has to prove."""

from __future__ import annotations

from pathlib import Path

from velm_harness.openapi import Contract

CONTRACT = Contract(Path(__file__).resolve().parents[3] / "docs" / "http-api.yaml")
PATHS = list(CONTRACT.operations())
BODY_PATHS = [path for path in PATHS if CONTRACT.body_schema(path)]
SIGNED_PATHS = [path for path in PATHS if "X-Assertion" in CONTRACT.headers(path)]
LOGIN_PATHS = [path for path in BODY_PATHS if path not in SIGNED_PATHS]
