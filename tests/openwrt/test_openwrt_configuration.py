"""Does the daemon read from the file that was made of UCI what the owner wrote there?"""

from __future__ import annotations

import re
import subprocess
from pathlib import Path

import pytest
from openwrt_router import FILES, Router

REPOSITORY = Path(__file__).parents[2]
TABLE = (REPOSITORY / "src" / "config" / "settings.cpp").read_text()
LOGGER = (REPOSITORY / "src" / "logger" / "keys.cpp").read_text()
OF_THE_PACKAGE = {"enabled", "interface", "bssid", "serial_number", "identity"}
# What a shell, printf, a pattern or the daemon's own parser might take for something else.
HOSTILE = [
    "/a path/with  blanks",
    " leading and trailing ",
    'a "quoted" word',
    '"all of it"',
    '"',
    "it's",
    "$(touch made) `touch made` $HOME ${IFS}",
    "; touch made & | > made < /etc/passwd #",
    "back\\slash and \\n and \\t",
    '\\"',
    '\\\\"\\"x',
    "ends in a backslash\\x",
    "short\\",
    "/no/blank\\\\",
    "%s %n %d %%",
    "-n",
    "-e \\0101",
    "*? [a-z]* ~root",
    "#not=a comment",
    "key=value=more",
    "http.server.port=1",
    "Café Ünï 中文 😀",
    "!history {a,b} (x)",
    "last",
]  # fmt: skip
NOT_WRITABLE = ["two\nlines", "a\rreturn", "blank and end\\", '"quote\\', "logger.level=trace\n\nx"]


def daemon_keys() -> dict[str, str]:
    """The keys of the file, each with the type of its default: text, flag or number."""
    part = TABLE.partition("lan.ip.address")[0]
    rows = re.findall(r'^ *\{"([\w.]+)", &velm_config::\w+, (\w+|"[^"]*"),', part, re.MULTILINE)
    assert len(rows) >= 19
    kinds = {}
    for key, standard in rows:
        word = standard.strip('"')
        kind = "flag" if standard[0] != '"' else "number" if word.isdigit() else "text"
        kinds[key] = kind
    return kinds


def logger_keys() -> set[str]:
    table = re.search(r"key_names\[\] = \{(.*?)\};", LOGGER, re.DOTALL)
    assert table
    return {f"logger.{name}" for name in re.findall(r'"([\w.]+)"', table.group(1))}


def known_keys() -> dict[str, str]:
    """The option of each key that the conversion knows."""
    text = (FILES / "configuration.sh").read_text()
    return dict(re.findall(r"^    (\w+)\) velmd_key=([\w.]+)", text, re.MULTILINE))


def option_of(key: str) -> str:
    return key.replace(".", "_")


TEXTS = sorted(key for key, kind in daemon_keys().items() if kind == "text" and key != "control.sock")


def values_in_the_daemon(router: Router) -> dict[str, str]:
    """What the real daemon logs of its configuration before it ends, for it finds no CA file."""
    done = subprocess.run(
        [router.build.program("velmd"), "-c", router.file, "-i", "127.0.0.1"],
        env={"VELM_NVRAM": str(router.root / "etc/velmd/nvram")},
        cwd=router.working_directory,
        stdout=subprocess.PIPE,
        stderr=subprocess.STDOUT,
        timeout=30,
    )
    text = done.stdout.decode()
    assert done.returncode == 2, text
    found = re.findall(r"^\S+ \S+ TRACE velm_config - ([\w.]+): (.*)$", text, re.MULTILINE)
    assert len(found) >= 19, text
    return dict(found)


def with_log(*lines: tuple[str, str, str]) -> list[tuple[str, str, str]]:
    return [("option", "logger_level", "trace"), ("option", "logger_stdout", "1"), *lines]


def test_every_key_of_the_daemon_has_an_option() -> None:
    daemon = set(daemon_keys()) | logger_keys()
    assert daemon - set(known_keys().values()) == {"process.daemonize"}  # procd decides this one


def test_no_option_is_for_a_key_that_no_daemon_has() -> None:
    assert set(known_keys().values()) - set(daemon_keys()) - logger_keys() == set()


def test_every_option_has_the_name_of_its_key() -> None:
    assert known_keys() == {option_of(key): key for key in known_keys().values()}


def test_the_installed_configuration_names_every_option() -> None:
    text = (FILES / "velmd.config").read_text()
    named = set(re.findall(r"^#?\t(?:option|list) (\w+) '", text, re.MULTILINE))
    assert named == set(known_keys()) | OF_THE_PACKAGE | {"logger_category"}


def test_the_manual_of_the_package_names_its_own_options() -> None:
    text = (REPOSITORY / "docs" / "packaging.md").read_text()
    assert [name for name in OF_THE_PACKAGE if f"`{name}`" not in text] == []


def test_the_installed_configuration_is_converted_without_a_warning(router: Router) -> None:
    path = router.root / "etc/config/velmd"
    text = path.read_text().replace("option enabled '0'", "option enabled '1'")
    every_line = re.sub(r"^#\t", "\t", text, flags=re.MULTILINE).replace("''", "'x'")
    path.write_text(every_line)
    ran = router.started()
    assert [line for line in ran.log if "BSSID" not in line] == []
    assert router.file.read_text().count("\n") == 2 + len(known_keys()) + 1


def test_hostile_values_arrive_as_they_are(router: Router) -> None:
    for begin in range(0, len(HOSTILE), len(TEXTS)):
        given = dict(zip(TEXTS, HOSTILE[begin:]))
        router.configure(*with_log(*(("option", option_of(k), v) for k, v in given.items())))
        ran = router.started()
        assert [line for line in ran.log if "BSSID" not in line] == []
        found = values_in_the_daemon(router)
        assert {key: found[key] for key in given} == given
        assert list(router.working_directory.iterdir()) == [], "a value was run"


@pytest.mark.parametrize("value", NOT_WRITABLE, ids=ascii)
def test_what_the_file_cannot_hold_is_left_out_with_a_warning(router: Router, value: str) -> None:
    router.options(vendor_id=value, logger_level="trace", logger_stdout="1", app_ios_appid="next")
    ran = router.started()
    assert any("option vendor_id" in line and "daemon.warn" in line for line in ran.log)
    found = values_in_the_daemon(router)
    assert (found["vendor.id"], found["app.ios.appid"]) == ("NORVALE", "next")


@pytest.mark.parametrize(
    ("word", "meant"),
    [(word, "yes") for word in ("1", "on", "true", "yes", "enabled")]
    + [(word, "no") for word in ("0", "off", "false", "no", "disabled")],
)
def test_each_word_of_uci_for_a_flag_is_understood(router: Router, word: str, meant: str) -> None:
    router.options(app_android_integrity_enabled=word, logger_stdout=word)
    router.started()
    lines = router.file.read_text().splitlines()
    assert f"app.android.integrity.enabled={meant}" in lines and f"logger.stdout={meant}" in lines


@pytest.mark.parametrize(
    ("option", "value"),
    [
        ("http_server_port", "65536"),
        ("http_server_port", "-1"),
        ("http_server_port", "8443x"),
        ("http_server_port", ""),
        ("http_server_port", "000000"),
        ("pairings_limit", "$(echo 5)"),
        ("app_android_integrity_enabled", "Yes please"),
        ("logger_level", "loud"),
        ("logger_file_maxsize", "16M"),
    ],
)
def test_a_value_of_the_wrong_kind_is_left_out(router: Router, option: str, value: str) -> None:
    router.configure(("option", option, value))
    ran = router.started()
    assert any(f"option {option} " in line for line in ran.log)
    assert option.replace("_", ".") not in router.file.read_text()
    assert list(router.working_directory.iterdir()) == []


@pytest.mark.parametrize("port", ["0", "1", "65535"])
def test_the_ends_of_a_port_are_taken(router: Router, port: str) -> None:
    router.configure(*with_log(("option", "http_server_port", port)))
    router.started()
    assert values_in_the_daemon(router)["http.server.port"] == port


def test_what_nobody_knows_is_named(router: Router) -> None:
    text = "config velmd 'main'\n\toption enabled '1'\n\toption http_port '1'\n"
    text += "\tlist vendor_id 'x'\nconfig velmd 'other'\n\toption vendor_id 'y'\nconfig rule\n"
    (router.root / "etc/config/velmd").write_text(text)
    log = "\n".join(router.started().log)
    assert "option http_port of /etc/config/velmd is not known" in log
    assert "list vendor_id of /etc/config/velmd is not known" in log
    assert "section other of" in log and "section cfg01 of" in log
    assert "vendor.id" not in router.file.read_text()


def test_the_daemon_stays_in_the_foreground_whatever_is_asked(router: Router) -> None:
    router.options(process_daemonize="1")
    ran = router.started()
    assert any("process_daemonize is ignored" in line for line in ran.log)
    assert router.file.read_text().count("process.daemonize") == 1
    assert "process.daemonize=no" in router.file.read_text()


def test_the_control_socket_can_be_switched_off(router: Router) -> None:
    router.options(control_sock="none")
    router.started()
    assert 'control.sock=""' in router.file.read_text().splitlines()


def test_the_log_that_is_off_is_off_wherever_that_is_written(router: Router) -> None:
    """The daemon's logger obeys the first of its lines last."""
    router.options(logger_stdout="1", logger_level="trace", logger_enabled="0")
    router.started()
    lines = router.file.read_text().splitlines()
    order = [line for line in lines if line.startswith("logger.")]
    assert order[0] == "logger.enabled=no"


def test_categories_have_levels_of_their_own(router: Router) -> None:
    wrong = ["nolevel", "a=loud", "a b=info", "=info", "a=info\nvendor.id=x", "$(id)=info"]
    good = ["velm_http_server=debug", "main=trace"]
    router.configure(*(("list", "logger_category", item) for item in wrong + good))
    ran = router.started()
    assert sum("NAME=LEVEL" in line for line in ran.log) == len(wrong)
    lines = router.file.read_text().splitlines()
    assert [f"logger.category.{item}" for item in good] == lines[-2:]
    assert "vendor.id" not in router.file.read_text()


@pytest.mark.parametrize("size", [4095, 4096])
def test_a_file_that_the_daemon_would_cut_is_not_made(router: Router, size: int) -> None:
    router.options(vendor_id="x")
    router.started()
    rest = size - len(router.file.read_bytes())
    router.options(vendor_id="x" + "y" * rest)
    before = router.file.read_bytes()
    ran = router.run("reload", running=True)
    if size <= 4095:
        assert ran.status == 0 and len(router.file.read_bytes()) == size
    else:
        assert ran.status == 1 and not ran.calls and router.file.read_bytes() == before
        assert any("too long" in line for line in ran.log)
        assert [path.name for path in router.file.parent.iterdir()] == ["velmd.conf"]


def test_the_check_of_the_daemon_knows_every_key(router: Router) -> None:
    test_the_installed_configuration_is_converted_without_a_warning(router)
    checked = subprocess.run([router.build.program("velmd"), "-t", "-c", router.file],
                             capture_output=True, text=True, timeout=30,
                             env={"VELM_NVRAM": str(router.root / "nvram")})  # fmt: skip
    assert "http.server.key.path" in checked.stdout, "that file is not there"
    of_the_file = re.findall(rf"^{re.escape(str(router.file))}:.*", checked.stdout, re.MULTILINE)
    assert of_the_file == []
