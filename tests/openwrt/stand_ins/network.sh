# shellcheck shell=sh disable=SC2154
# Stands in for OpenWrt's /lib/functions/network.sh: the device of interface "NAME" is "br-NAME", and
# "absent" has none.

network_flush_cache() { :; }

network_get_device() { # VARIABLE INTERFACE
    [ "$2" != absent ] || return 1
    eval "$1=\"br-\$2\""
}
