"""An answer of the daemon that docs/http-api.yaml does not have is noticed."""

from __future__ import annotations

import jsonschema
import pytest
from velm_harness.openapi import ContractError
from velm_harness.phone_api import CONTRACT
from velm_sim.lan_http import Reply


@pytest.mark.parametrize(
    "reply",
    [
        Reply(418, {}, b""),
        Reply(200, {"content-type": "text/plain"}, b"{}"),
        Reply(200, {"content-type": "application/json"}, b"{}"),
        Reply(200, {"content-type": "application/json"}, b'{"challenge": "ABC"}'),
        Reply(400, {}, b"why"),
    ],
)
def test_an_answer_that_is_not_documented_is_noticed(reply: Reply) -> None:
    with pytest.raises((ContractError, jsonschema.ValidationError)):
        CONTRACT.check("/challenge", reply)
