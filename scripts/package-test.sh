#!/bin/sh
# package-test.sh BUILD_DIR WORK_DIR PREFIX LIBDIR
# Builds the Debian packages of BUILD_DIR with cpack, unpacks them into a
# scratch root with dpkg -x and checks their contents, their declared
# dependencies, the library's SONAME, and that comctl runs from there.
set -eu
build=$1 work=$2 prefix=$3 libdir=$4
fail() { echo "FAIL: $*"; exit 1; }

rm -rf "$work"
mkdir -p "$work/debs" "$work/root"
cpack -G DEB --config "$build/CPackConfig.cmake" -B "$work/debs" > "$work/cpack.log" 2>&1 ||
  { tail -40 "$work/cpack.log"; fail "cpack"; }

for name in libcom1 libcom-dev com-tools; do
  deb=$(ls "$work/debs/${name}_"*.deb 2>/dev/null | head -1)
  [ -n "$deb" ] || fail "no package $name"
  dpkg-deb -x "$deb" "$work/root"
  eval "deb_$(echo $name | tr -- - _)=\$deb"
done

root="$work/root$prefix"
lib="$root/$libdir"
# The runtime package: the library under its SONAME, nothing for developers.
readelf -d "$lib/libcom.so.1" | grep -q 'SONAME.*\[libcom\.so\.1\]' || fail "SONAME of libcom.so.1"
dpkg-deb -c "$deb_libcom1" | grep -q '\.h$' && fail "headers in libcom1"
dpkg-deb -c "$deb_libcom1" | grep -q 'libcom\.so$' && fail "development link in libcom1"
depends=$(dpkg-deb -f "$deb_libcom1" Depends)
for need in libace zlib1g libc6 libsystemd0 liburing; do
  echo "$depends" | grep -q "$need" || fail "libcom1 does not depend on $need: $depends"
done
# The development package: link, headers, CMake package and pkg-config file.
[ -L "$lib/libcom.so" ] || fail "no libcom.so link"
[ -f "$root/include/com/common/base/stackutils.h" ] || fail "no headers"
[ ! -e "$root/include/com/common/base/internal" ] || fail "internal headers installed"
[ -f "$lib/cmake/com/comConfig.cmake" ] || fail "no CMake package"
[ -f "$lib/pkgconfig/com.pc" ] || fail "no pkg-config file"
dpkg-deb -f "$deb_libcom_dev" Depends | grep -q 'libcom1 (= ' || fail "libcom-dev does not depend on libcom1"
# The tools package.
for f in bin/comctl bin/archive_node bin/archive_client lib/systemd/system/archive-node.service; do
  [ -e "$root/$f" ] || fail "com-tools has no $f"
done
grep -q "^ExecStart=$prefix/bin/archive_node\$" "$root/lib/systemd/system/archive-node.service" ||
  fail "the unit does not start the installed node"
dpkg-deb -f "$deb_com_tools" Depends | grep -q 'libcom1 (= ' || fail "com-tools does not depend on libcom1"

# comctl runs from the scratch root against the unpacked library.
readelf -d "$root/bin/comctl" | grep -q "$build" && fail "comctl keeps a path into the build tree"
export LD_LIBRARY_PATH="$lib"
ldd "$root/bin/comctl" | grep -q "$lib/libcom.so.1" || fail "comctl does not load the unpacked library"
out=$("$root/bin/comctl" stack-path /data 1.2.840.10008.5.1.4.1.1.2)
expected=$("$build/tools/comctl" stack-path /data 1.2.840.10008.5.1.4.1.1.2)
[ "$out" = "$expected" ] || fail "comctl stack-path gave $out, expected $expected"
"$root/bin/comctl" --json tag PatientName | grep -q '"tag": "(0010,0010)"' || fail "comctl tag"
if "$root/bin/comctl" stack-path /data 1..2 2>/dev/null; then fail "bad UID accepted"; fi
rm -rf "$work"
echo PASS
