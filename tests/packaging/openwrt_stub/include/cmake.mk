# OpenWrt's cmake.mk configures and builds inside the source folder.
configure:
	$(CMAKE_COMMAND) -S $(PKG_BUILD_DIR) -B $(PKG_BUILD_DIR) -DCMAKE_BUILD_TYPE=Release \
		-DCMAKE_INSTALL_PREFIX=/usr $(CMAKE_OPTIONS)
