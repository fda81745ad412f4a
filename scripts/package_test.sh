# shellcheck shell=bash
# Sourced by ./package: tests the files in dist/ on each supported system.

tests=$root/build/package/test
module=com.calvenhor.vork.utils
jar=$root/dist/smartcard-$version.jar
rm -rf "$tests"
mkdir -p "$tests/libraries" "$tests/tokens"

export SOFTHSM2_CONF=$tests/softhsm2.conf
printf 'directories.tokendir = %s\nlog.level = ERROR\n' "$tests/tokens" >"$SOFTHSM2_CONF"

# Runs a command, and prints the last lines of its output, or the last 200 lines if it fails.
run_and_tail() { # number of lines, command...
  local lines=$1
  shift
  if ! "$@" >"$tests/log" 2>&1; then
    tail -n 200 "$tests/log"
    echo "failed: $*"
    return 1
  fi
  tail -n "$lines" "$tests/log"
}

# Checks that the output of the last command contains a text.
expect_output() { # name of the test, text
  if ! grep -a -q -F "$2" "$tests/log"; then
    tail -n 200 "$tests/log"
    echo "failed: $1"
    return 1
  fi
  echo "$1: $2"
}

# Runs the signing example in a JVM.
test_signing() { # name of the test, the token's module, command...
  local what=$1 softhsm=$2
  shift 2
  run_and_tail 0 "$@" --fresh "$softhsm" "$root/README.md"
  expect_output "$what" "The signature verifies."
}

step "Check the links of README.md"
sed -n 's/.*](\(dist\/[^)]*\)).*/\1/p' README.md | xargs ls

step "Check the libraries"
glibc=2.25
if [ "$own_libc" ]; then glibc=; fi
for name in smartcard smartcard-testing; do
  (cd "$tests/libraries" && "$JAVA_HOME/bin/jar" --extract --file "$root/dist/$name-$version.jar")
done
for arch in "${!debian[@]}"; do
  library=$tests/libraries/${module//.//}/linux-$arch/libsmartcard.so
  headers=$root/build/package/one/$arch
  export OBJDUMP=$arch-linux-gnu-objdump
  sh tests/binary_test.sh "$library" \
    "$headers/java/CMakeFiles/smartcard_jar.dir/native_headers/${module//./_}_Smartcard.h" "$glibc"
  sh tests/binary_test.sh "$tests/libraries/${module//.//}/testing/linux-$arch/libfaulty_pkcs11.so" \
    "$headers/testing/CMakeFiles/testing_classes.dir/native_headers/${module//./_}_testing_FaultyModule.h" \
    "$glibc" "C_GetFunctionList wrapModule"
  dpkg-deb --fsys-tarfile "dist/libsmartcard-jni_${version}_${debian[$arch]}.deb" |
    tar --extract --to-stdout "./usr/lib/$arch-linux-gnu/jni/libsmartcard.so" | cmp - "$library"
  tar --extract --to-stdout --file "dist/smartcard-$version-linux-$arch.tar.gz" \
    "smartcard-$version-linux-$arch/libsmartcard.so" | cmp - "$library"
done

step "Run the jar on every JDK: on the class path, as a module, linked into an image"
quietly cmake --build build/package/one/aarch64 --target smartcard_examples
examples=$root/build/package/one/aarch64/examples/examples.jar
printf 'Main-Class: SignDocument\nClass-Path: %s\nEnable-Native-Access: ALL-UNNAMED\n' "$jar $examples" \
  >"$tests/manifest"
"$JAVA_HOME/bin/jar" --create --file "$tests/application.jar" --manifest "$tests/manifest"
softhsm=$(find_softhsm)
classes=$jar:$examples
while read -r jdk feature; do
  class_path=() module_path=()
  if [ "$feature" -ge 24 ]; then
    class_path=(--illegal-native-access=deny --enable-native-access=ALL-UNNAMED)
    module_path=(--illegal-native-access=deny --enable-native-access="$module")
    "$jdk/bin/java" --illegal-native-access=deny -cp "$classes" SignDocument --fresh "$softhsm" >"$tests/log" 2>&1 ||
      true
    expect_output "JDK $feature, native access denied" IllegalCallerException
  fi
  test_signing "JDK $feature, class path" "$softhsm" "$jdk/bin/java" "${class_path[@]}" -cp "$classes" SignDocument
  test_signing "JDK $feature, module path" "$softhsm" "$jdk/bin/java" "${module_path[@]}" -p "$jar" \
    --add-modules "$module" -cp "$examples" SignDocument
  test_signing "JDK $feature, executable jar" "$softhsm" "$jdk/bin/java" "${class_path[@]:0:1}" \
    -jar "$tests/application.jar"
  "$jdk/bin/jlink" --module-path "$jar" --add-modules "$module" --output "$tests/image-$feature"
  test_signing "JDK $feature, image" "$softhsm" "$tests/image-$feature/bin/java" "${module_path[@]}" \
    -cp "$examples" SignDocument
done < <(find_jdks)

step "Install the Debian packages into a fresh Debian 12"
lintian --allow-root --fail-on error dist/*.deb
cat >"$tests/in_debian12" <<TEXT
set -e
cp -r "$root"/dist/*_all.deb "$root"/dist/*_amd64.deb "$examples" "\$1/tmp"
chroot "\$1" sh -c 'apt-get install --yes -o APT::Install-Recommends=true softhsm2 /tmp/*.deb'
export SOFTHSM2_CONF=/etc/softhsm/softhsm2.conf
chroot "\$1" java -jar /usr/share/java/smartcard.jar show
chroot "\$1" java -cp /usr/share/java/smartcard.jar:/tmp/examples.jar \\
  SignDocument --fresh /usr/lib/softhsm/libsofthsm2.so /etc/os-release
TEXT
run_and_tail 0 as_root mmdebstrap --variant=apt --customize-hook="sh '$tests/in_debian12' \"\$1\"" bookworm /dev/null \
  http://deb.debian.org/debian
expect_output "Debian 12, java without options" "The signature verifies."

if [ "$own_libc" ]; then
  echo "Skipped without Debian 11: the tests with an older libc, and those in a JVM for aarch64."
  return
fi

step "Load both libraries in Debian 11 (aarch64 in qemu)"
mkdir -p "$roots/amd64$root"
# shellcheck disable=SC2016
test_signing "x86_64" /usr/lib/softhsm/libsofthsm2.so unshare --map-root-user --mount sh -c '
  mount --rbind /proc "$0/proc" && mount --rbind "$1" "$0$1" && shift && exec /usr/sbin/chroot "$0" "$@"' \
  "$roots/amd64" "$root" /usr/lib/jvm/java-17-openjdk-amd64/bin/java -cp "$classes" SignDocument
java=(qemu-aarch64 -L "$roots/arm64" "$roots/arm64/usr/lib/jvm/java-17-openjdk-arm64/bin/java")
test_signing "aarch64" "$roots/arm64/usr/lib/softhsm/libsofthsm2.so" "${java[@]}" -cp "$classes" SignDocument

step "Run the native tests and MockTest on aarch64, in qemu"
build=$root/build/package/one/aarch64
quietly cmake --build "$build" --target all java_tests
cp "$tests/libraries/${module//.//}/linux-aarch64/libsmartcard.so" "$build/smartcard"
run_and_tail 4 ctest --test-dir "$build" --parallel "$(nproc)" --output-on-failure
run_and_tail 14 "${java[@]}" -XX:+UseSerialGC -XX:+AlwaysPreTouch -Xms64m -Xmx64m \
  -cp "$jar:$build/tests/java/java_tests.jar:/usr/share/java/junit-platform-console-standalone.jar" \
  "-Dmock=$build/tests/libmock_pkcs11.so" \
  org.junit.platform.console.ConsoleLauncher --disable-banner --disable-ansi-colors --select-class MockTest
