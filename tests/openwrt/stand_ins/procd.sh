# shellcheck shell=sh disable=SC2154
# Stands in for OpenWrt's /lib/functions/procd.sh: every call goes into the file $CALLS, its words ended
# by \037 and the call by \036. The service runs when $RUNNING is not empty.

record() {
    printf '%s\037' "$@" >>"$CALLS"
    printf '\036' >>"$CALLS"
}

procd_open_instance() { record procd_open_instance "$@"; }
procd_set_param() { record procd_set_param "$@"; }
procd_append_param() { record procd_append_param "$@"; }
procd_close_instance() { record procd_close_instance "$@"; }
procd_add_reload_trigger() { record procd_add_reload_trigger "$@"; }
procd_add_raw_trigger() { record procd_add_raw_trigger "$@"; }
procd_add_interface_trigger() { record procd_add_interface_trigger "$@"; }
procd_send_signal() { record procd_send_signal "$@"; }
procd_kill() { record procd_kill "$@"; }
procd_running() { [ -n "$RUNNING" ]; }

rc_procd() {
    "$@"
    rc_procd_status=$?
    service_triggers
    return "$rc_procd_status"
}
