# The steps of OpenWrt's package.mk, as targets; the package goes to the folder root.
define BuildPackage
prepare:
	$$(Build/Prepare)

install:
	DESTDIR=$$(PKG_INSTALL_DIR) $$(CMAKE_COMMAND) --install $$(PKG_BUILD_DIR)
	$$(call Package/$(1)/install,$$(WORK)/root)

print:
	@echo 'version $$(PKG_VERSION)'
	@echo 'depends $$(call depends_of,$$(Package/$(1)))'
	@echo 'user $$(patsubst USERID:=%,%,$$(filter USERID:=%,$$(Package/$(1))))'
	@echo 'conffiles $$(strip $$(Package/$(1)/conffiles))'
endef

depends_of = $(patsubst DEPENDS:=%,%,$(filter DEPENDS:=% +%,$(1)))
