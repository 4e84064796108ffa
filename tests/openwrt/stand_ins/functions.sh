# shellcheck shell=sh disable=SC1090,SC2317
# Stands in for OpenWrt's /lib/functions.sh. What `uci export` prints is read as shell commands there
# too: "config", "option" and "list" are functions, and they call back.

reset_cb() {
    config_cb() { return 0; }
    option_cb() { return 0; }
    list_cb() { return 0; }
}
reset_cb

config() { config_cb "$1" "${2:-cfg01}"; }
option() { option_cb "$1" "$2"; }
list() { list_cb "$1" "$2"; }

config_load() { # PACKAGE
    [ -f "$IPKG_INSTROOT/etc/config/$1" ] || return 1
    . "$IPKG_INSTROOT/etc/config/$1"
    config_cb
}
