# shellcheck shell=bash
# Sourced by demo, test, bench and package, which set `root` and define `usage`.

# shellcheck disable=SC2034 # used by the commands
version=$(sed -n 's/^project(.* VERSION \([0-9.]*\) .*/\1/p' "${root:?}/CMakeLists.txt")

usage_error() { # problem
  printf '%s\n\n' "$0: $1" >&2
  usage >&2
  exit 2
}

# Each command lists the Debian packages that it needs. `need` looks for one file of each package. If it is missing,
# `need` installs the package on Debian, and prints its name on other systems.

# Prints a command, header or file: if it is found, the Debian package is not needed.
probe() {
  case $1 in
    binutils) echo objdump ;;
    clang-tools) echo clang-apply-replacements ;;
    default-jdk-headless) echo 'a JDK, 17 or later' ;;
    dpkg-dev) echo dpkg-shlibdeps ;;
    g++-aarch64-linux-gnu) echo aarch64-linux-gnu-g++ ;;
    gnuplot-nox) echo gnuplot ;;
    googletest) echo /usr/src/googletest/googletest/src/gtest-all.cc ;;
    junit5) echo /usr/share/java/junit-platform-console-standalone.jar ;;
    libbcpkix-java) echo /usr/share/java/bcpkix.jar ;;
    libclang-rt-14-dev) echo '/usr/lib*/clang/*/lib/*/libclang_rt.fuzzer*.a' ;;
    libgtest-dev) echo '<gtest/gtest.h>' ;;
    libp11-kit-dev) echo '<p11-kit/pkcs11.h>' ;;
    libsofthsm2)
      echo '/usr/lib*/softhsm/libsofthsm2.so /usr/lib*/pkcs11/libsofthsm2.so' \
        '/usr/local/lib*/softhsm/libsofthsm2.so'
      ;;
    ninja-build) echo ninja ;;
    opensc) echo pkcs11-tool ;;
    openssh-server) echo /usr/sbin/sshd ;;
    p11-kit-modules) echo '/usr/lib*/pkcs11/p11-kit-client.so /usr/lib*/*/pkcs11/p11-kit-client.so' ;;
    qemu-user) echo qemu-aarch64 ;;
    softhsm2) echo softhsm2-util ;;
    *) echo "$1" ;;
  esac
}

# Prints the files that match the first pattern with a match.
files_of() {
  local pattern patterns
  read -ra patterns <<<"$1"
  for pattern in "${patterns[@]}"; do
    if compgen -G "$pattern"; then return; fi
  done
  false
}

is_installed() { # a command, header or file, as probe prints it
  case $1 in
    '<'*) c++ -I/usr/include/p11-kit-1 -E -x c++ - <<<"#include $1" ;;
    /*) files_of "$1" ;;
    *) command -v "$1" ;;
  esac >/dev/null 2>&1
}

as_root() {
  if [ "$(id -u)" -eq 0 ]; then "$@"; else sudo "$@"; fi
}

# Waits up to ten minutes for another apt-get to end. apt-get's own option does not cover `update`.
apt_get() {
  local log end=$((SECONDS + 600))
  until log=$(as_root env DEBIAN_FRONTEND=noninteractive LC_ALL=C apt-get --quiet --quiet \
    -o DPkg::Lock::Timeout=600 "$@" 2>&1); do
    if [[ $log != *'Could not get lock'* || $SECONDS -ge $end ]]; then
      printf '%s\n' "$log" >&2
      return 1
    fi
    sleep 1
  done
}

need() {
  local package what missing=() names=()
  for package in "$@"; do
    what=$(probe "$package")
    if ! is_installed "$what"; then
      missing+=("$package")
      names+=("$what (Debian's $package)")
    fi
  done
  if [ ${#missing[@]} -eq 0 ]; then
    return
  fi
  if ! command -v apt-get >/dev/null; then
    echo "Missing; install with the package manager of this system:" >&2
  elif [ "$(id -u)" -ne 0 ] && ! command -v sudo >/dev/null; then
    echo "Missing; run this as root, or install sudo:" >&2
  else
    echo "Installing ${missing[*]}..."
    if apt_get update && apt_get install --yes --no-install-recommends "${missing[@]}"; then return; fi
    echo "Could not install:" >&2
  fi
  printf '  %s\n' "${names[@]}" >&2
  return 1
}

find_jdks() { sh "$root/cmake/jdks.sh"; }

# Sets JAVA_HOME and java_version to the first JDK.
need_jdk() {
  if [ ! "$(find_jdks)" ]; then need default-jdk-headless; fi
  read -r JAVA_HOME java_version <<<"$(find_jdks)"
  export JAVA_HOME java_version
}

# Prints the path of SoftHSM2's module.
find_softhsm() { files_of "$(probe libsofthsm2)" | sed -n 1p; }

step() { printf '\n==> %s\n' "$*"; }

# Runs a command, and prints its output only if it fails.
quietly() {
  local log
  if ! log=$("$@" 2>&1 | tr -d '\0'); then
    printf '%s\n' "$log" "failed: $*" >&2
    return 1
  fi
}
