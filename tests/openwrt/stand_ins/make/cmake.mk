# Stands in for OpenWrt's cmake.mk: the test builds and installs by itself.
