# Stands in for OpenWrt's rules.mk: the commands that a package's Makefile installs with.
INCLUDE_DIR:=$(TOPDIR)
INSTALL_DIR:=install -d -m0755
INSTALL_BIN:=install -m0755
INSTALL_DATA:=install -m0644
INSTALL_CONF:=install -m0600
CP:=cp -fpR
