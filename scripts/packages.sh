# shellcheck shell=bash
# Sourced by the commands: each says which Debian packages it needs, and they are installed if they are missing.

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
