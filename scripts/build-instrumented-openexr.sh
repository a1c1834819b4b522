#!/usr/bin/env bash
# Builds Debian's source of exactly the installed OpenEXR with clang,
# AddressSanitizer, UBSan and fuzzer coverage, so that the fuzz targets see
# bad reads and writes inside the library too, not only in our code.
#
#   scripts/build-instrumented-openexr.sh [DIR]      (default build/openexr-fuzz)
#
# Everything stays under DIR: a private apt configuration with its own
# deb-src entry, package lists and cache (the machine's apt state is not
# touched, no root needed), the unpacked source, the build and the installed
# static libraries in DIR/install. A finished build is kept; the script then
# returns at once. Only the libraries are built: no tools, tests or examples.
set -euo pipefail
cd "$(dirname "$0")/.."

dir=$(realpath -m "${1:-build/openexr-fuzz}")
version=$(dpkg-query -W -f='${Version}' libopenexr-dev)
# The known findings the fuzzers must step past to reach the code behind them
# (see the file's comments); only this build uses it.
ignorelist=$(realpath fuzz/openexrKnownFindings.ignorelist)
flags="-g -O1 -fno-omit-frame-pointer -fsanitize=address,undefined -fno-sanitize-recover=undefined"
flags+=" -fsanitize-ignorelist=$ignorelist -fsanitize=fuzzer-no-link"
# The stamp names the version, the flags and the ignore list's contents, so a
# build made another way is made again rather than reused.
stamp="$dir/install/.built-$version-$( (echo "$flags"; cat "$ignorelist") | sha256sum | cut -c1-16)"
if [[ -f "$stamp" ]]; then
  exit 0
fi
command -v dpkg-source >/dev/null || { echo "build-instrumented-openexr: dpkg-source missing (dpkg-dev)" >&2; exit 1; }
start=$SECONDS
echo "instrumented OpenEXR $version: building into $dir" >&2

# Private apt state: sources list, lists and cache all inside $dir.
apt_dir="$dir/apt"
mkdir -p "$apt_dir/lists/partial" "$apt_dir/cache/archives/partial" "$apt_dir/sources.list.d"
keyring=/usr/share/keyrings/debian-archive-keyring.gpg
cat >"$apt_dir/sources.list" <<EOF
deb-src [signed-by=$keyring] http://deb.debian.org/debian bookworm main
deb-src [signed-by=$keyring] http://deb.debian.org/debian bookworm-updates main
deb-src [signed-by=$keyring] http://deb.debian.org/debian-security bookworm-security main
EOF
apt_opts=(
  -o "Dir::Etc::SourceList=$apt_dir/sources.list"
  -o "Dir::Etc::SourceParts=$apt_dir/sources.list.d"
  -o "Dir::State::Lists=$apt_dir/lists"
  -o "Dir::Cache=$apt_dir/cache"
  -o "Debug::NoLocking=1"
  -o "APT::Sandbox::User=$(id -un)"
)
src_parent="$dir/source"
# An unpacked source of this very version is reused (Debian's .dsc names it);
# anything else is fetched again.
if [[ ! -f "$src_parent/openexr_$version.dsc" ]]; then
  apt-get "${apt_opts[@]}" -qq update
  rm -rf "$src_parent"
  mkdir -p "$src_parent"
  (cd "$src_parent" && apt-get "${apt_opts[@]}" -qq source "openexr=$version" >/dev/null)
fi
src=$(find "$src_parent" -mindepth 1 -maxdepth 1 -type d -name 'openexr-*' | head -n 1)
[[ -n "$src" && -f "$src/CMakeLists.txt" ]] || { echo "build-instrumented-openexr: no source unpacked" >&2; exit 1; }
echo "instrumented OpenEXR: source in $src ($((SECONDS - start)) s)" >&2

cmake -S "$src" -B "$dir/build" -G Ninja \
  -DCMAKE_BUILD_TYPE=RelWithDebInfo \
  -DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++ \
  -DCMAKE_C_FLAGS="$flags" -DCMAKE_CXX_FLAGS="$flags" \
  -DCMAKE_C_FLAGS_RELWITHDEBINFO= -DCMAKE_CXX_FLAGS_RELWITHDEBINFO= \
  -DCMAKE_INSTALL_PREFIX="$dir/install" \
  -DBUILD_SHARED_LIBS=OFF -DBUILD_TESTING=OFF \
  -DOPENEXR_BUILD_TOOLS=OFF -DOPENEXR_INSTALL_TOOLS=OFF \
  -DOPENEXR_INSTALL_EXAMPLES=OFF -DOPENEXR_INSTALL_PKG_CONFIG=OFF \
  -DOPENEXR_FORCE_INTERNAL_IMATH=OFF >"$dir/configure.log" 2>&1 \
  || { tail -n 40 "$dir/configure.log" >&2; exit 1; }
cmake --build "$dir/build" --target OpenEXR OpenEXRCore -- -j "$(nproc)" >"$dir/build.log" 2>&1 \
  || { tail -n 40 "$dir/build.log" >&2; exit 1; }

# Install by hand what the fuzz targets link: the four archives and the headers.
rm -rf "$dir/install"
mkdir -p "$dir/install/lib" "$dir/install/include/OpenEXR"
find "$dir/build/src/lib" -name '*.a' -exec cp {} "$dir/install/lib/" \;
cp "$src"/src/lib/Iex/*.h "$src"/src/lib/IlmThread/*.h "$src"/src/lib/OpenEXR/*.h "$src"/src/lib/OpenEXRCore/openexr*.h \
  "$dir/install/include/OpenEXR/"
find "$dir/build" -name '*Config*.h' -path '*cmake*' -exec cp {} "$dir/install/include/OpenEXR/" \;
touch "$stamp"
echo "instrumented OpenEXR $version: built in $((SECONDS - start)) s, libraries in $dir/install/lib" >&2
