# Makes /etc/velmd/velmd.conf of the sample configuration, etc/velmd.conf: what differs on a machine under
# systemd. Everything else stays the sample's.
s|^# Detach into the background and write the pid file.|# systemd starts the daemon and knows its pid. The control socket lies beside this file.|
s|^process.daemonize=.*|process.daemonize=no|
s|/var/run/velmd|/run/velmd/velmd|
s|/etc/afc/velmd/cacert.pem|/etc/ssl/certs/ca-certificates.crt|
s|/etc/afc/velmd/|/etc/velmd/|
s|/var/afc/zelka_daemon|/run/velmd/location|
s|^# Unix socket for the location-policy clients.|# Unix socket for the location-policy clients: root and the group velmd.|
s|^accounts.shadow=.*|accounts.shadow=yes|
s|/var/log/velmd.log|/var/lib/velmd/velmd.log|
