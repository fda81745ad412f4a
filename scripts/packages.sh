# shellcheck shell=bash
# Sourced by the commands: each says what it needs, and the Debian packages that are missing are installed.

need() {
  local package missing=() apt=()
  if ! command -v dpkg-query >/dev/null; then
    echo "Not a Debian system: the Debian packages $* cannot be installed." >&2
    return 1
  fi
  for package in "$@"; do
    if [ "$(dpkg-query --show --showformat='${db:Status-Status}' "$package" 2>/dev/null)" != installed ]; then
      missing+=("$package")
    fi
  done
  if [ ${#missing[@]} -eq 0 ]; then
    return
  fi
  if [ "$(id -u)" -ne 0 ]; then
    if ! command -v sudo >/dev/null; then
      echo "Missing: ${missing[*]}. Install them as root, or install sudo." >&2
      return 1
    fi
    apt=(sudo)
  fi
  echo "Installing ${missing[*]}..."
  apt+=(env DEBIAN_FRONTEND=noninteractive apt-get --quiet --quiet)
  if ! "${apt[@]}" update >/dev/null ||
    ! "${apt[@]}" install --yes --no-install-recommends "${missing[@]}" >/dev/null; then
    echo "Could not install ${missing[*]}." >&2
    return 1
  fi
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
