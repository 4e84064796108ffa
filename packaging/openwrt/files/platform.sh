# Tells the daemon, through its nvram store, what only the system knows: the LAN bridge, the BSSIDs and
# the serial number. Without a BSSID the daemon refuses every location.
# shellcheck shell=sh disable=SC2154  # velmd_load and network_get_device set the variables
#
# Needs velmd_load of configuration.sh and velmd_root. A build for a vendor's platform has no command
# nvram: then the vendor's own store says all this.

velmd_bssids_max=64 # the daemon reads no more of one radio

velmd_nvram() {
    VELM_NVRAM=$velmd_root/etc/velmd/nvram "$velmd_root/usr/libexec/velmd/nvram" "$@"
}

# Of every access point that hostapd runs.
velmd_present_bssids() {
    ubus list 'hostapd.*' 2>/dev/null | while IFS= read -r velmd_object; do
        cat "$velmd_root/sys/class/net/${velmd_object#hostapd.}/address" 2>/dev/null
    done
}

# What the store has from the last time: a radio that is not up yet after a boot is not forgotten.
velmd_remembered_bssids() {
    velmd_count=$(velmd_nvram get wl0_maxssid) || return 0
    velmd_is_number "$velmd_count" 2 || return 0
    velmd_nvram get wl0_hwaddr
    velmd_index=1
    while [ "$velmd_index" -lt "$velmd_count" ]; do
        velmd_nvram get "wl0.${velmd_index}_hwaddr"
        velmd_index=$((velmd_index + 1))
    done
}

# One per line, each once.
velmd_all_bssids() {
    {
        if [ -n "$velmd_bssids" ]; then
            printf '%s\n' "$velmd_bssids" | tr ' ' '\n'
        else
            velmd_present_bssids
            velmd_remembered_bssids
        fi
    } | tr 'A-F' 'a-f' |
        awk -v most="$velmd_bssids_max" \
            'length($0) == 17 && !/[^0-9a-f:]/ && !seen[$0]++ && count++ < most'
}

# Sets the setting if it has another value, and then velmd_changed.
velmd_store() { # NAME VALUE
    if velmd_old=$(velmd_nvram get "$1") && [ "$velmd_old" = "$2" ]; then
        return 0
    fi
    if velmd_nvram set "$1=$2"; then
        velmd_changed=yes
    else
        velmd_log err "nvram $1 cannot be set"
    fi
}

velmd_store_bssids() { # ADDRESS ...
    velmd_store wl_radio_num 1
    velmd_store wl0_maxssid "$#"
    velmd_store wl0_hwaddr "$1"
    shift
    velmd_index=1
    for velmd_address; do
        velmd_store "wl0.${velmd_index}_hwaddr" "$velmd_address"
        velmd_index=$((velmd_index + 1))
    done
}

# True when something has changed. It is committed: a store that is right is not written again.
velmd_tell_platform() {
    velmd_changed=no
    if [ "$velmd_identity" = no ] || ! [ -x "$velmd_root/usr/libexec/velmd/nvram" ]; then
        return 1
    fi
    # shellcheck source=/dev/null
    . "$velmd_root/lib/functions/network.sh"
    network_flush_cache
    if network_get_device velmd_device "$velmd_interface"; then
        velmd_store lan0_ifname "$velmd_device"
        velmd_store lan0_ifnames wl0
    else
        velmd_log warn "network interface $velmd_interface has no device yet"
    fi
    # shellcheck disable=SC2046  # one word per address, of hex digits and colons
    set -- $(velmd_all_bssids)
    [ "$#" -eq 0 ] || velmd_store_bssids "$@"
    [ "$#" -gt 0 ] || velmd_log warn "no BSSID is known yet: phones are refused until there is one"
    [ -z "$velmd_serial_number" ] || velmd_store ap_serial_number "$velmd_serial_number"
    [ "$velmd_changed" = yes ] || return 1
    velmd_nvram commit || velmd_log err "nvram cannot be committed"
}
