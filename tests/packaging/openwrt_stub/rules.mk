# What the package's Makefile takes from OpenWrt's rules.mk. WORK names the folder to work in.
INCLUDE_DIR := $(TOPDIR)/include
PKG_BUILD_DIR = $(WORK)/build
PKG_INSTALL_DIR = $(WORK)/staged
INSTALL_DIR := install -d -m 0755
INSTALL_BIN := install -m 0755
INSTALL_CONF := install -m 0600
INSTALL_DATA := install -m 0644
CP := cp -fpR
