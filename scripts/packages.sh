# shellcheck shell=bash
# Sourced by the commands: each says what it needs, as Debian's packages. What is not there, wherever it would come
# from, is installed on a Debian system, and named on any other.

# What a Debian package is needed for: a command, a header or a file.
evidence() {
  case $1 in
    binutils) echo objdump ;;
    clang-tools) echo clang-apply-replacements ;;
    default-jdk-headless) echo 'a JDK from 17 up' ;;
    dpkg-dev) echo dpkg-shlibdeps ;;
    g++-aarch64-linux-gnu) echo aarch64-linux-gnu-g++ ;;
    gnuplot-nox) echo gnuplot ;;
    googletest) echo /usr/src/googletest/googletest/src/gtest-all.cc ;;
    junit5) echo /usr/share/java/junit-platform-console-standalone.jar ;;
    libbenchmark-dev) echo '<benchmark/benchmark.h>' ;;
    libclang-rt-14-dev) echo '/usr/lib*/clang/*/lib/*/libclang_rt.fuzzer*.a' ;;
    libgtest-dev) echo '<gtest/gtest.h>' ;;
    libp11-kit-dev) echo '<p11-kit/pkcs11.h>' ;;
    libsofthsm2)
      echo '/usr/lib*/softhsm/libsofthsm2.so /usr/lib*/pkcs11/libsofthsm2.so' \
        '/usr/local/lib*/softhsm/libsofthsm2.so'
      ;;
    ninja-build) echo ninja ;;
    opensc) echo pkcs11-tool ;;
    p11-kit-modules) echo '/usr/lib*/pkcs11/p11-kit-client.so /usr/lib*/*/pkcs11/p11-kit-client.so' ;;
    qemu-user) echo qemu-aarch64 ;;
    softhsm2) echo softhsm2-util ;;
    *) echo "$1" ;;
  esac
}

# Prints the files of the first of the patterns that has any.
files_of() {
  local pattern patterns
  read -ra patterns <<<"$1"
  for pattern in "${patterns[@]}"; do
    if compgen -G "$pattern"; then return; fi
  done
  false
}

is_there() { # one of the commands, headers or files
  case $1 in
    '<'*) c++ -I/usr/include/p11-kit-1 -E -x c++ - <<<"#include $1" ;;
    /*) files_of "$1" ;;
    *) command -v "$1" ;;
  esac >/dev/null 2>&1
}

as_root() {
  if [ "$(id -u)" -eq 0 ]; then "$@"; else sudo "$@"; fi
}

need() {
  local package what missing=() names=() apt=(as_root env DEBIAN_FRONTEND=noninteractive apt-get --quiet --quiet)
  for package in "$@"; do
    what=$(evidence "$package")
    if ! is_there "$what"; then
      missing+=("$package")
      names+=("$what (Debian's $package)")
    fi
  done
  if [ ${#missing[@]} -eq 0 ]; then
    return
  fi
  if ! command -v apt-get >/dev/null; then
    echo "Missing, and this is no Debian system to install it on:" >&2
  elif [ "$(id -u)" -ne 0 ] && ! command -v sudo >/dev/null; then
    echo "Missing; install it as root, or install sudo:" >&2
  else
    echo "Installing ${missing[*]}..."
    if "${apt[@]}" update >/dev/null && "${apt[@]}" install --yes --no-install-recommends "${missing[@]}" >/dev/null; then
      return
    fi
    echo "Could not be installed:" >&2
  fi
  printf '  %s\n' "${names[@]}" >&2
  return 1
}

# Prints the homes and versions of the JDKs from 17 up: JAVA_HOME's, the one of the javac on the path, then those that
# Debian knows of.
find_jdks() {
  local jdk version
  for jdk in "${JAVA_HOME:-}" "$(readlink -f "$(command -v javac || true)" | sed 's|/bin/javac$||')" /usr/lib/jvm/*; do
    if [ -x "$jdk/bin/javac" ] && [ -f "$jdk/include/jni.h" ]; then
      version=$("$jdk/bin/javac" -version 2>&1 | sed -n 's/.*javac \([0-9]*\).*/\1/p')
      if [ "${version:-0}" -ge 17 ]; then echo "$(readlink -f "$jdk") $version"; fi
    fi
  done | awk '!seen[$0]++'
}

# The first of them.
find_jdk() { find_jdks | awk 'NR == 1'; }

need_jdk() {
  if [ ! "$(find_jdk)" ]; then need default-jdk-headless; fi
}

# Prints the path of the software token's module.
find_softhsm() { files_of "$(evidence libsofthsm2)" | sed -n 1p; }

step() { printf '\n==> %s\n' "$*"; }

# Says nothing but on failure.
quietly() {
  local log
  if ! log=$("$@" 2>&1 | tr -d '\0'); then
    printf '%s\n' "$log"
    echo "failed: $*"
    return 1
  fi
}
