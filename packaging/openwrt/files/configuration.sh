# Turns the section `config velmd 'main'` of /etc/config/velmd into the daemon's configuration file.
# shellcheck shell=sh disable=SC2034,SC2317  # it is read by velmd.init; callbacks are called by their names
#
# An option has the name of its key, with "_" for ".". /lib/functions.sh calls back for each option, so
# one that nobody knows is seen too. A value is never run: it goes through parameter expansion and
# printf alone. An option that cannot be used is left out with a line in the system log, and the
# daemon's own default holds.

velmd_newline='
'
velmd_return=$(printf '\r')
velmd_file_max=4095 # characters; the daemon reads no more

velmd_log() { # LEVEL TEXT
    logger -t velmd -p "daemon.$1" -- "$2"
}

# Sets velmd_key and velmd_kind; fails for a name that is no key of the file.
velmd_find_key() { # OPTION
    velmd_kind=text
    case "$1" in
    process_pidfile) velmd_key=process.pidfile ;;
    http_client_ca_cert_path) velmd_key=http.client.ca_cert.path ;;
    http_server_cert_path) velmd_key=http.server.cert.path ;;
    http_server_key_path) velmd_key=http.server.key.path ;;
    http_server_port) velmd_key=http.server.port velmd_kind=number ;;
    ssdp_server_port) velmd_key=ssdp.server.port velmd_kind=number ;;
    pairings_limit) velmd_key=pairings.limit velmd_kind=number ;;
    app_android_package_name) velmd_key=app.android.package_name ;;
    app_android_integrity_d_key_path) velmd_key=app.android.integrity.d.key.path ;;
    app_android_integrity_v_key_path) velmd_key=app.android.integrity.v.key.path ;;
    app_android_integrity_privatekey_path) velmd_key=app.android.integrity.privatekey.path ;;
    app_android_integrity_method) velmd_key=app.android.integrity.method ;;
    app_android_integrity_enabled) velmd_key=app.android.integrity.enabled velmd_kind=flag ;;
    app_ios_appid) velmd_key=app.ios.appid ;;
    app_ios_attest_root_ca_path) velmd_key=app.ios.attest.root.ca.path ;;
    location_policy_ipc_sock) velmd_key=location.policy.ipc.sock ;;
    cloudmessaging_firebase_privatekey_path) velmd_key=cloudmessaging.firebase.privatekey.path ;;
    vendor_id) velmd_key=vendor.id ;;
    accounts_shadow) velmd_key=accounts.shadow velmd_kind=flag ;;
    control_sock) velmd_key=control.sock velmd_kind=text_or_none ;;
    logger_enabled) velmd_key=logger.enabled velmd_kind=flag ;;
    logger_level) velmd_key=logger.level velmd_kind=level ;;
    logger_stdout) velmd_key=logger.stdout velmd_kind=flag ;;
    logger_syslog) velmd_key=logger.syslog velmd_kind=flag ;;
    logger_syslog_ident) velmd_key=logger.syslog.ident ;;
    logger_file) velmd_key=logger.file velmd_kind=flag ;;
    logger_file_name) velmd_key=logger.file.name ;;
    logger_file_maxsize) velmd_key=logger.file.maxsize velmd_kind=size ;;
    logger_lineandfile) velmd_key=logger.lineandfile velmd_kind=flag ;;
    *) return 1 ;;
    esac
}

# Sets velmd_flag to yes or no. UCI has five words for each; the daemon's logger has fewer.
velmd_read_flag() { # VALUE
    case "$1" in
    1 | on | true | yes | enabled) velmd_flag=yes ;;
    0 | off | false | no | disabled) velmd_flag=no ;;
    *) return 1 ;;
    esac
}

velmd_is_number() { # VALUE MOST_DIGITS
    case "$1" in
    '' | *[!0-9]*) return 1 ;;
    esac
    [ "${#1}" -le "$2" ]
}

velmd_is_level() { # VALUE
    case "$1" in
    trace | debug | info | warn | error) return 0 ;;
    esac
    return 1
}

# Sets velmd_quoted to the value as the file has it. The daemon's parser knows one escape, \" in a
# quoted value. So a line break cannot be written, nor a blank in a value whose last character is "\".
velmd_quote() { # VALUE
    case "$1" in
    *"$velmd_newline"* | *"$velmd_return"*) return 1 ;;
    *[[:space:]]*\\ | \"*\\) return 1 ;;
    *\\)
        velmd_quoted=$1
        return 0
        ;;
    esac
    velmd_quoted=
    velmd_rest=$1
    while [ "${velmd_rest#*\"}" != "$velmd_rest" ]; do
        velmd_quoted=$velmd_quoted${velmd_rest%%\"*}\\\"
        velmd_rest=${velmd_rest#*\"}
    done
    velmd_quoted=\"$velmd_quoted$velmd_rest\"
}

# Sets velmd_quoted, or fails when the value does not suit the kind.
velmd_convert() { # KIND VALUE
    case "$1" in
    flag) velmd_read_flag "$2" && velmd_quoted=$velmd_flag ;;
    number) velmd_is_number "$2" 5 && [ "$2" -le 65535 ] && velmd_quoted=$2 ;;
    size) velmd_is_number "$2" 18 && velmd_quoted=$2 ;;
    level) velmd_is_level "$2" && velmd_quoted=$2 ;;
    text_or_none)
        # An empty value cannot be kept in UCI.
        if [ "$2" = none ]; then velmd_quote ""; else velmd_quote "$2"; fi
        ;;
    *) velmd_quote "$2" ;;
    esac
}

velmd_add_option() { # OPTION VALUE
    velmd_find_key "$1" || {
        velmd_log warn "option $1 of /etc/config/velmd is not known"
        return 0
    }
    velmd_convert "$velmd_kind" "$2" || {
        velmd_log warn "option $1 of /etc/config/velmd has a value that cannot be used"
        return 0
    }
    # The logger reads its lines from the last one to the first: in front, this key has the last word.
    case "$velmd_key" in
    logger.enabled) velmd_lines=$velmd_key=$velmd_quoted$velmd_newline$velmd_lines ;;
    process.pidfile)
        velmd_pid_file=$2
        velmd_lines=$velmd_lines$velmd_key=$velmd_quoted$velmd_newline
        ;;
    *) velmd_lines=$velmd_lines$velmd_key=$velmd_quoted$velmd_newline ;;
    esac
    # What the daemon reads from the file system: procd is told of it.
    case "$velmd_key" in
    *.cert.path | *.key.path | *.ca_cert.path | *.ca.path | *.privatekey.path) velmd_note_file "$2" ;;
    esac
}

velmd_add_category() { # NAME=LEVEL
    case "${1%%=*}" in
    '' | *[!A-Za-z0-9_]*) ;;
    *)
        if [ "${1#*=}" != "$1" ] && velmd_is_level "${1#*=}"; then
            velmd_lines=${velmd_lines}logger.category.$1$velmd_newline
            return 0
        fi
        ;;
    esac
    velmd_log warn "an item of logger_category in /etc/config/velmd is not NAME=LEVEL"
}

velmd_add_bssid() { # ADDRESS
    case "$1" in
    *[!0-9A-Fa-f:]*) ;;
    ??:??:??:??:??:??)
        case "$1" in
        *:*:*:*:*:*:*) ;;
        *)
            velmd_bssids="$velmd_bssids${velmd_bssids:+ }$1"
            return 0
            ;;
        esac
        ;;
    esac
    velmd_log warn "an item of bssid in /etc/config/velmd is no MAC address"
}

velmd_set_own_flag() { # OPTION VALUE: of the package, not of the daemon
    if velmd_read_flag "$2"; then
        case "$1" in
        enabled) velmd_enabled=$velmd_flag ;;
        identity) velmd_identity=$velmd_flag ;;
        process_daemonize)
            [ "$velmd_flag" = no ] ||
                velmd_log warn "process_daemonize is ignored: procd needs the daemon in the foreground"
            ;;
        esac
    else
        velmd_log warn "option $1 of /etc/config/velmd has a value that cannot be used"
    fi
}

velmd_take_option() { # OPTION VALUE
    case "$1" in
    enabled | identity | process_daemonize) velmd_set_own_flag "$1" "$2" ;;
    interface) velmd_interface=$2 ;;
    serial_number) velmd_serial_number=$2 ;;
    bssid | logger_category) velmd_take_item "$1" "$2" ;;
    *) velmd_add_option "$1" "$2" ;;
    esac
}

velmd_take_item() { # LIST VALUE
    case "$1" in
    bssid) velmd_add_bssid "$2" ;;
    logger_category) velmd_add_category "$2" ;;
    *) velmd_log warn "list $1 of /etc/config/velmd is not known" ;;
    esac
}

velmd_note_file() { # PATH
    velmd_files=$velmd_files$1$velmd_newline
}

velmd_begin_section() { # [TYPE NAME]: without any, /lib/functions.sh tells that the last one has ended
    [ "$#" -gt 0 ] || return 0
    velmd_is_main=no
    if [ "$1" = velmd ] && [ "$2" = main ]; then
        velmd_is_main=yes
    else
        velmd_log warn "section ${2:-without a name} of /etc/config/velmd is ignored: only velmd 'main' is read"
    fi
}

# Reads UCI. Sets velmd_enabled, velmd_identity, velmd_interface, velmd_serial_number, velmd_bssids,
# velmd_pid_file, velmd_files (one path per line) and velmd_lines, which velmd_write_file writes.
velmd_load() {
    velmd_enabled=no velmd_identity=yes velmd_interface=lan velmd_serial_number='' velmd_bssids=''
    velmd_pid_file=/var/run/velmd.pid velmd_files='' velmd_lines='' velmd_is_main=no
    config_cb() { velmd_begin_section "$@"; }
    option_cb() { [ "$velmd_is_main" = no ] || velmd_take_option "$@"; }
    list_cb() { [ "$velmd_is_main" = no ] || velmd_take_item "$@"; }
    velmd_loaded=yes
    config_load velmd || velmd_loaded=no
    reset_cb
    [ "$velmd_loaded" = yes ] || velmd_log err "/etc/config/velmd cannot be read"
    [ "$velmd_loaded" = yes ]
}

# Writes what velmd_load has read, whole or not at all.
velmd_write_file() { # PATH
    mkdir -p "${1%/*}"
    printf '# Made of /etc/config/velmd: change that one.\nprocess.daemonize=no\n%s' \
        "$velmd_lines" >"$1.part" || {
        rm -f "$1.part"
        velmd_log err "$1 cannot be written"
        return 1
    }
    if [ "$(wc -c <"$1.part")" -gt "$velmd_file_max" ]; then
        rm -f "$1.part"
        velmd_log err "/etc/config/velmd is too long: the daemon reads $velmd_file_max characters"
        return 1
    fi
    mv "$1.part" "$1"
}
