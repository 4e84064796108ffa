# Stands in for OpenWrt's package.mk: `make prepare` and `make install` run what the package defines.
PKG_BUILD_DIR:=$(OUT)/build
PKG_INSTALL_DIR:=$(OUT)/installed

define BuildPackage
prepare:
	$(Build/Prepare)

install:
	$(call Package/$(1)/install,$(OUT)/package)

show-options:
	@echo '$(CMAKE_OPTIONS)'

show-version:
	@echo '$(PKG_VERSION)'
endef
