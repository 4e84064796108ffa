"""Does the init script tell procd what it should, and reload only what is good?"""

from __future__ import annotations

from pathlib import Path

from openwrt_router import STAND_INS, Router

HUP = [["velmd", "*", "HUP"]]


def test_a_fresh_installation_is_off(router: Router) -> None:
    ran = router.started()
    assert not ran.calls_of("procd_open_instance")
    assert any("option enabled" in line for line in ran.log)


def test_the_daemon_runs_in_the_foreground_and_for_ever(router: Router) -> None:
    router.options()
    ran = router.started()
    assert ran.calls[0][0] == "procd_open_instance"
    assert ran.parameter("command") == [str(router.root / "usr/sbin/velmd"), "-c", str(router.file)]
    assert "process.daemonize=no" in router.file.read_text().splitlines()
    assert ran.parameter("respawn")[2] == "0"  # attempts: without end
    assert ran.parameter("env") == [f"VELM_NVRAM={router.root}/etc/velmd/nvram"]
    assert ran.parameter("stdout") == ran.parameter("stderr") == ["1"]
    assert ran.parameter("pidfile") == ["/var/run/velmd.pid"]
    assert ["procd_close_instance"] in ran.calls


def test_the_pid_file_is_where_velmctl_looks_for_it(router: Router) -> None:
    router.options(process_pidfile="/var/run/other file.pid")
    assert router.started().parameter("pidfile") == ["/var/run/other file.pid"]
    assert 'process.pidfile="/var/run/other file.pid"' in router.file.read_text()


def test_every_file_that_the_daemon_reads_is_watched(router: Router) -> None:
    router.options(http_server_cert_path="/etc/my certs/$(id).pem", http_client_ca_cert_path="/ca")
    ran = router.started()
    watched = ran.parameter("file")
    assert watched[0] == str(router.file)
    assert {"/etc/my certs/$(id).pem", "/ca"} < set(watched)
    source = Path(__file__).parents[2] / "src" / "config" / "settings.cpp"
    by_default = {
        word for word in source.read_text().split('"') if word.startswith("/etc/afc/velmd/")
    }
    assert by_default and by_default < set(watched)
    assert ran.parameter("reload_signal") == ["HUP"]


def test_what_makes_it_reload(router: Router) -> None:
    router.options(interface="guest")
    ran = router.started()
    assert ran.calls_of("procd_add_reload_trigger") == [["velmd"]]
    assert ran.calls_of("procd_add_raw_trigger") == [
        ["acme.renew", "5000", "/etc/init.d/velmd", "reload"]
    ]
    assert ran.calls_of("procd_add_interface_trigger") == [
        ["interface.*", "guest", "/etc/init.d/velmd", "follow"]
    ]


def test_a_reload_sends_one_signal_and_uses_the_new_values(router: Router) -> None:
    router.options(http_server_port="8443")
    router.started()
    router.options(http_server_port="9443")
    ran = router.run("reload", running=True)
    assert ran.status == 0
    assert ran.calls == [["procd_send_signal", *HUP[0]]]
    assert "http.server.port=9443" in router.file.read_text()


def test_a_reload_of_a_service_that_does_not_run_starts_it(router: Router) -> None:
    router.options()
    ran = router.run("reload")
    assert ran.status == 0
    assert ran.calls_of("procd_open_instance") and not ran.calls_of("procd_send_signal")


def test_a_reload_of_a_service_that_was_switched_off_stops_it(router: Router) -> None:
    router.configure(("option", "enabled", "0"))
    assert router.run("reload", running=True).calls == [["procd_kill", "velmd"]]


def test_a_reload_with_what_the_check_refuses_changes_nothing(router: Router) -> None:
    router.options(vendor_id="good")
    router.started()
    before = router.file.read_text()
    router.options(vendor_id="unusable")
    ran = router.run("reload", running=True)
    assert ran.status == 1 and not ran.calls
    assert any(f"{router.file}.new:3: this cannot be used" in line for line in ran.log)
    assert router.file.read_text() == before
    assert [path.name for path in router.file.parent.iterdir()] == ["velmd.conf"]


def test_a_reload_with_what_the_check_accepts_goes_on(router: Router) -> None:
    router.options(vendor_id="good")
    router.started()
    ran = router.run("reload", running=True)
    assert ran.status == 0 and ran.calls_of("procd_send_signal") == HUP
    assert not any("daemon.err" in line for line in ran.log)


def test_a_start_tells_what_the_check_found_and_goes_on(router: Router) -> None:
    router.options(vendor_id="unusable")
    ran = router.started()
    assert ran.calls_of("procd_open_instance")
    assert any("this cannot be used" in line for line in ran.log)


def test_a_daemon_that_cannot_check_is_not_asked(router: Router) -> None:
    router.put("usr/sbin/velmd", STAND_INS / "programs" / "old_velmd")
    router.options()
    router.started()
    ran = router.run("reload", running=True)
    assert ran.calls_of("procd_send_signal") == HUP


def test_a_configuration_that_cannot_be_read_is_not_started_nor_reloaded(router: Router) -> None:
    (router.root / "etc/config/velmd").unlink()
    for action, running in (("start", False), ("reload", True)):
        ran = router.run(action, running=running)
        assert ran.status == 1
        assert not ran.calls_of("procd_open_instance") and not ran.calls_of("procd_send_signal")
        assert any("/etc/config/velmd cannot be read" in line for line in ran.log)


def test_a_configuration_that_cannot_be_made_leaves_the_last_one_in_use(router: Router) -> None:
    router.options(vendor_id="x" * 5000)
    assert router.run("start").status == 1, "there is none yet"
    router.options(vendor_id="good")
    router.started()
    router.options(vendor_id="x" * 5000)
    ran = router.started()
    assert ran.calls_of("procd_open_instance") and any("too long" in line for line in ran.log)
    assert 'vendor.id="good"' in router.file.read_text()


def test_the_store_has_the_bridge_the_bssids_and_the_serial_number(router: Router) -> None:
    router.add_access_point("phy0-ap0", "02:00:00:00:AB:01")
    router.add_access_point("phy1-ap0", "02:00:00:00:ab:02")
    router.options(serial_number="S 1")
    router.started()
    assert router.nvram("show").splitlines() == [
        "ap_serial_number=S 1",
        "lan0_ifname=br-lan",
        "lan0_ifnames=wl0",
        "wl0.1_hwaddr=02:00:00:00:ab:02",
        "wl0_hwaddr=02:00:00:00:ab:01",
        "wl0_maxssid=2",
        "wl_radio_num=1",
    ]
    router.nvram("revert")
    assert "wl0.1_hwaddr" in router.nvram("show"), "it was not committed"


def test_a_radio_that_is_not_up_yet_after_a_boot_is_not_forgotten(router: Router) -> None:
    router.add_access_point("phy0-ap0", "02:00:00:00:00:01")
    router.add_access_point("phy1-ap0", "02:00:00:00:00:02")
    router.options()
    router.started()
    (router.root / "sys/class/net/phy0-ap0/address").unlink()
    router.started()
    assert router.nvram("get", "wl0_maxssid") == "2\n"
    found = {router.nvram("get", name) for name in ("wl0_hwaddr", "wl0.1_hwaddr")}
    assert found == {"02:00:00:00:00:01\n", "02:00:00:00:00:02\n"}


def test_bssids_that_are_named_take_the_place_of_all_others(router: Router) -> None:
    router.add_access_point("phy0-ap0", "02:00:00:00:00:01")
    router.options()
    router.started()
    router.configure(
        ("list", "bssid", "06:00:00:00:00:0A"),
        ("list", "bssid", "not a MAC"),
        ("list", "bssid", "06:00:00:00:00:0b"),
    )
    ran = router.started()
    assert router.nvram("get", "wl0_maxssid") == "2\n"
    assert router.nvram("get", "wl0_hwaddr") == "06:00:00:00:00:0a\n"
    assert router.nvram("get", "wl0.1_hwaddr") == "06:00:00:00:00:0b\n"
    assert any("no MAC address" in line for line in ran.log)


def test_no_more_bssids_are_given_than_the_daemon_reads(router: Router) -> None:
    router.configure(*(("list", "bssid", f"02:00:00:00:00:{i:02x}") for i in range(70)))
    router.started()
    assert router.nvram("get", "wl0_maxssid") == "64\n"
    assert router.nvram("get", "wl0.63_hwaddr") == "02:00:00:00:00:3f\n"


def test_without_a_bssid_the_log_says_so(router: Router) -> None:
    router.options()
    assert any("no BSSID is known" in line for line in router.started().log)


def test_identity_off_leaves_the_store_alone(router: Router) -> None:
    router.add_access_point("phy0-ap0", "02:00:00:00:00:01")
    router.options(identity="off")
    router.started()
    assert router.nvram("show") == ""


def test_an_event_of_the_network_reloads_only_what_has_changed(router: Router) -> None:
    router.add_access_point("phy0-ap0", "02:00:00:00:00:01")
    router.options()
    router.started()
    written = sorted((router.root / "etc/velmd/nvram").glob("*"))
    times = [path.stat().st_mtime_ns for path in written]
    assert not router.run("follow", running=True).calls
    assert [path.stat().st_mtime_ns for path in written] == times, "the flash was written"
    router.add_access_point("phy1-ap0", "02:00:00:00:00:02")
    assert router.run("follow", running=True).calls_of("procd_send_signal") == HUP
    router.add_access_point("phy2-ap0", "02:00:00:00:00:03")
    assert not router.run("follow", running=False).calls


def test_an_interface_without_a_device_keeps_the_bridge(router: Router) -> None:
    router.options()
    router.started()
    router.options(interface="absent")
    ran = router.run("follow", running=True)
    assert router.nvram("get", "lan0_ifname") == "br-lan\n"
    assert any("absent has no device" in line for line in ran.log)
